#include "stress_world.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "device_double.h"
#include "test_system.h"
#ifdef STRICT
#include "standard_codes.h"
#endif

namespace
{

#ifndef STRICT
/// What the module answers a host that is in the way of others, or whose device is away.
bool hasStandardCode(const std::string& /*function*/, CK_RV code)
{
    constexpr CK_RV CODES[] = {
        CKR_OK,
        CKR_FUNCTION_FAILED,
        CKR_FUNCTION_NOT_SUPPORTED,
        CKR_DEVICE_REMOVED,
        CKR_SLOT_ID_INVALID,
        CKR_SESSION_HANDLE_INVALID,
        CKR_OBJECT_HANDLE_INVALID,
        CKR_USER_ALREADY_LOGGED_IN,
        CKR_USER_NOT_LOGGED_IN,
        CKR_NO_EVENT,
        CKR_SIGNATURE_INVALID, // Of the key that another thread has looked up since.
        CKR_OPERATION_NOT_INITIALIZED,
        CKR_BUFFER_TOO_SMALL,
    };
    return std::find(std::begin(CODES), std::end(CODES), code) != std::end(CODES);
}
#endif

/// Those that the library has for the sake of its function table.
bool isSupported(const std::string& function)
{
    static const std::vector<std::string> ALWAYS_REFUSED = {"C_InitToken",
                                                            "C_InitPIN",
                                                            "C_GetOperationState",
                                                            "C_SetOperationState",
                                                            "C_DigestKey",
                                                            "C_SignRecoverInit",
                                                            "C_SignRecover",
                                                            "C_VerifyRecoverInit",
                                                            "C_VerifyRecover",
                                                            "C_GenerateKey",
                                                            "C_WrapKey",
                                                            "C_UnwrapKey",
                                                            "C_SeedRandom",
                                                            "C_GetFunctionStatus",
                                                            "C_CancelFunction",
                                                            "C_DigestEncryptUpdate",
                                                            "C_DecryptDigestUpdate",
                                                            "C_SignEncryptUpdate",
                                                            "C_DecryptVerifyUpdate"};
    static const std::vector<std::string> OF_THE_STRICT_FRONT = {"C_CopyObject", "C_EncryptUpdate", "C_EncryptFinal",
                                                                 "C_DecryptUpdate", "C_DecryptFinal"};
    const auto isIn = [&](const std::vector<std::string>& list) {
        return std::find(list.begin(), list.end(), function) != list.end();
    };
    return !isIn(ALWAYS_REFUSED) && (StressWorld::IS_STRICT || !isIn(OF_THE_STRICT_FRONT));
}

CK_FUNCTION_LIST_PTR load()
{
    const auto folder = std::filesystem::absolute(test_system::scratchFolder(test_system::loggedProgramName()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    test_system::setTemporaryFolder(folder);
    test_system::LogLevel(folder).set("0");
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(test_system::moduleSymbol(LIBRARY_FILE, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    getList(&list);
    return list;
}

} // namespace

const std::array<const char*, TOKENS> StressWorld::NAMES = {FIRST_DEVICE, SECOND_DEVICE};
/// The module has one PIN for all tokens.
const std::array<const char*, TOKENS> StressWorld::PINS = {"1234", IS_STRICT ? "secret-2" : "1234"};

std::vector<unsigned char> StressWorld::derOf(int thread, int number)
{
    return {0x30, 0x04, 0x02, 0x02, static_cast<unsigned char>(thread), static_cast<unsigned char>(number)};
}

StressWorld::StressWorld(int threads) : p11(*load())
{
    const DeviceRecords& first = device->devices[NAMES[0]];
    DeviceRecords& second = device->devices[NAMES[1]];
    second.keyPairs = first.keyPairs;
    second.certificates = first.certificates;
    device->areKeysDistinct = true;
    for (std::size_t token = 0; token < TOKENS; ++token)
        device->setUserPin(NAMES[token], PINS[token]);
    for (int thread = 0; thread < threads; ++thread) {
        for (int number = 0; number < DERS; ++number)
            device->detailsOf(derOf(thread, number)).subjectCommonName = "Stress";
    }
    setDeviceOperations(device);
}

CK_SLOT_ID StressWorld::slotOf(std::size_t token)
{
    std::array<CK_SLOT_ID, TOKENS> slots{};
    CK_ULONG length = TOKENS;
    count("C_GetSlotList", p11.C_GetSlotList(CK_TRUE, slots.data(), &length));
    for (const CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        count("C_GetTokenInfo", p11.C_GetTokenInfo(slot, &info));
        if (std::string(reinterpret_cast<const char*>(info.serialNumber), 8) == NAMES[token])
            return slot;
    }
    wrong("a token has no slot");
    return 0;
}

/// The library and its monitor see the device go and come before the token counts as undisturbed.
void StressWorld::disturb(std::size_t token)
{
    const auto look = [&] {
        std::array<CK_SLOT_ID, TOKENS> slots{};
        CK_ULONG length = TOKENS;
        if (!monitor.runCycle())
            wrong("the monitor is not heard of");
        count("C_GetSlotList", p11.C_GetSlotList(CK_TRUE, slots.data(), &length));
    };
    disturbances[token].begin();
    device->setConnected({NAMES[1 - token]});
    look();
    device->setConnected({NAMES[0], NAMES[1]});
    look();
    clean(token);
    disturbances[token].end();
}

/// As another process would: calls that failed have left pairs and certificates.
void StressWorld::clean(std::size_t token)
{
    constexpr std::size_t MANY = 60;
    constexpr std::uint32_t OWN = 7;
    const char* name = NAMES[token];
    const std::vector<VelkorKeyPair> pairs = device->DefaultDevice::velkor_getKeyPairList(name, nullptr);
    for (const VelkorKeyPair& pair : pairs) {
        if (pairs.size() > MANY && pair.id > OWN)
            device->DefaultDevice::velkor_deleteKeyPair(name, pair.keyIdentifier, "", false, nullptr);
    }
    const std::vector<VelkorCertificate> certificates = device->velkor_getCertificateList(name, nullptr);
    for (const VelkorCertificate& certificate : certificates) {
        if (certificates.size() > MANY && certificate.id > OWN)
            device->velkor_deleteCertificate(name, certificate.certificateIdentifier, "", nullptr);
    }
}

CK_RV StressWorld::count(const std::string& function, CK_RV code)
{
    ++calls;
    {
        const std::scoped_lock lock(lock_);
        ++codes_[function][code];
    }
    if (!hasStandardCode(function, code))
        wrong(function + " answers " + std::to_string(code));
    return code;
}

void StressWorld::wrong(const std::string& what)
{
    constexpr unsigned long TOLD = 20;
    const std::scoped_lock lock(lock_);
    if (++mistakes <= TOLD)
        std::cout << "WRONG: " << what << "\n";
}

void StressWorld::checkEnd()
{
    std::vector<std::string> unheard;
    for (const auto& [function, codes] : codes_) {
        if (isSupported(function) && !codes.contains(CKR_OK) && !codes.contains(CKR_NO_EVENT))
            unheard.push_back(function);
    }
    for (const std::string& function : unheard)
        wrong(function + " has never succeeded");
    if (codes_.size() != 68)
        wrong("not all functions were called, but " + std::to_string(codes_.size()));
    for (std::size_t token = 0; token < TOKENS; ++token) {
        if (device->triesLeft(NAMES[token]) != 10)
            wrong("a try is lost");
        for (const std::string& pin : device->pinsSeen(NAMES[token])) {
            if (!pin.empty() && pin != PINS[token])
                wrong("a token was given another PIN than its own");
        }
    }
}
