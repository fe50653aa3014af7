// Paths as the module writes them: in the narrow texts of the operating system, with separators of both kinds.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace softkey
{

/// On Windows the text is in the code page of the process.
std::filesystem::path pathFromNarrow(std::string_view text);
/// The way back. Characters that the code page does not have become question marks.
std::string narrowFromPath(const std::filesystem::path& path);

} // namespace softkey
