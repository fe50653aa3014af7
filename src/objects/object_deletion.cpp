#include "objects/object_deletion.h"

#include "frame/module_state.h"
#include "log/log.h"
#include "objects/handles.h"
#include "objects/record_lookup.h"
#include "velkor/device_service.h"

namespace velkor
{
namespace
{

CK_RV destroyKeyPair(const SessionRecord& session, CK_OBJECT_HANDLE hObject)
{
    const VelkorKeyPair* keyPair = findKeyPair(session, hObject - PRIVATE_KEY_BASE);
    if (keyPair == nullptr) {
        logDebug("Input keypair not found in destroy : ", hObject);
        return CKR_OBJECT_HANDLE_INVALID;
    }
    const int status = velkor_deleteKeyPair(session.deviceId(), keyPair->keyIdentifier, cachedPassword().c_str(),
                                            keyPair->deviceFlag, moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Delete keypair in destroy object failed : ", status);
    return CKR_OK;
}

CK_RV destroyCertificate(const SessionRecord& session, CK_OBJECT_HANDLE hObject)
{
    const VelkorCertificate* certificate = findCertificate(session, hObject - CERTIFICATE_BASE);
    if (certificate == nullptr) {
        logDebug("Input certificate not found in destroy : ", hObject);
        return CKR_OBJECT_HANDLE_INVALID;
    }
    const int status = velkor_deleteCertificate(session.deviceId(), certificate->certificateIdentifier,
                                                cachedPassword().c_str(), moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Delete certificate in destroy object failed : ", status);
    return CKR_OK;
}

} // namespace

CK_RV destroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    const auto session = findSession(hSession);
    if (!session)
        return refuse(CKR_SESSION_HANDLE_INVALID, "Delete session state invalid");
    const CK_STATE sessionState = stateOf(*session);
    if (isReadOnly(sessionState)) {
        logDebug("Delete session state invalid : ", sessionState);
        return CKR_SESSION_READ_ONLY;
    }
    logDebug("Delete key pair id : ", hObject);
    if (isPrivateKeyHandle(hObject))
        return destroyKeyPair(*session, hObject);
    // A key pair goes through its private key's handle only.
    if (hObject < CERTIFICATE_BASE)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DestroyObject: invalid hObject=", hObject);
    return destroyCertificate(*session, hObject);
}

} // namespace velkor
