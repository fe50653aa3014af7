#include "crypto/short_hashes.h"

#include "base/secret_memory.h"

#include <algorithm>
#include <array>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // See the header.

namespace softkey
{
namespace
{

template <class Context, auto Begin, auto Update, auto Finish>
void computeHash(std::initializer_list<Bytes> parts, unsigned char* out)
{
    Context context;
    Begin(&context);
    for (const Bytes part : parts)
        Update(&context, part.data(), part.size());
    Finish(out, &context);
    wipe(&context, sizeof context);
}

} // namespace

const ShortHash SHORT_SHA1 = {SHA_DIGEST_LENGTH, computeHash<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final>};
const ShortHash SHORT_SHA256 = {SHA256_DIGEST_LENGTH,
                                computeHash<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final>};
const ShortHash SHORT_SHA384 = {SHA384_DIGEST_LENGTH,
                                computeHash<SHA512_CTX, SHA384_Init, SHA384_Update, SHA384_Final>};
const ShortHash SHORT_SHA512 = {SHA512_DIGEST_LENGTH,
                                computeHash<SHA512_CTX, SHA512_Init, SHA512_Update, SHA512_Final>};

HmacSha256::HmacSha256(Bytes key)
{
    constexpr unsigned char INNER_PADDING = 0x36;
    constexpr unsigned char OUTER_PADDING = 0x5c;
    std::array<unsigned char, SHA256_CBLOCK> block{};
    std::copy_n(key.begin(), std::min(key.size(), block.size()), block.begin());
    for (unsigned char& byte : block)
        byte ^= INNER_PADDING;
    SHA256_Init(&inner_);
    SHA256_Update(&inner_, block.data(), block.size());
    for (unsigned char& byte : block)
        byte ^= INNER_PADDING ^ OUTER_PADDING;
    SHA256_Init(&outer_);
    SHA256_Update(&outer_, block.data(), block.size());
    wipe(block.data(), block.size());
}

HmacSha256::~HmacSha256()
{
    wipe(&inner_, sizeof inner_);
    wipe(&outer_, sizeof outer_);
}

void HmacSha256::compute(std::initializer_list<Bytes> parts, unsigned char* out) const
{
    SHA256_CTX inner = inner_;
    SHA256_CTX outer = outer_;
    for (const Bytes part : parts)
        SHA256_Update(&inner, part.data(), part.size());
    std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
    SHA256_Final(hash.data(), &inner);
    SHA256_Update(&outer, hash.data(), hash.size());
    SHA256_Final(out, &outer);
    wipe(hash.data(), hash.size());
    wipe(&inner, sizeof inner);
    wipe(&outer, sizeof outer);
}

} // namespace softkey

#pragma GCC diagnostic pop
