#include "base/status.h"

#include <algorithm>

namespace softkey
{
namespace
{

constexpr StatusRow ROWS[] = {
#define FILLED(name, number, text, exitCode) {SoftkeyStatus::name, ExitCode::exitCode, #name, text},
    SOFTKEY_STATUSES(FILLED)
#undef FILLED
};

} // namespace

std::span<const StatusRow> statusRows() noexcept
{
    return ROWS;
}

const StatusRow& rowOf(SoftkeyStatus status) noexcept
{
    return *std::ranges::find(ROWS, status, &StatusRow::status);
}

Refusal::Refusal(SoftkeyStatus status, const std::string& detail) : status_(status), text_(rowOf(status).text)
{
    if (!detail.empty())
        text_ += ": " + detail;
}

Refusal Refusal::ofPin(SoftkeyStatus status, int triesLeft)
{
    Refusal refusal(status);
    refusal.triesLeft_ = triesLeft;
    return refusal;
}

} // namespace softkey
