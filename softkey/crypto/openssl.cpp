#include "crypto/openssl.h"

#include "base/secret_memory.h"
#include "crypto/short_hashes.h"
#include "platform/fork_guard.h"

#include <openssl/provider.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <string_view>

namespace softkey
{
namespace
{

std::atomic<bool> openSslCleanedUp{false};

#ifdef SOFTKEY_BUNDLED_LIBCRYPTO
/// Digits of big numbers, which is where private keys have their components, are all made in one file of OpenSSL's. In
/// another one scrypt takes the PIN, and what it works in: whoever has that tries PINs at no cost. The others take the
/// keys of seals and of codes, and the clear encoding of a private key as a whole.
bool isForSecrets(std::string_view file)
{
    constexpr std::array<std::string_view, 5> FILES{"bn_lib.c", "scrypt.c", "cipher_aes_gcm.c", "hmac_prov.c",
                                                    "buffer.c"};
    return std::ranges::any_of(FILES, [file](std::string_view each) { return file.ends_with(each); });
}

void giveBack(void* memory, const char*, int) noexcept
{
    giveBackMemory(memory);
}

void* takeAnew(void* memory, std::size_t size, const char* file, int) noexcept
{
    try {
        if (size != 0)
            return takeMemoryAnew(memory, size, file != nullptr && isForSecrets(file));
        giveBackMemory(memory);
        return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* take(std::size_t size, const char* file, int line) noexcept
{
    return size != 0 ? takeAnew(nullptr, size, file, line) : nullptr;
}
#endif

bool startOnce()
{
#ifdef SOFTKEY_BUNDLED_LIBCRYPTO
    // Whatever it gives back is wiped: some of its code gives back encodings of private keys as they are. Where it was
    // in use before, as in the tests, it stays with the memory that it has.
    CRYPTO_set_mem_functions(take, takeAnew, giveBack);
    // This copy of libcrypto is the library's own: without a cleanup at exit, calls stay safe to the very end.
    return OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
#else
    // Shared with the host, whose exit cleans it up; from then on no call may enter it.
    return OPENSSL_atexit([] { openSslCleanedUp = true; }) == 1;
#endif
}

} // namespace

bool startOpenSsl()
{
    static const bool started = startOnce();
    return started;
}

const CryptoContext& CryptoContext::get()
{
    static auto* const contexts = new PerProcess<CryptoContext>;
    require(!openSslCleanedUp, SoftkeyStatus::ShuttingDown);
    require(startOpenSsl());
    return contexts->get();
}

CryptoContext::CryptoContext() : library_(OSSL_LIB_CTX_new())
{
    require(library_ != nullptr);
    // Named, so that nothing else is ever loaded as a fallback.
    require(OSSL_PROVIDER_load(library_, "default") != nullptr);
    aes256Gcm_ = EVP_CIPHER_fetch(library_, "AES-256-GCM", nullptr);
    require(aes256Gcm_ != nullptr);
    for (const char* name : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
        const EVP_MD* algorithm = EVP_MD_fetch(library_, name, nullptr);
        require(algorithm != nullptr);
        digests_.push_back({algorithm, name, static_cast<std::size_t>(EVP_MD_get_size(algorithm))});
    }
}

CryptoContext::~CryptoContext()
{
    for (const Digest& digest : digests_)
        EVP_MD_free(const_cast<EVP_MD*>(digest.algorithm));
    EVP_CIPHER_free(aes256Gcm_);
    OSSL_LIB_CTX_free(library_);
}

const Digest* CryptoContext::digestOfSize(std::size_t size) const
{
    for (const Digest& digest : digests_) {
        if (digest.size == size)
            return &digest;
    }
    return nullptr;
}

EvpKeyContext contextFor(const char* algorithm)
{
    return requireObject<EvpKeyContext>(EVP_PKEY_CTX_new_from_name(CryptoContext::get().library(), algorithm, nullptr));
}

EvpKeyContext contextFor(const EVP_PKEY* key)
{
    return requireObject<EvpKeyContext>(
        EVP_PKEY_CTX_new_from_pkey(CryptoContext::get().library(), const_cast<EVP_PKEY*>(key), nullptr));
}

void randomBytes(std::span<unsigned char> out)
{
    require(RAND_bytes_ex(CryptoContext::get().library(), out.data(), out.size(), 0) == 1);
}

ByteVector sha256(Bytes data)
{
    ByteVector hash(SHORT_SHA256.size);
    SHORT_SHA256.compute({data}, hash.data());
    return hash;
}

} // namespace softkey
