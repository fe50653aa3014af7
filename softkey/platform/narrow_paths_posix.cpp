#include "platform/narrow_paths.h"

#include <algorithm>

namespace softkey
{

std::filesystem::path pathFromNarrow(std::string_view text)
{
    std::string path(text);
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

std::string narrowFromPath(const std::filesystem::path& path)
{
    return path.string();
}

} // namespace softkey
