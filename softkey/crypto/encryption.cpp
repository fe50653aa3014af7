#include "crypto/keys.h"
#include "crypto/private_key.h"

#include <openssl/rsa.h>

namespace softkey
{
namespace
{

constexpr unsigned char OCTET_STRING = 0x04;

void setPadding(EVP_PKEY_CTX* context, RsaPadding padding)
{
    if (padding == RsaPadding::Pkcs1) {
        require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1);
        return;
    }
    const Digest* sha1 = CryptoContext::get().digestOfSize(20);
    require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) == 1 &&
            EVP_PKEY_CTX_set_rsa_oaep_md(context, sha1->algorithm) == 1 &&
            EVP_PKEY_CTX_set_rsa_mgf1_md(context, sha1->algorithm) == 1);
}

std::size_t paddingOverhead(RsaPadding padding)
{
    return padding == RsaPadding::Pkcs1 ? 11 : 2 * 20 + 2;
}

/// The point inside a DER OCTET STRING, or the input itself when it has the length of a bare point.
Bytes barePoint(Bytes encoded, const KeyKindTraits& traits)
{
    const std::size_t size = traits.pointSize();
    const std::size_t header = size < 0x80 ? 2 : 3;
    if (encoded.size() != header + size || encoded[0] != OCTET_STRING)
        return encoded;
    const bool lengthIsRight = encoded[header - 1] == size && (header == 2 || encoded[1] == 0x81);
    return lengthIsRight ? encoded.subspan(header) : encoded;
}

} // namespace

std::size_t encrypt(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo, RsaPadding padding, Bytes plaintext,
                    std::span<unsigned char> ciphertext)
{
    const EvpKey key = publicKeyFromInfo(traits, subjectPublicKeyInfo);
    require(plaintext.size() + paddingOverhead(padding) <= traits.size(), SoftkeyStatus::DataLength);
    const auto context =
        requireObject<EvpKeyContext>(EVP_PKEY_CTX_new_from_pkey(CryptoContext::get().library(), key.get(), nullptr));
    require(EVP_PKEY_encrypt_init(context.get()) == 1);
    setPadding(context.get(), padding);
    std::size_t size = ciphertext.size();
    require(EVP_PKEY_encrypt(context.get(), ciphertext.data(), &size, plaintext.data(), plaintext.size()) == 1);
    return size;
}

SecretBytes PrivateKey::decrypt(Bytes ciphertext) const
{
    require(traits_.isRsa(), SoftkeyStatus::WrongKeyKind);
    require(ciphertext.size() == traits_.size(), SoftkeyStatus::DataLength);
    SecretBytes plaintext(traits_.size());
    // OAEP first: a v1.5 block never passes for OAEP, but an OAEP block may begin like v1.5. Both end in the same
    // status, so that an answer says no more about a block than that neither fits.
    for (const RsaPadding padding : {RsaPadding::Oaep, RsaPadding::Pkcs1}) {
        const EvpKeyContext context = newContext();
        require(EVP_PKEY_decrypt_init(context.get()) == 1);
        setPadding(context.get(), padding);
        std::size_t size = plaintext.size();
        if (EVP_PKEY_decrypt(context.get(), plaintext.data(), &size, ciphertext.data(), ciphertext.size()) == 1) {
            plaintext.shorten(size);
            return plaintext;
        }
    }
    throw Refusal(SoftkeyStatus::DecryptionFailed);
}

SecretBytes PrivateKey::agree(Bytes peerPoint) const
{
    require(!traits_.isRsa(), SoftkeyStatus::WrongKeyKind);
    const EvpKey peer = publicKeyFromPoint(traits_, barePoint(peerPoint, traits_));
    const EvpKeyContext context = newContext();
    require(EVP_PKEY_derive_init(context.get()) == 1);
    require(EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1, SoftkeyStatus::BadPublicKey);
    SecretBytes secret(traits_.size());
    std::size_t size = secret.size();
    require(EVP_PKEY_derive(context.get(), secret.data(), &size) == 1 && size == secret.size());
    return secret;
}

} // namespace softkey
