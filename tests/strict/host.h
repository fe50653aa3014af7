// What the parts of the host share: the library under test, and how it is loaded on each system.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "cryptoki.h"

#define REQUIRE(condition)                                                                                             \
    if (!(condition)) {                                                                                                \
        std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition);                                                   \
        std::_Exit(1);                                                                                                 \
    }

using Ways = std::map<std::string, std::function<void()>>;

extern std::string path;
extern CK_FUNCTION_LIST_PTR p11;

void load(bool globally = false);
void start();
CK_SESSION_HANDLE openUserSession();

/// Gives its private half.
CK_OBJECT_HANDLE makeSessionPair(CK_SESSION_HANDLE session);
void signWith(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key);

/// Keeps threads in the front until the process ends.
void keepBusy();

// ---- Of each system ----

std::filesystem::path programFile();

/// Null when the library cannot be loaded; says why. `globally` has its names stand for those of every other library.
void* loadLibrary(const std::string& file, bool globally);
void* symbolOf(void* library, const char* name);
bool unloadLibrary(void* library);
/// Waits until the libraries have no thread any more.
void awaitEndOfThreads();
Ways waysOfThisSystem();
