// Puts a function of the test's own in the place of one that a loaded program or DLL imports.
#pragma once

#include <vector>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace test_system
{

/// The program and the DLLs of ours that are loaded in this process.
std::vector<HMODULE> ownModules();

/// Where `module` keeps the address of an imported function; null when it imports none of that name.
void** importedFunction(HMODULE module, const char* name);

/// Lets every one of `ownModules` that imports `name` call `replacement` instead. Returns how many there were.
int replaceImportedFunction(const char* name, void* replacement);

} // namespace test_system
