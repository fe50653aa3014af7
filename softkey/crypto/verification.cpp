#include "crypto/ecdsa_form.h"
#include "crypto/public_key.h"
#include "crypto/public_keys.h"
#include "crypto/signature_input.h"

#include <openssl/rsa.h>

namespace softkey
{
namespace
{

/// `digest`: of PSS; null for the other schemes.
void setUpVerification(EVP_PKEY_CTX* context, const KeyKindTraits& traits, const Digest* digest)
{
    require(EVP_PKEY_verify_init(context) == 1);
    if (digest != nullptr)
        setPssPadding(context, *digest);
    else if (traits.isRsa())
        require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1);
}

} // namespace

bool verifySignature(const KeyKindTraits& traits, Bytes publicKey, Bytes input, Bytes signature, bool isPss)
{
    require(!isPss || traits.isRsa(), SoftkeyStatus::WrongKeyKind);
    const std::shared_ptr<const PublicKey> key = PublicKeys::ofProcess().find(traits, PublicKeyForm::Any, publicKey);
    if (signature.size() != traits.signatureSize())
        return false;
    const DigestInfo digestInfo(input);
    const Digest* digest = nullptr;
    std::size_t use = PublicKey::Verification;
    ByteVector der;
    if (!traits.isRsa()) {
        der = derFromFixed(signature);
        signature = der;
        input = ecdsaInput(traits, input);
    } else if (isPss) {
        const std::size_t position = pssDigestFor(traits, input.size());
        digest = &CryptoContext::get().digests()[position];
        use = PublicKey::PssVerification + position;
    } else {
        input = digestInfo.bytes();
    }
    return key->runFor(
        use, [&](EVP_PKEY_CTX* context) { setUpVerification(context, traits, digest); },
        [&](EVP_PKEY_CTX* context) {
            return EVP_PKEY_verify(context, signature.data(), signature.size(), input.data(), input.size()) == 1;
        });
}

} // namespace softkey
