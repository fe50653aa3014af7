#include "platform/environment.h"

#include <windows.h>

namespace softkey
{

std::optional<std::string> environmentValue(const char* name)
{
    std::string value(GetEnvironmentVariableA(name, nullptr, 0), '\0'); // With room for the terminating zero.
    if (value.empty())
        return std::nullopt;
    value.resize(GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size())));
    return value;
}

} // namespace softkey
