#include "crypto/ecdsa_form.h"
#include "crypto/private_key.h"
#include "crypto/signature_input.h"
#include "platform/fork_guard.h"

#include <openssl/rsa.h>

namespace softkey
{
namespace
{

constexpr std::size_t PLAIN_SCHEME = 0;     // ECDSA or PKCS #1 v1.5
constexpr std::size_t FIRST_PSS_SCHEME = 1; // followed by the schemes of the other hashes

// DER of the largest ECDSA signature, P-521: two integers of up to 66 bytes and their headers.
constexpr std::size_t ECDSA_DER_MAX = 3 + 2 * (2 + 66 + 1);

} // namespace

EvpKeyContext PrivateKey::newContext() const
{
    return contextFor(key_.get());
}

EvpKeyContext PrivateKey::signingContext(std::size_t scheme) const
{
    if (EvpKeyContext ready = ready_[scheme].take())
        return ready;
    EvpKeyContext context = newContext();
    require(EVP_PKEY_sign_init(context.get()) == 1);
    if (scheme >= FIRST_PSS_SCHEME)
        setPssPadding(context.get(), CryptoContext::get().digests()[scheme - FIRST_PSS_SCHEME]);
    else if (traits_.isRsa())
        require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1);
    return context;
}

std::size_t PrivateKey::runSigning(std::size_t scheme, Bytes input, std::span<unsigned char> signature) const
{
    EvpKeyContext context = signingContext(scheme);
    std::size_t size = signature.size();
    require(EVP_PKEY_sign(context.get(), signature.data(), &size, input.data(), input.size()) == 1);
    ready_[scheme].keep(std::move(context));
    return size;
}

std::size_t PrivateKey::signRsa(Bytes input, bool isPss, std::span<unsigned char> signature) const
{
    if (isPss)
        return runSigning(FIRST_PSS_SCHEME + pssDigestFor(traits_, input.size()), input, signature);
    const DigestInfo digestInfo(input);
    requireRoomForPkcs1(traits_, digestInfo.bytes().size());
    return runSigning(PLAIN_SCHEME, digestInfo.bytes(), signature);
}

std::size_t PrivateKey::signEc(Bytes input, std::span<unsigned char> signature) const
{
    std::array<unsigned char, ECDSA_DER_MAX> der{};
    const std::size_t size = runSigning(PLAIN_SCHEME, ecdsaInput(traits_, input), der);
    fixedFromDer(Bytes(der).first(size), signature);
    return signature.size();
}

std::size_t PrivateKey::sign(Bytes input, bool isPss, std::span<unsigned char> signature) const
{
    const ForkSafeSection section; // What a signature works with is on this stack, too.
    require(!isPss || traits_.isRsa(), SoftkeyStatus::WrongKeyKind);
    require(signature.size() >= traits_.signatureSize(), SoftkeyStatus::BufferTooSmall);
    const std::span<unsigned char> out = signature.first(traits_.signatureSize());
    return traits_.isRsa() ? signRsa(input, isPss, out) : signEc(input, out);
}

} // namespace softkey
