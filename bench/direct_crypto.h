// The same operations by libcrypto alone, each set up as an application would: with a context of its own, for a key
// that is there already.
#pragma once

#include <memory>

#include <openssl/evp.h>

#include "cryptoki_host.h"

namespace bench
{

class DirectCrypto
{
public:
    DirectCrypto();

    void signP256();
    void signRsa();
    void verifyP256();
    void verifyRsa();
    void encryptRsa();
    void decryptRsa();
    void digest();
    void random();

private:
    struct Release {
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
        void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
        void operator()(EVP_MD* digest) const { EVP_MD_free(digest); }
    };
    using Key = std::unique_ptr<EVP_PKEY, Release>;
    using Context = std::unique_ptr<EVP_PKEY_CTX, Release>;
    using Operation = int (*)(EVP_PKEY_CTX*, unsigned char*, std::size_t*, const unsigned char*, std::size_t);

    static Context contextFor(const Key& key, int (*begin)(EVP_PKEY_CTX*));
    static ByteString run(const Context& context, Operation operation, const ByteString& data);

    ByteString hash_ = ByteString(32, 0x5A);
    ByteString digestInfo_;
    Key p256_;
    Key rsa_;
    std::unique_ptr<EVP_MD, Release> sha256_;
    ByteString p256Signature_;
    ByteString rsaSignature_;
    ByteString ciphertext_;
};

/// A SHA-256 hash as PKCS #1 v1.5 signs it.
ByteString digestInfoOf(const ByteString& hash);

} // namespace bench
