#include "objects/object_search.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "objects/handles.h"
#include "objects/labels.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/utils.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr CK_OBJECT_CLASS CLASS_UNSPECIFIED = CKO_VENDOR_DEFINED;

struct SearchCriteria {
    CK_OBJECT_CLASS objectClass = CLASS_UNSPECIFIED;
    std::optional<std::string> label;
    std::optional<OwnedBytes> value;
    std::optional<OwnedBytes> subject;
    std::optional<OwnedBytes> objectId;
    std::optional<OwnedBytes> modulus;
};

CK_RV readClass(const CK_ATTRIBUTE& attribute, CK_ULONG index, SearchCriteria& criteria)
{
    if (attribute.ulValueLen != sizeof criteria.objectClass)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: wrong size for CKA_CLASS at index=", index,
                      " ulValueLen=", CK_ULONG{attribute.ulValueLen});
    std::memcpy(&criteria.objectClass, attribute.pValue, sizeof criteria.objectClass);
    logDebug("Find object class : ", criteria.objectClass);
    return CKR_OK;
}

CK_RV readCriterion(const CK_ATTRIBUTE& attribute, CK_ULONG index, SearchCriteria& criteria)
{
    const CK_ATTRIBUTE_TYPE type = attribute.type;
    if (attribute.pValue == nullptr)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: pValue is NULL at attribute index=", index,
                      " type=", type);
    if (attribute.ulValueLen == 0)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: ulValueLen<=0 at attribute index=", index,
                      " type=", type);
    logDebug("Find object init type : ", type);
    switch (type) {
    case CKA_CLASS:
        return readClass(attribute, index, criteria);
    case CKA_LABEL: // Ends at its zero byte, whatever the length says.
        criteria.label = static_cast<const char*>(attribute.pValue);
        break;
    case CKA_VALUE:
        criteria.value = copyOf(bytesOf(attribute));
        break;
    case CKA_SUBJECT:
        criteria.subject = copyOf(bytesOf(attribute));
        break;
    case CKA_ID:
        criteria.objectId = copyOf(bytesOf(attribute));
        break;
    case CKA_MODULUS:
        criteria.modulus = copyOf(bytesOf(attribute));
        logDebug("Modulus provided length : ", CK_ULONG{attribute.ulValueLen});
        break;
    default:
        break;
    }
    return CKR_OK;
}

bool matches(const SearchCriteria& criteria, const SessionRecord& session, const VelkorKeyPair& keyPair)
{
    if (criteria.label)
        return labelOf(session, keyPair) == *criteria.label;
    if (criteria.value)
        return sameBytes(publicKeyOf(keyPair), *criteria.value);
    if (criteria.objectId)
        return sameBytes(objectIdOf(keyPair), *criteria.objectId);
    if (criteria.modulus)
        return sameBytes(publicKeyOf(keyPair), *criteria.modulus);
    return true;
}

bool matches(const SearchCriteria& criteria, const VelkorCertificate& certificate)
{
    if (criteria.label)
        return labelOf(certificate) == *criteria.label;
    if (criteria.value)
        return sameBytes(certificate.der, *criteria.value);
    if (criteria.subject)
        return velkor_getCertificateSubject(certificate.der.data(), deviceLength(certificate.der.size()),
                                            moduleState().libraryInstance) == *criteria.subject;
    if (criteria.objectId)
        return sameBytes(objectIdOf(certificate), *criteria.objectId);
    return true;
}

/// A device's contents. The lists are copies: computing a label fetches them again.
struct DeviceContents {
    std::vector<VelkorCertificate> certificates;
    std::vector<VelkorKeyPair> keyPairs;
};

DeviceContents fetchContents(const SessionRecord& session)
{
    void* instance = moduleState().libraryInstance;
    return {velkor_getCertificateList(session.deviceId(), instance),
            velkor_getKeyPairList(session.deviceId(), instance)};
}

/// A list that is empty may not have been read yet: the device is initialised, and both are fetched again.
DeviceContents fetchInitializedContents(const SessionRecord& session)
{
    DeviceContents contents = fetchContents(session);
    if (!contents.certificates.empty() && !contents.keyPairs.empty())
        return contents;
    const int status = velkor_initDevice(session.deviceId(), true, moduleState().libraryInstance);
    if (status == 0)
        return fetchContents(session);
    logError("Init device for certificates in find objects failed : ", status);
    return contents;
}

/// Without a class everything is found, and the other criteria do not apply.
void selectAll(SessionRecord& session, DeviceContents contents)
{
    session.foundCertificates = std::move(contents.certificates);
    session.foundKeyPairs = std::move(contents.keyPairs);
    session.findPublicKeys = true;
    session.findPrivateKeys = isUserState(stateOf(session));
}

void selectKeys(SessionRecord& session, const SearchCriteria& criteria, const DeviceContents& contents)
{
    std::copy_if(contents.keyPairs.begin(), contents.keyPairs.end(), std::back_inserter(session.foundKeyPairs),
                 [&](const VelkorKeyPair& each) { return matches(criteria, session, each); });
    const bool found = !session.foundKeyPairs.empty();
    session.findPublicKeys = found && criteria.objectClass == CKO_PUBLIC_KEY;
    session.findPrivateKeys = found && criteria.objectClass == CKO_PRIVATE_KEY && isUserState(stateOf(session));
}

void selectCertificates(SessionRecord& session, const SearchCriteria& criteria, const DeviceContents& contents)
{
    std::copy_if(contents.certificates.begin(), contents.certificates.end(),
                 std::back_inserter(session.foundCertificates),
                 [&](const VelkorCertificate& each) { return matches(criteria, each); });
}

void select(SessionRecord& session, const SearchCriteria& criteria, DeviceContents contents)
{
    switch (criteria.objectClass) {
    case CLASS_UNSPECIFIED:
        return selectAll(session, std::move(contents));
    case CKO_PUBLIC_KEY:
    case CKO_PRIVATE_KEY:
        return selectKeys(session, criteria, contents);
    case CKO_CERTIFICATE:
        return selectCertificates(session, criteria, contents);
    default:
        return;
    }
}

void resetSearch(SessionRecord& session)
{
    session.findPosition = 0;
    session.findPublicKeys = false;
    session.findPrivateKeys = false;
    session.foundCertificates.clear();
    session.foundKeyPairs.clear();
}

/// All that the search found, in the order in which it is handed out.
std::vector<CK_OBJECT_HANDLE> foundHandles(const SessionRecord& session)
{
    std::vector<CK_OBJECT_HANDLE> handles;
    const auto append = [&](CK_OBJECT_HANDLE base, const auto& records) {
        for (const auto& record : records)
            handles.push_back(base + record.id);
    };
    if (session.findPublicKeys)
        append(PUBLIC_KEY_BASE, session.foundKeyPairs);
    if (session.findPrivateKeys)
        append(PRIVATE_KEY_BASE, session.foundKeyPairs);
    append(CERTIFICATE_BASE, session.foundCertificates);
    return handles;
}

/// Copies the next page; gives the number of handles in it.
CK_ULONG handOut(SessionRecord& session, const std::vector<CK_OBJECT_HANDLE>& handles, CK_OBJECT_HANDLE* phObject,
                 CK_ULONG ulMaxObjectCount)
{
    const auto total = static_cast<CK_ULONG>(handles.size());
    const CK_ULONG count = std::min(ulMaxObjectCount, total - session.findPosition);
    std::string line = "Find object return : ";
    for (CK_ULONG index = 0; index < count; ++index) {
        phObject[index] = handles[session.findPosition + index];
        line.append(decimal(phObject[index])).append(index + 1 < count ? " " : "");
    }
    session.findPosition += count;
    logDebug(line);
    return count;
}

} // namespace

CK_RV findObjectsInit(SessionRecord& session, const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount)
{
    if (pTemplate == nullptr && ulCount != 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjectsInit: pTemplate is NULL with ulCount=", ulCount);
    resetSearch(session); // Also where the template is refused; an operation in progress is not asked about.
    logDebug("Find object init count : ", ulCount);
    SearchCriteria criteria;
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        const CK_RV result = readCriterion(pTemplate[index], index, criteria);
        if (result != CKR_OK)
            return result;
    }
    DeviceContents contents = fetchInitializedContents(session);
    if (criteria.objectId)
        logDebug("Find init id : ", Utils::toHexadecimal(*criteria.objectId));
    select(session, criteria, std::move(contents));
    session.activeOperation = ActiveOperation::Find;
    return CKR_OK;
}

CK_RV findObjects(SessionRecord& session, CK_OBJECT_HANDLE* phObject, CK_ULONG ulMaxObjectCount,
                  CK_ULONG* pulObjectCount)
{
    if (phObject == nullptr && ulMaxObjectCount != 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjects: phObject is NULL with ulMaxObjectCount=", ulMaxObjectCount);
    if (pulObjectCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjects: pulObjectCount is NULL");
    *pulObjectCount = 0;
    const std::vector<CK_OBJECT_HANDLE> handles = foundHandles(session);
    logDebug("C_FindObjects find object count : ", handles.size());
    if (handles.empty()) {
        logDebug("C_FindObjects find object count 0");
        return CKR_OK;
    }
    if (ulMaxObjectCount == 0) {
        logDebug("C_FindObjects find object max count is 0 : ", ulMaxObjectCount);
        return CKR_OK;
    }
    *pulObjectCount = handOut(session, handles, phObject, ulMaxObjectCount);
    logDebug("C_FindObjects find object count return : ", *pulObjectCount);
    return CKR_OK;
}

CK_RV findObjectsFinal(SessionRecord& session)
{
    session.activeOperation = ActiveOperation::None;
    session.findPosition = 0;
    return CKR_OK;
}

} // namespace velkor
