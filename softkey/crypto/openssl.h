// OpenSSL as the software key uses it: owners of its objects, a library context of the key's own, and a guard that
// leaves the host's error queue as it was.
#pragma once

#include "base/bytes.h"
#include "base/status.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstddef>

namespace softkey
{

using EvpKey = Owned<EVP_PKEY, EVP_PKEY_free>;
using EvpKeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using EvpDigestContext = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using EvpCipherContext = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using Certificate = Owned<X509, X509_free>;
using BioOwner = Owned<BIO, BIO_free_all>;

inline void releaseOpenSslMemory(void* memory)
{
    OPENSSL_free(memory);
}
using OpenSslBytes = Owned<unsigned char, releaseOpenSslMemory>;

/// A hash function that the key knows, in the order of `HashAlgorithm`'s sizes.
struct Digest {
    const EVP_MD* algorithm;
    const char* name;
    std::size_t size;
};

/// The key's own corner of OpenSSL: a library context with the default provider, and what is fetched from it.
class CryptoContext
{
public:
    /// Throws ShuttingDown once OpenSSL has been cleaned up, CryptoFailed when it cannot be started.
    static const CryptoContext& get();

    CryptoContext();
    ~CryptoContext();
    CryptoContext(const CryptoContext&) = delete;
    CryptoContext& operator=(const CryptoContext&) = delete;

    OSSL_LIB_CTX* library() const { return library_; }
    const EVP_CIPHER* aes256Gcm() const { return aes256Gcm_; }
    std::span<const Digest> digests() const { return digests_; }
    /// Null when no digest has that size.
    const Digest* digestOfSize(std::size_t size) const;

private:
    OSSL_LIB_CTX* library_;
    EVP_CIPHER* aes256Gcm_ = nullptr;
    std::vector<Digest> digests_;
};

/// Starts OpenSSL in the way that suits the library. Nothing else of OpenSSL may be called before. False on failure.
bool startOpenSsl();

/// Drops the errors that a piece of work left on this thread's OpenSSL error queue: the host reads that queue too.
class ErrorQueueGuard
{
public:
    ErrorQueueGuard()
    {
        startOpenSsl();
        ERR_set_mark();
    }
    ~ErrorQueueGuard() { ERR_pop_to_mark(); }
    ErrorQueueGuard(const ErrorQueueGuard&) = delete;
    ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

/// Takes what OpenSSL made; throws CryptoFailed when it made nothing.
template <class Owner>
Owner requireObject(typename Owner::pointer object)
{
    if (object == nullptr)
        throw Refusal(SoftkeyStatus::CryptoFailed);
    return Owner(object);
}

/// A context for work with keys of that algorithm, or with that key.
EvpKeyContext contextFor(const char* algorithm);
EvpKeyContext contextFor(const EVP_PKEY* key);

void randomBytes(std::span<unsigned char> out);
ByteVector sha256(Bytes data);

} // namespace softkey
