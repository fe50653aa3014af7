// Pages for secrets: kept from the swap as far as the system lets a user, left out of dumps, and empty in a forked
// child.
#pragma once

#include <cstddef>

namespace softkey
{

/// Address space for that many bytes; null when there is none. It is never given back.
unsigned char* reserveSecretPages(std::size_t size);
/// Makes a part of it usable, all zero. False when there is no memory; pages that the system does not keep from the
/// swap are used all the same.
bool openSecretPages(unsigned char* pages, std::size_t size);
/// Keeps pages from the swap that the parent has made usable: a forked child begins with none that are. No page is
/// taken before something is written to it: most children never use a key.
void lockSecretPagesInChild(unsigned char* pages, std::size_t size);

/// Pages like these for one secret alone. In front of them lies some ordinary memory, which a forked child keeps.
/// Null when there is no memory.
constexpr std::size_t ORDINARY_BEFORE = 0x10000;
unsigned char* takeSecretPages(std::size_t size);
/// The system wipes them before anybody gets them again.
void giveBackSecretPages(unsigned char* pages, std::size_t size);

} // namespace softkey
