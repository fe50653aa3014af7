// Reading files of a size that a certificate or a key may have.
#pragma once

#include "base/bytes.h"
#include "base/secret.h"

#include <filesystem>
#include <optional>

namespace softkey
{

/// A regular file's content; nothing when it cannot be read or is larger than a certificate file can be.
std::optional<ByteVector> readSmallFile(const std::filesystem::path& path);
/// The same in memory that is wiped.
std::optional<SecretBuffer> readSmallSecretFile(const std::filesystem::path& path);

} // namespace softkey
