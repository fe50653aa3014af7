#include "crypto/ecdsa_form.h"
#include "crypto/public_key.h"
#include "crypto/signature_input.h"

#include <openssl/rsa.h>

namespace softkey
{

bool verifySignature(const KeyKindTraits& traits, Bytes publicKey, Bytes input, Bytes signature, bool isPss)
{
    require(!isPss || traits.isRsa(), SoftkeyStatus::WrongKeyKind);
    const EvpKey key = publicKeyFrom(traits, publicKey);
    if (signature.size() != traits.signatureSize())
        return false;
    const EvpKeyContext context = contextFor(key.get());
    require(EVP_PKEY_verify_init(context.get()) == 1);

    const DigestInfo digestInfo(input);
    ByteVector der;
    if (!traits.isRsa()) {
        der = derFromFixed(signature);
        signature = der;
        input = ecdsaInput(traits, input);
    } else if (isPss) {
        setPssPadding(context.get(), CryptoContext::get().digests()[pssDigestFor(traits, input.size())]);
    } else {
        require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1);
        input = digestInfo.bytes();
    }
    return EVP_PKEY_verify(context.get(), signature.data(), signature.size(), input.data(), input.size()) == 1;
}

} // namespace softkey
