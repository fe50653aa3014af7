#include "platform/exposure.h"

namespace softkey
{

Exposure exposureOf(const std::filesystem::path&)
{
    return Exposure::None;
}

} // namespace softkey
