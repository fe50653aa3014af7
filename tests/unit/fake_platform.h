// A platform whose clock, folders and failures a test sets.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "platform/platform.h"

struct FakePlatform {
    std::optional<std::string> logLevel;
    std::string root; ///< Folders are created below it only.
    std::string temporaryFolder;
    std::string processFileName = "app.exe";
    velkor::platform::LocalTime time{2026, 11, 15, 13, 46, 27, 123};
    bool foldersThrow = false;
    bool foldersAreThere = false; ///< All of them: nothing is looked up or created.
    bool processThrows = false;
    int folderCalls = 0;
    std::string lastFolder; ///< That was to be created.
    int levelReads = 0;
};

/// Set by the test before it calls what it tests.
extern FakePlatform fakePlatform;
