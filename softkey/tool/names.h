// The names that a certificate is for, from the texts that users write.
#pragma once

#include "crypto/openssl.h"

#include <openssl/x509v3.h>

#include <string>
#include <vector>

namespace softkey
{

using DistinguishedName = Owned<X509_NAME, X509_NAME_free>;
using AlternativeNames = Owned<GENERAL_NAMES, GENERAL_NAMES_free>;

/// "CN=Ann,O=Example", most specific part first, with a backslash before a comma that belongs to a value; or
/// "/O=Example/CN=Ann", in the order of the encoding. A text without '=' is a common name. Throws BadArgument.
DistinguishedName nameFrom(const std::string& text);

/// Each is "DNS:", "IP:", "email:" or "URI:" and a value, or a value that says by itself what it is. Null when there
/// are none. Throws BadArgument.
AlternativeNames alternativeNamesFrom(const std::vector<std::string>& texts);

} // namespace softkey
