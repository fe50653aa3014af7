#include "objects/issuer_chain.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "frame/module_state.h"
#include "log/log.h"
#include "platform/platform.h"
#include "util/utils.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

const char* const HOME_VARIABLE = "VELKOR_HOME";
const char* const DEFAULT_FOLDERS[] = {"C:/Program Files (x86)/Brenmoor/Velkor", "C:/Program Files/Brenmoor/Velkor"};

struct Issuer {
    VelkorCertificate certificate;
    std::string issuerName; ///< Common name of its own issuer.
};

std::string baseFolder()
{
    std::string home = platform::environmentVariable(HOME_VARIABLE);
    if (!home.empty())
        return home;
    logDebug("VELKOR_HOME not set — Using Windows defaults");
    for (const char* folder : DEFAULT_FOLDERS) {
        if (platform::folderExists(folder))
            return folder;
    }
    return platform::processFolder();
}

/// The same text on every system, separators included.
std::string certificateFolder()
{
    std::string folder = baseFolder() + "\\VelkorDSC" + "\\Certificates";
    logDebug("CA Folder: ", folder);
    return folder;
}

/// Certificates of the files by the common name of their subject. Files that cannot be parsed are passed over.
std::map<std::string, Issuer> readIssuers(const std::vector<std::pair<std::string, std::vector<unsigned char>>>& files)
{
    std::map<std::string, Issuer> issuers;
    for (const auto& [name, der] : files) {
        CertificateDetails details;
        if (der.empty() || velkor_getCertificateDetails(der.data(), deviceLength(der.size()), details,
                                                        moduleState().libraryInstance) != 0)
            continue;
        const std::string subjectName = Utils::commonName(details.subject);
        Issuer& issuer = issuers[subjectName];
        issuer.certificate = {};
        issuer.certificate.der = der;
        setLabel(issuer.certificate, subjectName);
        issuer.issuerName = Utils::commonName(details.issuer);
    }
    return issuers;
}

} // namespace

std::vector<VelkorCertificate> issuerChain(const VelkorCertificate& leaf, const CertificateDetails& details)
{
    const auto files = velkor_getFilesWithExtensionsAndConvertDER(
        certificateFolder().c_str(), {".cer", ".der", ".pem", ".crt"}, false, moduleState().libraryInstance);
    if (files.empty())
        return {};
    const std::map<std::string, Issuer> issuers = readIssuers(files);
    std::vector<VelkorCertificate> chain = {leaf};
    std::set<std::string> visited;
    std::string current = Utils::commonName(details.issuer);
    while (!current.empty()) {
        const auto found = issuers.find(current);
        // Issuers that name each other in a circle never reach a root: as good as missing.
        if (found == issuers.end() || !visited.insert(current).second) {
            logDebug("Issuer '", current, "' NOT found — skipping chain import");
            return {};
        }
        chain.push_back(found->second.certificate);
        if (found->second.issuerName == current)
            break;
        current = found->second.issuerName;
    }
    std::reverse(chain.begin(), chain.end());
    return chain;
}

} // namespace velkor
