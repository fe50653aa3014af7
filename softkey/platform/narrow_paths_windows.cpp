#include "platform/narrow_paths.h"

#include <windows.h>

namespace softkey
{

// By hand, since the C++ runtimes do not agree on the code page of narrow paths.
std::filesystem::path pathFromNarrow(std::string_view text)
{
    const int size = static_cast<int>(text.size());
    std::wstring path(text.size(), L'\0'); // No code page has characters that grow.
    path.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, text.data(), size, path.data(), size)));
    return path;
}

std::string narrowFromPath(const std::filesystem::path& path)
{
    const std::wstring& wide = path.native();
    const int size = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), size, text.data(), needed, nullptr, nullptr);
    return text;
}

} // namespace softkey
