// The seal on what a file says: a code under the master key over all that a PIN is needed to change. What changes
// without a PIN, plugging and the tries that are left, is not under it; PINs are bound to the master key by their
// wrapping.
#pragma once

#include "store/contents.h"

namespace softkey
{

/// Whether nobody without the master key has changed the device's texts, key pairs or certificates, the number of tries
/// of a PIN or whether it counts as changed.
bool areAuthentic(const Contents& contents, Bytes masterKey);
/// The same of all but the PINs, for a file whose code was made when those were not under it.
bool haveFormerCode(const Contents& contents, Bytes masterKey);

/// Puts the code under what the file says now. Part of every change of what is under it.
void authenticate(Database& database, Bytes masterKey);

} // namespace softkey
