// What the strict front needs of the operating system beyond the module's platform header: its own place, the module
// beside it, and word of a fork.
#pragma once

#include <string>

namespace velkor::strict::system
{

/// Loads the module that lies in this library's own folder, privately. Null when that fails; `error` then says why.
void* loadModule(std::string& error);

/// Null when the library has no such symbol.
void* symbolOf(void* library, const char* name);

/// Keeps this library mapped to the end of the process.
void stayMapped();

/// Has a function called when the process exits. Not where the system has ended the other threads by then, wherever
/// they were: their locks would be waited for in vain.
void atExit(void (*work)());

/// Has the three functions called around each fork of this process.
void watchForks(void (*before)(), void (*inParent)(), void (*inChild)());

} // namespace velkor::strict::system
