#include "mechanisms/token_policy.h"

#include "util/utils.h"

namespace velkor
{
namespace
{

constexpr std::size_t FIPS_CHARACTER = 2;
constexpr const char* RECENT_FIRMWARE = "2.0.0";

} // namespace

bool isFipsToken(const TokenInfo& token)
{
    return token.model.size() <= FIPS_CHARACTER || token.model[FIPS_CHARACTER] != '1';
}

bool isFirmwareRecent(const TokenInfo& token)
{
    return Utils::compareFirmwareVersion(token.firmwareVersion, RECENT_FIRMWARE) >= 0;
}

} // namespace velkor
