#include "mock_device.h"

#define DEFINE_MOCKER(name) template class testing::internal::FunctionMocker<decltype(::name)>;
MOCK_DEVICE_FOR_EACH_TYPE(DEFINE_MOCKER)

MockDevice::MockDevice()
{
#define DELEGATE(name) ON_CALL(*this, name).WillByDefault(testing::Invoke(&defaults, &DefaultDevice::name))
    DELEGATE(velkor_createInstance);
    DELEGATE(velkor_releaseInstance);
    DELEGATE(velkor_getConnectedDeviceList);
    DELEGATE(velkor_getTokenInfo);
    DELEGATE(velkor_initDevice);
    DELEGATE(velkor_validatePassword);
    DELEGATE(velkor_changeUserPassword);
    DELEGATE(velkor_getKeyPairList);
    DELEGATE(velkor_getCertificateList);
    DELEGATE(velkor_updateKeyPairDetails);
    DELEGATE(velkor_deleteKeyPair);
    DELEGATE(velkor_deleteCertificate);
    DELEGATE(velkor_importCertificate);
    DELEGATE(velkor_importPfx);
    DELEGATE(velkor_getFilesWithExtensionsAndConvertDER);
    DELEGATE(velkor_getCertificateDetails);
    DELEGATE(velkor_getCertificateSubject);
    DELEGATE(velkor_getCertificateIssuer);
    DELEGATE(velkor_getCertificateSerialDER);
    DELEGATE(velkor_generateKeyPair);
    DELEGATE(velkor_initHash);
    DELEGATE(velkor_updateHash);
    DELEGATE(velkor_finalHash);
    DELEGATE(velkor_signHash);
    DELEGATE(velkor_verifySignatureHash);
    DELEGATE(velkor_encrypt);
    DELEGATE(velkor_decrypt);
    DELEGATE(velkor_ecdhDerive);
    DELEGATE(velkor_generateRamdomNumber);
#undef DELEGATE
}

MockDevice::~MockDevice() = default;
