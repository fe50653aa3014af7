// A private key that has been unlocked, with the signing contexts that earlier signatures left ready.
#pragma once

#include "base/secret.h"
#include "crypto/key_kinds.h"
#include "crypto/ready_contexts.h"
#include "crypto/rsa_blocks.h"

#include <array>
#include <mutex>

namespace softkey
{

class PrivateKey
{
public:
    PrivateKey(EvpKey key, const KeyKindTraits& traits, PaddingsTaken paddings)
        : key_(std::move(key)), traits_(traits), paddings_(paddings)
    {
    }

    const KeyKindTraits& traits() const { return traits_; }
    PaddingsTaken paddings() const { return paddings_; }

    /// Signs as `velkor_signHash` does; returns the length. Several threads may sign at once.
    std::size_t sign(Bytes input, bool isPss, std::span<unsigned char> signature) const;

    /// Plaintext of a block in one of the paddings that the key takes; throws DecryptionFailed.
    SecretBuffer decrypt(Bytes ciphertext) const;

    /// The X coordinate of the product with a peer's point, which is bare or a DER OCTET STRING.
    SecretBuffer agree(Bytes peerPoint) const;

private:
    // Signing as ECDSA or PKCS #1 v1.5, or as PSS with one of the five hashes.
    static constexpr std::size_t SCHEMES = 6;

    EvpKeyContext newContext() const;
    EvpKeyContext decryptionContext() const;
    const SecretBuffer& rejectionSecret() const;
    EvpKeyContext signingContext(std::size_t scheme) const;
    std::size_t signRsa(Bytes input, bool isPss, std::span<unsigned char> signature) const;
    std::size_t signEc(Bytes input, std::span<unsigned char> signature) const;
    std::size_t runSigning(std::size_t scheme, Bytes input, std::span<unsigned char> signature) const;

    EvpKey key_;
    const KeyKindTraits& traits_;
    PaddingsTaken paddings_;
    mutable std::array<ReadyContexts, SCHEMES> ready_;
    mutable ReadyContexts readyForDecryption_;
    mutable std::once_flag rejectionSecretMade_;
    mutable SecretBuffer rejectionSecret_;
};

} // namespace softkey
