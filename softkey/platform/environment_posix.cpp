#include "platform/environment.h"

#include <cstdlib>

namespace softkey
{

std::optional<std::string> environmentValue(const char* name)
{
    const char* value = secure_getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

} // namespace softkey
