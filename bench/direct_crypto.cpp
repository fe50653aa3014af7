#include "direct_crypto.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include <openssl/ec.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

namespace bench
{
namespace
{

void requireDone(bool done)
{
    if (done)
        return;
    std::fprintf(stderr, "libcrypto fails\n");
    std::exit(1);
}

} // namespace

ByteString digestInfoOf(const ByteString& hash)
{
    static constexpr unsigned char PREFIX[] = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                               0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    ByteString encoded(std::size(PREFIX) + hash.size());
    std::copy(hash.begin(), hash.end(), std::copy(std::begin(PREFIX), std::end(PREFIX), encoded.begin()));
    return encoded;
}

DirectCrypto::DirectCrypto()
    : digestInfo_(digestInfoOf(hash_)),
      p256_(EVP_EC_gen("P-256")),
      rsa_(EVP_RSA_gen(2048)),
      sha256_(EVP_MD_fetch(nullptr, "SHA256", nullptr))
{
    requireDone(p256_ && rsa_ && sha256_);
    p256Signature_ = run(contextFor(p256_, EVP_PKEY_sign_init), EVP_PKEY_sign, hash_);
    rsaSignature_ = run(contextFor(rsa_, EVP_PKEY_sign_init), EVP_PKEY_sign, digestInfo_);
    ciphertext_ = run(contextFor(rsa_, EVP_PKEY_encrypt_init), EVP_PKEY_encrypt, hash_);
}

/// PKCS #1 v1.5 is what RSA begins with.
DirectCrypto::Context DirectCrypto::contextFor(const Key& key, int (*begin)(EVP_PKEY_CTX*))
{
    Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    requireDone(context && begin(context.get()) == 1);
    return context;
}

ByteString DirectCrypto::run(const Context& context, Operation operation, const ByteString& data)
{
    ByteString result(256);
    std::size_t size = result.size();
    requireDone(operation(context.get(), result.data(), &size, data.data(), data.size()) == 1);
    result.resize(size);
    return result;
}

void DirectCrypto::signP256()
{
    run(contextFor(p256_, EVP_PKEY_sign_init), EVP_PKEY_sign, hash_);
}

void DirectCrypto::signRsa()
{
    run(contextFor(rsa_, EVP_PKEY_sign_init), EVP_PKEY_sign, digestInfo_);
}

void DirectCrypto::verifyP256()
{
    const Context context = contextFor(p256_, EVP_PKEY_verify_init);
    requireDone(
        EVP_PKEY_verify(context.get(), p256Signature_.data(), p256Signature_.size(), hash_.data(), hash_.size()) == 1);
}

void DirectCrypto::verifyRsa()
{
    const Context context = contextFor(rsa_, EVP_PKEY_verify_init);
    requireDone(EVP_PKEY_verify(context.get(), rsaSignature_.data(), rsaSignature_.size(), digestInfo_.data(),
                                digestInfo_.size()) == 1);
}

void DirectCrypto::encryptRsa()
{
    run(contextFor(rsa_, EVP_PKEY_encrypt_init), EVP_PKEY_encrypt, hash_);
}

void DirectCrypto::decryptRsa()
{
    requireDone(run(contextFor(rsa_, EVP_PKEY_decrypt_init), EVP_PKEY_decrypt, ciphertext_) == hash_);
}

void DirectCrypto::digest()
{
    const ByteString data(64, 1);
    ByteString hash(32);
    requireDone(EVP_Digest(data.data(), data.size(), hash.data(), nullptr, sha256_.get(), nullptr) == 1);
}

void DirectCrypto::random()
{
    unsigned char bytes[32];
    requireDone(RAND_bytes(bytes, sizeof bytes) == 1);
}

} // namespace bench
