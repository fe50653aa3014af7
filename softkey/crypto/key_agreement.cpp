// ECDH.
#include "crypto/der_tags.h"
#include "crypto/private_key.h"
#include "crypto/public_key.h"
#include "platform/fork_guard.h"

namespace softkey
{
namespace
{

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

SecretBuffer PrivateKey::agree(Bytes peerPoint) const
{
    const ForkSafeSection section; // What an agreement works with is on this stack, too.
    require(!traits_.isRsa(), SoftkeyStatus::WrongKeyKind);
    const EvpKey peer = publicKeyFromPoint(traits_, barePoint(peerPoint, traits_));
    const EvpKeyContext context = newContext();
    require(EVP_PKEY_derive_init(context.get()) == 1);
    require(EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1, SoftkeyStatus::BadPublicKey);
    SecretBuffer secret(traits_.size());
    std::size_t size = secret.size();
    require(EVP_PKEY_derive(context.get(), secret.data(), &size) == 1 && size == secret.size());
    return secret;
}

} // namespace softkey
