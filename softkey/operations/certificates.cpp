// Certificates without a device: parsing, and the scan of a folder of certificate files.
#include "operations/boundary.h"

#include "base/small_file.h"
#include "crypto/certificate.h"
#include "platform/narrow_paths.h"

#include <cctype>

using namespace softkey;

namespace
{

bool sameExtension(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](unsigned char one, unsigned char two) { return std::tolower(one) == std::tolower(two); });
}

bool hasExtension(const std::filesystem::path& file, const std::vector<std::string>& extensions)
{
    const std::string extension = narrowFromPath(file.extension());
    return !extension.empty() && std::any_of(extensions.begin(), extensions.end(), [&](const std::string& wanted) {
        return sameExtension(extension, wanted);
    });
}

template <class Iterator>
void collectFiles(const std::filesystem::path& folder, const std::vector<std::string>& extensions,
                  std::vector<std::filesystem::path>& files)
{
    std::error_code failure;
    constexpr auto options = std::filesystem::directory_options::skip_permission_denied;
    for (Iterator file(folder, options, failure); !failure && file != Iterator(); file.increment(failure)) {
        std::error_code unreadable;
        if (hasExtension(file->path(), extensions) && !file->is_directory(unreadable))
            files.push_back(file->path());
    }
    std::sort(files.begin(), files.end());
}

using NamedCertificates = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

NamedCertificates readCertificates(const std::vector<std::filesystem::path>& files)
{
    NamedCertificates certificates;
    for (const std::filesystem::path& file : files) {
        const std::optional<ByteVector> content = readSmallFile(file);
        certificates.emplace_back(narrowFromPath(file.filename()),
                                  content ? certificateFromFileContent(*content) : ByteVector());
    }
    return certificates;
}

/// One DER part of a certificate; empty when it cannot be parsed.
template <class Part>
std::vector<unsigned char> answerPart(const unsigned char* der, int derLength, Part part) noexcept
{
    std::vector<unsigned char> answered;
    answer([&] { answered = part(parseCertificate(input(der, derLength)).get()); });
    return answered;
}

} // namespace

std::vector<std::pair<std::string, std::vector<unsigned char>>> velkor_getFilesWithExtensionsAndConvertDER(
    const char* folder, const std::vector<std::string>& extensions, bool recursive, void*)
{
    NamedCertificates certificates;
    answer([&] {
        const std::filesystem::path path = pathFromNarrow(text(folder));
        std::vector<std::filesystem::path> files;
        if (recursive)
            collectFiles<std::filesystem::recursive_directory_iterator>(path, extensions, files);
        else
            collectFiles<std::filesystem::directory_iterator>(path, extensions, files);
        certificates = readCertificates(files);
    });
    return certificates;
}

int velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details, void*)
{
    return answer([&] { details = certificateDetails(parseCertificate(input(der, derLength)).get()); });
}

std::vector<unsigned char> velkor_getCertificateSubject(const unsigned char* der, int derLength, void*)
{
    return answerPart(der, derLength, subjectDer);
}

std::vector<unsigned char> velkor_getCertificateIssuer(const unsigned char* der, int derLength, void*)
{
    return answerPart(der, derLength, issuerDer);
}

std::vector<unsigned char> velkor_getCertificateSerialDER(const unsigned char* der, int derLength, void*)
{
    return answerPart(der, derLength, serialNumberDer);
}
