#include "crypto/private_key.h"
#include "crypto/rsa_padding.h"

namespace softkey
{

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

} // namespace softkey
