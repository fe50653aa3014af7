#include "crypto/private_key.h"
#include "platform/fork_guard.h"

#include <openssl/rsa.h>

namespace softkey
{

/// For the bare operation, once: OpenSSL's own looks at paddings tell what is wrong with a block, and want to be told
/// which padding and hash to look for.
EvpKeyContext PrivateKey::decryptionContext() const
{
    if (EvpKeyContext ready = readyForDecryption_.take())
        return ready;
    EvpKeyContext context = newContext();
    require(EVP_PKEY_decrypt_init(context.get()) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1);
    return context;
}

const SecretBuffer& PrivateKey::rejectionSecret() const
{
    std::call_once(rejectionSecretMade_, [this] { rejectionSecret_ = rejectionSecretOf(key_.get()); });
    return rejectionSecret_;
}

SecretBuffer PrivateKey::decrypt(Bytes ciphertext) const
{
    const ForkSafeSection section; // What a decryption works with is on this stack, too.
    require(traits_.isRsa(), SoftkeyStatus::WrongKeyKind);
    require(ciphertext.size() == traits_.size(), SoftkeyStatus::DataLength);
    EvpKeyContext context = decryptionContext();
    SecretBuffer block(traits_.size());
    std::size_t size = block.size();
    require(EVP_PKEY_decrypt(context.get(), block.data(), &size, ciphertext.data(), ciphertext.size()) == 1,
            SoftkeyStatus::DecryptionFailed);
    require(size == block.size());
    readyForDecryption_.keep(std::move(context));
    return plaintextOf(block, paddings_, rejectionKeyOf(rejectionSecret(), ciphertext));
}

} // namespace softkey
