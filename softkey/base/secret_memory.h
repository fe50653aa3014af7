// Memory for secrets, of pages that `platform/secret_pages.h` describes. Nothing of it is left when it is given back.
#pragma once

#include <cstddef>

namespace softkey
{

/// Overwrites memory in a way that no compiler leaves out.
void wipe(void* memory, std::size_t size) noexcept;

/// Never null; throws bad_alloc. Ordinary memory where the system has no such pages.
void* takeSecretMemory(std::size_t size);
/// The same from ordinary memory, which is wiped, too.
void* takeOrdinaryMemory(std::size_t size);
/// For either kind; null is no memory. What was not taken, or given back already, ends the process.
void giveBackMemory(void* memory) noexcept;
/// Memory of another size with what was in that of either kind, which is given back; null is no memory. What was among
/// secrets stays there, whoever asks for more. Throws bad_alloc, and has given nothing back then.
void* takeMemoryAnew(void* memory, std::size_t size, bool isForSecrets);

/// Between these two, no other thread takes or gives back secret memory. For forks.
void holdSecretMemory() noexcept;
void releaseSecretMemory() noexcept;
/// The same in the child, whose pages are kept from the swap anew.
void releaseSecretMemoryInChild() noexcept;

} // namespace softkey
