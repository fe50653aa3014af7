#include "crypto/rsa_padding.h"

#include <openssl/rsa.h>

namespace softkey
{

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

} // namespace softkey
