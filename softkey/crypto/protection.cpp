#include "crypto/protection.h"

#include "platform/fork_guard.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

namespace softkey
{
namespace
{

constexpr std::size_t NONCE_SIZE = 12;
constexpr std::size_t TAG_SIZE = 16;

using EvpKdf = Owned<EVP_KDF, EVP_KDF_free>;
using EvpKdfContext = Owned<EVP_KDF_CTX, EVP_KDF_CTX_free>;

int asInt(std::size_t size)
{
    return static_cast<int>(size);
}

} // namespace

bool isAcceptable(const ScryptCost& cost)
{
    return cost.logN >= SCRYPT_LOG_N_MIN && cost.logN <= SCRYPT_LOG_N_MAX && cost.blockSize == 8 && cost.lanes >= 1 &&
           cost.lanes <= 16;
}

SecretBuffer keyFromPin(std::string_view pin, Bytes salt, const ScryptCost& cost)
{
    const auto kdf = requireObject<EvpKdf>(EVP_KDF_fetch(CryptoContext::get().library(), "SCRYPT", nullptr));
    const auto context = requireObject<EvpKdfContext>(EVP_KDF_CTX_new(kdf.get()));
    std::uint64_t rounds = std::uint64_t{1} << cost.logN;
    std::uint32_t blockSize = cost.blockSize;
    std::uint32_t lanes = cost.lanes;
    // Twice what these costs need, so that the bound never refuses an acceptable cost.
    std::uint64_t memoryLimit = std::uint64_t{256} * blockSize * (rounds + lanes + 2);
    OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, const_cast<char*>(pin.data()), pin.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<unsigned char*>(salt.data()), salt.size()),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &rounds),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &blockSize),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &lanes),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_MAXMEM, &memoryLimit),
        OSSL_PARAM_construct_end(),
    };
    SecretBuffer key(SEALING_KEY_SIZE);
    require(EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) == 1);
    return key;
}

SecretBuffer keyedCode(Bytes key, Bytes message)
{
    const ForkSafeSection section; // Here and below: a forked child would find what OpenSSL works in.
    SecretBuffer code(SEALING_KEY_SIZE);
    std::size_t size = 0;
    require(EVP_Q_mac(CryptoContext::get().library(), "HMAC", nullptr, "SHA256", nullptr, key.data(), key.size(),
                      message.data(), message.size(), code.data(), code.size(), &size) != nullptr &&
            size == code.size());
    return code;
}

SecretBuffer keyedCode(Bytes key, std::string_view message)
{
    return keyedCode(key, bytesOf(message));
}

ByteVector seal(Bytes key, Bytes plaintext, Bytes identity)
{
    const ForkSafeSection section;
    ByteVector sealed(NONCE_SIZE + plaintext.size() + TAG_SIZE);
    unsigned char* const ciphertext = sealed.data() + NONCE_SIZE;
    randomBytes(std::span(sealed).first(NONCE_SIZE));

    const auto context = requireObject<EvpCipherContext>(EVP_CIPHER_CTX_new());
    const EVP_CIPHER* cipher = CryptoContext::get().aes256Gcm();
    int written = 0;
    require(EVP_EncryptInit_ex2(context.get(), cipher, key.data(), sealed.data(), nullptr) == 1);
    require(EVP_EncryptUpdate(context.get(), nullptr, &written, identity.data(), asInt(identity.size())) == 1);
    require(EVP_EncryptUpdate(context.get(), ciphertext, &written, plaintext.data(), asInt(plaintext.size())) == 1);
    unsigned char* const tag = ciphertext + plaintext.size();
    require(EVP_EncryptFinal_ex(context.get(), tag, &written) == 1);
    require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, TAG_SIZE, tag) == 1);
    return sealed;
}

std::optional<SecretBuffer> unseal(Bytes key, Bytes sealed, Bytes identity)
{
    const ForkSafeSection section;
    if (key.size() != SEALING_KEY_SIZE || sealed.size() < NONCE_SIZE + TAG_SIZE)
        return std::nullopt;
    const Bytes ciphertext = sealed.subspan(NONCE_SIZE, sealed.size() - NONCE_SIZE - TAG_SIZE);
    unsigned char* const tag = const_cast<unsigned char*>(sealed.last(TAG_SIZE).data());

    const auto context = requireObject<EvpCipherContext>(EVP_CIPHER_CTX_new());
    const EVP_CIPHER* cipher = CryptoContext::get().aes256Gcm();
    SecretBuffer plaintext(ciphertext.size());
    int written = 0;
    require(EVP_DecryptInit_ex2(context.get(), cipher, key.data(), sealed.data(), nullptr) == 1);
    require(EVP_DecryptUpdate(context.get(), nullptr, &written, identity.data(), asInt(identity.size())) == 1);
    require(EVP_DecryptUpdate(context.get(), plaintext.data(), &written, ciphertext.data(), asInt(ciphertext.size())) ==
            1);
    require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, tag) == 1);
    unsigned char none = 0;
    if (EVP_DecryptFinal_ex(context.get(), &none, &written) != 1)
        return std::nullopt;
    return plaintext;
}

} // namespace softkey
