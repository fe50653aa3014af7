#include "crypto/keyed_digest.h"

#include <cstdint>

namespace softkey
{
namespace
{

constexpr std::size_t KEY_SIZE = 32;

} // namespace

KeyedDigest::KeyedDigest() : key_(KEY_SIZE)
{
    randomBytes({key_.data(), key_.size()});
}

ByteVector KeyedDigest::of(std::initializer_list<Bytes> parts) const
{
    const Digest* sha256 = CryptoContext::get().digestOfSize(32);
    const auto context = requireObject<EvpDigestContext>(EVP_MD_CTX_new());
    require(EVP_DigestInit_ex2(context.get(), sha256->algorithm, nullptr) == 1 &&
            EVP_DigestUpdate(context.get(), key_.data(), key_.size()) == 1);
    for (const Bytes part : parts) {
        const std::uint64_t size = part.size(); // What belongs to which part is digested, too.
        require(EVP_DigestUpdate(context.get(), &size, sizeof size) == 1 &&
                EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1);
    }
    ByteVector result(sha256->size);
    require(EVP_DigestFinal_ex(context.get(), result.data(), nullptr) == 1);
    return result;
}

bool sameDigest(Bytes one, Bytes other)
{
    return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

} // namespace softkey
