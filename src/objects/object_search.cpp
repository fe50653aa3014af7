#include "objects/object_search.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
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

/// Values are those of the caller's memory.
struct SearchCriteria {
    CK_OBJECT_CLASS objectClass = CLASS_UNSPECIFIED;
    std::optional<std::string_view> label;
    std::optional<Bytes> value;
    std::optional<Bytes> subject;
    std::optional<Bytes> objectId;
    std::optional<Bytes> modulus;
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
        criteria.value = bytesOf(attribute);
        break;
    case CKA_SUBJECT:
        criteria.subject = bytesOf(attribute);
        break;
    case CKA_ID:
        criteria.objectId = bytesOf(attribute);
        break;
    case CKA_MODULUS:
        criteria.modulus = bytesOf(attribute);
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
        return labelOf(session, keyPair).text() == *criteria.label;
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
        return labelOf(certificate).text() == *criteria.label;
    if (criteria.value)
        return sameBytes(certificate.der, *criteria.value);
    if (criteria.subject)
        return sameBytes(velkor_getCertificateSubject(certificate.der.data(), deviceLength(certificate.der.size()),
                                                      moduleState().libraryInstance),
                         *criteria.subject);
    if (criteria.objectId)
        return sameBytes(objectIdOf(certificate), *criteria.objectId);
    return true;
}

/// A device's contents: the library's lists of this thread, which hold until they are fetched again.
struct DeviceContents {
    const std::vector<VelkorCertificate>& certificates;
    const std::vector<VelkorKeyPair>& keyPairs;
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
    const DeviceContents contents = fetchContents(session);
    if (!contents.certificates.empty() && !contents.keyPairs.empty())
        return contents;
    const int status = velkor_initDevice(session.deviceId(), true, moduleState().libraryInstance);
    if (status == 0)
        return fetchContents(session);
    logError("Init device for certificates in find objects failed : ", status);
    return contents;
}

/// Without a class everything is found, and the other criteria do not apply.
void selectAll(SessionRecord& session, const DeviceContents& contents)
{
    const auto append = [&](CK_OBJECT_HANDLE base, const auto& records) {
        for (const auto& each : records)
            session.foundHandles.push_back(base + each.id);
    };
    append(PUBLIC_KEY_BASE, contents.keyPairs);
    if (isUserState(stateOf(session)))
        append(PRIVATE_KEY_BASE, contents.keyPairs);
    append(CERTIFICATE_BASE, contents.certificates);
}

/// Every key pair is compared, also where none may be found: that can give it a label.
void selectKeys(SessionRecord& session, const SearchCriteria& criteria, std::span<const VelkorKeyPair> keyPairs)
{
    const bool isPublic = criteria.objectClass == CKO_PUBLIC_KEY;
    std::vector<CK_OBJECT_HANDLE> found = std::exchange(session.foundHandles, {}); // Its memory; an exception ends it.
    for (const VelkorKeyPair& each : keyPairs) {
        if (matches(criteria, session, each))
            found.push_back((isPublic ? PUBLIC_KEY_BASE : PRIVATE_KEY_BASE) + each.id);
    }
    if (isPublic || isUserState(stateOf(session)))
        session.foundHandles = std::move(found);
}

bool hasUnlabelled(const std::vector<VelkorKeyPair>& keyPairs)
{
    return std::any_of(keyPairs.begin(), keyPairs.end(),
                       [](const VelkorKeyPair& each) { return storedLabelOf(each).empty(); });
}

void selectKeys(SessionRecord& session, const SearchCriteria& criteria, const DeviceContents& contents)
{
    if (!criteria.label || !hasUnlabelled(contents.keyPairs))
        return selectKeys(session, criteria, std::span(contents.keyPairs));
    // A copy: computing a label stores it on the device, and the library's list may change with it.
    const std::vector<VelkorKeyPair> keyPairs = contents.keyPairs;
    selectKeys(session, criteria, std::span(keyPairs));
}

void selectCertificates(SessionRecord& session, const SearchCriteria& criteria, const DeviceContents& contents)
{
    for (const VelkorCertificate& each : contents.certificates) {
        if (matches(criteria, each))
            session.foundHandles.push_back(CERTIFICATE_BASE + each.id);
    }
}

void select(SessionRecord& session, const SearchCriteria& criteria, const DeviceContents& contents)
{
    switch (criteria.objectClass) {
    case CLASS_UNSPECIFIED:
        return selectAll(session, contents);
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
    session.foundHandles.clear();
}

/// The handles in a row, separated by blanks.
std::string joined(std::span<const CK_OBJECT_HANDLE> handles)
{
    std::string text;
    for (const CK_OBJECT_HANDLE handle : handles)
        text.append(text.empty() ? "" : " ").append(decimal(handle));
    return text;
}

/// Copies the next page; gives the number of handles in it.
CK_ULONG handOut(SessionRecord& session, CK_OBJECT_HANDLE* phObject, CK_ULONG ulMaxObjectCount)
{
    const std::span rest = std::span<const CK_OBJECT_HANDLE>(session.foundHandles).subspan(session.findPosition);
    const std::span page = rest.first(std::min<std::size_t>(ulMaxObjectCount, rest.size()));
    std::copy(page.begin(), page.end(), phObject);
    const auto count = static_cast<CK_ULONG>(page.size());
    session.findPosition += count;
    logDebug("Find object return : ", [&] { return joined(page); });
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
    const DeviceContents contents = fetchInitializedContents(session);
    if (criteria.objectId)
        logDebug("Find init id : ", [&] { return Utils::toHexadecimal(*criteria.objectId); });
    select(session, criteria, contents);
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
    logDebug("C_FindObjects find object count : ", session.foundHandles.size());
    if (session.foundHandles.empty()) {
        logDebug("C_FindObjects find object count 0");
        return CKR_OK;
    }
    if (ulMaxObjectCount == 0) {
        logDebug("C_FindObjects find object max count is 0 : ", ulMaxObjectCount);
        return CKR_OK;
    }
    *pulObjectCount = handOut(session, phObject, ulMaxObjectCount);
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
