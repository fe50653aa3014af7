#include "objects/labels.h"

#include <optional>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "util/secret.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

/// Labels are computed without the library instance.
std::optional<CertificateDetails> parse(const VelkorCertificate& certificate)
{
    CertificateDetails details;
    const int status =
        velkor_getCertificateDetails(certificate.der.data(), deviceLength(certificate.der.size()), details, nullptr);
    return status == 0 ? std::optional(details) : std::nullopt;
}

std::optional<CertificateDetails> detailsOfSameKey(const SessionRecord& session, const VelkorKeyPair& keyPair)
{
    // A copy: parsing calls the library, which may change its list meanwhile.
    const std::vector<VelkorCertificate> certificates =
        velkor_getCertificateList(session.deviceId(), moduleState().libraryInstance);
    for (const VelkorCertificate& certificate : certificates) {
        auto details = parse(certificate);
        if (details && sameBytes(details->publicKey, publicKeyOf(keyPair)))
            return details;
    }
    return std::nullopt;
}

} // namespace

std::string computedLabel(const CertificateDetails& details)
{
    return (details.subjectCommonName + "_" + details.issuerCommonName).substr(0, LABEL_CAPACITY);
}

void storeLabel(const SessionRecord& session, const VelkorKeyPair& keyPair, const std::string& label)
{
    const SecretText password = cachedPassword();
    if (!password.empty())
        velkor_updateKeyPairDetails(session.deviceId(), keyPair.keyIdentifier, password.c_str(), label.c_str(), nullptr,
                                    0, moduleState().libraryInstance);
}

Label labelOf(const VelkorCertificate& certificate)
{
    Label label = {storedLabelOf(certificate), {}};
    if (!label.stored.empty() || certificate.der.empty())
        return label;
    const auto details = parse(certificate);
    if (!details)
        return label;
    label.computed = computedLabel(*details);
    logDebug("Empty certificate label, computed: ", label.computed);
    return label;
}

Label labelOf(const SessionRecord& session, const VelkorKeyPair& keyPair)
{
    Label label = {storedLabelOf(keyPair), {}};
    if (!label.stored.empty())
        return label;
    const auto details = detailsOfSameKey(session, keyPair);
    if (!details)
        return label;
    label.computed = computedLabel(*details);
    logDebug("Empty key pair label, computed: ", label.computed);
    storeLabel(session, keyPair, label.computed);
    return label;
}

} // namespace velkor
