// What files of other programs hold: a private key, certificates, or both; as PEM, DER or PKCS #12, encrypted or not.
#pragma once

#include "base/secret.h"
#include "crypto/openssl.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace softkey
{

struct KeyMaterial {
    EvpKey key;                           ///< Null when there is none.
    std::vector<ByteVector> certificates; ///< As DER; of a PKCS #12 file that of the key first.
};

/// Asks for the pass phrase of a file, at most once. What it gives must live as long as it does.
using AskPassPhrase = std::function<std::string_view()>;

/// Throws a Failure when the pass phrase is not right or the encryption is none that is taken, and BadPrivateKey when
/// there is nothing to be taken.
KeyMaterial keyMaterialOf(Bytes content, const AskPassPhrase& ask);

/// A PKCS #12 file with that certificate, which is given as DER, and no private key.
std::string pkcs12With(Bytes certificate, std::string_view passPhrase);

} // namespace softkey
