// Key pairs and certificates on a device: listing, changing, deleting, importing, generating.
#include "operations/boundary.h"

#include "crypto/certificate.h"
#include "crypto/keys.h"
#include "platform/thread_lists.h"

using namespace softkey;

namespace
{

constexpr std::uint32_t ALL_USAGE = USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT;
constexpr std::size_t CERTIFICATE_SIZE_MAX = 1 << 16;

ObjectAttributes checkedAttributes(Bytes objectId, std::string_view label)
{
    requireArgument(objectId.size() <= OBJECT_ID_CAPACITY && label.size() <= LABEL_CAPACITY);
    requireArgument(label.find('\0') == std::string_view::npos);
    return {objectId, label};
}

template <class Record>
ObjectAttributes attributesOf(const Record& record)
{
    return checkedAttributes(optionalInput(record.objectId, record.objectIdLength), fieldText(record.label));
}

/// No flag at all asks for every use.
std::uint32_t usageOf(const VelkorKeyPair& request)
{
    requireArgument((request.usageFlags & ~ALL_USAGE) == 0);
    return request.usageFlags == 0 ? ALL_USAGE : request.usageFlags;
}

/// Fills a thread's list with one of a device, or with nothing when the device cannot be read.
template <class Record, class Records>
std::vector<Record>& answerList(ThreadList<Record> ThreadLists::*list, Records Contents::*records, const char* deviceId,
                                void* libraryInstance) noexcept
{
    // Never destroyed: hosts call in to the very end. NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): made once.
    static auto* const emptyList = new std::vector<Record>;
    ThreadList<Record>* answered = nullptr;
    const int status = answer([&] {
        answered = &(threadLists().*list);
        const PluggedKey device = pluggedDevice(deviceId, libraryInstance);
        answered->fill(device.seen.contents->reading, (*device.seen.contents).*records);
    });
    if (answered == nullptr)
        return *emptyList;
    if (status != 0)
        answered->clear();
    return answered->records();
}

} // namespace

std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance)
{
    return answerList(&ThreadLists::keyPairs, &Contents::keyPairs, deviceId, libraryInstance);
}

std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId, void* libraryInstance)
{
    return answerList(&ThreadLists::certificates, &Contents::certificates, deviceId, libraryInstance);
}

int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                const char* label, const unsigned char* objectId, int objectIdLength,
                                void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        const Identifier wanted = identifier(keyIdentifier);
        const ObjectAttributes attributes =
            checkedAttributes(optionalInput(objectId, objectIdLength), label != nullptr ? label : "");
        key->change(text(pin), [&](Database& database) { updateKeyPair(database, wanted, attributes); });
    });
}

int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool,
                         void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        const Identifier wanted = identifier(keyIdentifier);
        key->change(text(pin), [&](Database& database) { deleteKeyPair(database, wanted); });
    });
}

int velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier, const char* pin,
                             void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        const Identifier wanted = identifier(certificateIdentifier);
        key->change(text(pin), [&](Database& database) { deleteCertificate(database, wanted); });
    });
}

int velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                             void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        requireArgument(certificate != nullptr);
        attributesOf(*certificate);
        require(certificate->der.size() <= CERTIFICATE_SIZE_MAX, SoftkeyStatus::BadCertificate);
        parseCertificate(certificate->der);
        key->addCertificate(text(pin), *certificate);
    });
}

int velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details, void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        requireArgument(details != nullptr);
        require(details->kind == IMPORT_KIND_RSA_COMPONENTS, SoftkeyStatus::NotSupported);
        const ObjectAttributes attributes = checkedAttributes(details->objectId, details->label);
        key->requireUser(text(pin)); // Before the costly check of the numbers.
        const EvpKey rsaKey = rsaKeyFromComponents(details->modulus, details->privateExponent, details->prime1);
        const VelkorKeyPair stored = key->addKeyPair(pin, rsaKey.get(), attributes, {ALL_USAGE});
        std::ranges::copy(stored.keyIdentifier, details->keyIdentifier);
    });
}

int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair, void* libraryInstance)
{
    return answer([&] {
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        requireArgument(keyPair != nullptr);
        const ObjectAttributes attributes = attributesOf(*keyPair);
        const std::uint32_t usage = usageOf(*keyPair);
        key->requireUser(text(pin)); // Before the long work of generating.
        const EvpKey fresh = generateKey(traitsOf(keyPair->keyKind));
        *keyPair = key->addKeyPair(pin, fresh.get(), attributes, {usage});
    });
}
