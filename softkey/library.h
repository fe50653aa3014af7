// The state of the library in this process: its instances, its keys folder, the lists it has handed out.
#pragma once

#include "store/keys_folder.h"

namespace softkey
{

/// Null when OpenSSL cannot be started or too many instances are alive. The first instance opens the keys folder.
void* createInstance();
/// The last instance closes the folder and wipes what was unlocked.
void releaseInstance(void* instance);
/// Throws BadInstance.
void requireInstance(const void* instance);

KeysFolder& keysFolder();

/// Lists that operations answer by reference: one of each per thread, overwritten by the thread's next call.
struct ThreadLists {
    std::vector<VelkorKeyPair> keyPairs;
    std::vector<VelkorCertificate> certificates;
};
ThreadLists& threadLists();

/// Ends all hash contexts.
void dropHashContexts();

} // namespace softkey
