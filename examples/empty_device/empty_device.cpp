// The smallest device library: all 29 operations, and never a device. A starting point for one of your own.
#include <velkor/device_service.h>

namespace
{

constexpr int NO_DEVICE = STATUS_DEVICE_UNREACHABLE;
int theInstance = 0;

} // namespace

void velkor_createInstance(void** libraryInstance)
{
    *libraryInstance = &theInstance;
}

void velkor_releaseInstance(void*) {}

std::vector<std::string> velkor_getConnectedDeviceList(bool, void*)
{
    return {};
}

TokenInfo velkor_getTokenInfo(const char*, void*)
{
    return {}; // No serial number: no usable token.
}

std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char*, void*)
{
    static thread_local std::vector<VelkorKeyPair> none;
    return none;
}

std::vector<VelkorCertificate>& velkor_getCertificateList(const char*, void*)
{
    static thread_local std::vector<VelkorCertificate> none;
    return none;
}

// What asks for a device, or for cryptography, is refused. Output parameters are left alone then.
// clang-format off
using Octet = unsigned char;
int velkor_initDevice(const char*, bool, void*) { return NO_DEVICE; }
int velkor_validatePassword(const char*, const char*, int, int*, void*) { return STATUS_CHECK_NOT_POSSIBLE; }
bool velkor_changeUserPassword(const char*, const char*, const char*, int*, bool, bool, void*) { return false; }
int velkor_updateKeyPairDetails(const char*, const Octet*, const char*, const char*, const Octet*, int, void*) { return NO_DEVICE; }
int velkor_deleteKeyPair(const char*, const Octet*, const char*, bool, void*) { return NO_DEVICE; }
int velkor_deleteCertificate(const char*, const Octet*, const char*, void*) { return NO_DEVICE; }
int velkor_importCertificate(const char*, const char*, VelkorCertificate*, void*) { return NO_DEVICE; }
int velkor_importPfx(const char*, const char*, ImportPFXDetails*, void*) { return NO_DEVICE; }
std::vector<std::pair<std::string, std::vector<Octet>>> velkor_getFilesWithExtensionsAndConvertDER(const char*, const std::vector<std::string>&, bool, void*) { return {}; }
int velkor_getCertificateDetails(const Octet*, int, CertificateDetails&, void*) { return NO_DEVICE; }
std::vector<Octet> velkor_getCertificateSubject(const Octet*, int, void*) { return {}; }
std::vector<Octet> velkor_getCertificateIssuer(const Octet*, int, void*) { return {}; }
std::vector<Octet> velkor_getCertificateSerialDER(const Octet*, int, void*) { return {}; }
int velkor_generateKeyPair(const char*, const char*, VelkorKeyPair*, void*) { return NO_DEVICE; }
int velkor_initHash(const char*, int, void**, void*) { return NO_DEVICE; }
int velkor_updateHash(void*, const Octet*, int, void*) { return NO_DEVICE; }
int velkor_finalHash(void*, Octet*, int*, void*) { return NO_DEVICE; }
int velkor_signHash(const char*, const Octet*, const char*, const Octet*, int, Octet*, int*, bool, void*, bool) { return NO_DEVICE; }
int velkor_verifySignatureHash(unsigned int, const char*, const Octet*, int, const Octet*, int, const Octet*, int, void*, bool) { return NO_DEVICE; }
int velkor_encrypt(EncryptionType, PaddingMode, const Octet*, int, Octet*, int*, const Octet*, int, void*) { return NO_DEVICE; }
int velkor_decrypt(const char*, const Octet*, const char*, const Octet*, int, Octet**, int*, bool, void*) { return NO_DEVICE; }
int velkor_ecdhDerive(const char*, const Octet*, const char*, const Octet*, int, Octet**, int*, void*) { return NO_DEVICE; }
int velkor_generateRamdomNumber(const char*, int, Octet*, bool, void*) { return NO_DEVICE; }
// clang-format on
