// Whom the operating system lets at a key's file or folder besides its owner.
#pragma once

#include <filesystem>

namespace softkey
{

enum class Exposure { None, Readable, Writable };

/// What others than this user and the system's own may do with what stands at the path, links followed. On Windows
/// always None: whom a folder admits there is told by lists that this does not read.
Exposure exposureOf(const std::filesystem::path& path);

} // namespace softkey
