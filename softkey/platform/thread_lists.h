// The lists that operations answer by reference: one of each per thread, overwritten by the thread's next call and
// released when the thread ends.
#pragma once

#include "velkor/device_service.h"

#include <vector>

namespace softkey
{

struct ThreadLists {
    std::vector<VelkorKeyPair> keyPairs;
    std::vector<VelkorCertificate> certificates;
};
ThreadLists& threadLists();

} // namespace softkey
