#include "base/small_file.h"

#include <cstdint>
#include <fstream>

namespace softkey
{
namespace
{

constexpr std::uintmax_t FILE_SIZE_MAX = 1 << 20;

/// Straight into the buffer, so that no other one holds what may be secret.
template <class Buffer>
std::optional<Buffer> contentOf(const std::filesystem::path& path)
{
    std::error_code failure;
    // Nothing but regular files: reading a pipe could wait for ever.
    if (!std::filesystem::is_regular_file(path, failure))
        return std::nullopt;
    const std::uintmax_t size = std::filesystem::file_size(path, failure);
    if (failure || size > FILE_SIZE_MAX)
        return std::nullopt;
    Buffer content(static_cast<std::size_t>(size));
    std::ifstream in;
    in.rdbuf()->pubsetbuf(nullptr, 0);
    in.open(path, std::ios::binary);
    in.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!in)
        return std::nullopt;
    return content;
}

} // namespace

std::optional<ByteVector> readSmallFile(const std::filesystem::path& path)
{
    return contentOf<ByteVector>(path);
}

std::optional<SecretBuffer> readSmallSecretFile(const std::filesystem::path& path)
{
    return contentOf<SecretBuffer>(path);
}

} // namespace softkey
