// Processes do not fork here.
#include "platform/fork_guard.h"

namespace softkey
{

std::uint32_t forkGeneration() noexcept
{
    return 0;
}

// NOLINTBEGIN(modernize-use-equals-default): elsewhere they do something, which the header does not tell.
ForkSafeSection::ForkSafeSection() {}
ForkSafeSection::~ForkSafeSection() {}
// NOLINTEND(modernize-use-equals-default)

} // namespace softkey
