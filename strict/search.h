// Searches: which objects a template finds, and how they are handed out.
#pragma once

#include <vector>

#include "cryptoki.h"

namespace velkor::strict
{

struct Session;

/// A search in progress: what it found, and how much of that has been handed out.
struct Search {
    std::vector<CK_OBJECT_HANDLE> found;
    std::size_t position = 0;
};

CK_RV findObjectsInit(Session& session, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount);
CK_RV findObjects(Session& session, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                  CK_ULONG_PTR pulObjectCount);
CK_RV findObjectsFinal(Session& session);

} // namespace velkor::strict
