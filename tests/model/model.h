// The contract of the module as a program of its own: sessions, login, objects, attributes and operations, one function
// for each entry point, over a device of its own. It is written for reading beside the contract, not for speed, shares
// no code with the module, and knows neither locks nor threads.
#pragma once

#include <exception>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "cryptoki.h"
#include "recording_device.h"

using DeviceCertificates = std::vector<VelkorCertificate>;
using DeviceKeyPairs = std::vector<VelkorKeyPair>;

/// What a session has in progress, by the numbers that the log shows.
enum ModelOperation : int {
    OP_NONE = 0,
    OP_FIND = 1,
    OP_ENCRYPT = 2,
    OP_DECRYPT = 3,
    OP_DIGEST = 4,
    OP_SIGN = 5,
    OP_VERIFY = 7,
    OP_DIGEST_ENCRYPT = 9,
    OP_DIGEST_DECRYPT = 10,
};

struct ModelSession {
    CK_STATE state = CKS_RO_PUBLIC_SESSION;
    CK_SLOT_ID slot = 0;
    TokenInfo token; ///< As it was when the session was opened.
    int operation = OP_NONE;
    DeviceCertificates foundCertificates;
    DeviceKeyPairs foundKeyPairs;
    bool findsPublicKeys = false;
    bool findsPrivateKeys = false;
    CK_ULONG position = 0;
    DeviceBytes result; ///< Computed and not yet fetched.
    DeviceBytes hashed; ///< A finished digest, or what a raw mechanism has gathered.
    void* hashContext = nullptr;
    CK_MECHANISM_TYPE mechanism = 0;
    bool isPss = false;
    CK_MECHANISM_TYPE cipherMechanism = 0;

    const char* device() const { return token.serialNumber.c_str(); }
    bool isReadOnly() const { return state < CKS_RW_PUBLIC_SESSION; }
    bool isUser() const { return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS; }
};

#define MODEL_ENTRY_POINT(name, parameters) CK_RV name parameters;

class Model
{
public:
    explicit Model(RecordingDevice& device) : device_(device) {}

    // The supported entry points are defined under their names, with the parameters of the standard.
    CK_FOR_EACH_FUNCTION(MODEL_ENTRY_POINT)

    /// Every other export.
    CK_RV unsupported(const char* name);

    /// One look of the monitor at the devices.
    void monitorCycle();
    bool monitorRuns() const { return monitorRuns_; }

    /// Whether waiting for a slot event comes to an end.
    bool answersWaiting() const { return library_ == nullptr || eventPending_; }

    void setLogLevel(int level) { logLevel_ = level; }

    /// The lines since the last time, as "DEBUG text" or "ERROR text".
    std::vector<std::string> takeLines() { return std::exchange(lines_, {}); }
    std::vector<std::string> takeMonitorLines() { return std::exchange(monitorLines_, {}); }

private:
    using KeyOrNone = const VelkorKeyPair*;

    // Log and entry.
    void debug(const std::string& text);
    void monitorDebug(const std::string& text);
    void error(const std::string& text);
    CK_RV refuse(CK_RV code, const std::string& text);
    /// A call of the device. One that throws has failed, and the refusal that follows tells that.
    template <typename Call>
    auto attempt(const Call& call) -> decltype(call())
    {
        try {
            return call();
        } catch (const std::exception& exception) {
            thrown_ = exception.what();
        }
        if constexpr (std::is_same_v<decltype(call()), bool>)
            return false;
        else
            return -1;
    }
    bool enter(const std::string& name);
    ModelSession* enter(const std::string& name, CK_SESSION_HANDLE hSession);
    ModelSession* begin(const std::string& name, CK_SESSION_HANDLE hSession, bool stateCounts, bool digestMayBeActive);
    ModelSession* goOn(const std::string& name, CK_SESSION_HANDLE hSession, int operation);

    // Slots, sessions, login.
    void stopMonitor();
    const TokenInfo* slot(CK_SLOT_ID slotID) const;
    CK_ULONG sessionsInState(CK_STATE state) const;
    CK_RV checkPin(const ModelSession& session, const std::string& pin, int userType);
    CK_RV raiseStates(const std::string& device, CK_USER_TYPE userType);

    // Objects.
    KeyOrNone keyPair(const ModelSession& session, CK_ULONG id);
    std::optional<VelkorCertificate> certificate(const ModelSession& session, CK_ULONG id);
    std::string label(const VelkorCertificate& certificate);
    std::string label(const ModelSession& session, const VelkorKeyPair& keyPair);
    struct Criteria;
    std::optional<Criteria> readCriteria(CK_ATTRIBUTE_PTR entries, CK_ULONG count);
    bool matches(const ModelSession& session, const VelkorKeyPair& keyPair, const Criteria& criteria);
    bool matches(const VelkorCertificate& certificate, const Criteria& criteria);
    void select(ModelSession& session, const Criteria& criteria, const DeviceCertificates& certificates,
                const DeviceKeyPairs& keyPairs);
    struct Attributes;
    std::optional<Attributes> attributesOf(const ModelSession& session, CK_OBJECT_HANDLE hObject);
    DeviceBytes valueOf(const Attributes& object, CK_ATTRIBUTE_TYPE type);
    CK_RV answerEntry(CK_ATTRIBUTE& entry, CK_ULONG index, const DeviceBytes& value);
    CK_RV derivedAttributes(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR entries, CK_ULONG count);

    // Import.
    struct NewObject;
    NewObject readNewObject(CK_ATTRIBUTE_PTR entries, CK_ULONG count);
    CK_RV importKey(const ModelSession& session, const NewObject& object, CK_OBJECT_HANDLE_PTR phObject);
    CK_RV importLeaf(const ModelSession& session, const NewObject& object, CK_OBJECT_HANDLE_PTR phObject);
    CK_RV importWithIssuers(const ModelSession& session, VelkorCertificate leaf, const std::string& issuer,
                            CK_OBJECT_HANDLE_PTR phObject);
    std::vector<VelkorCertificate> issuersFromDisk(const VelkorCertificate& leaf, std::string issuer);
    CK_RV store(const ModelSession& session, VelkorCertificate& certificate);
    void tellHandle(const ModelSession& session, const VelkorCertificate& stored, CK_OBJECT_HANDLE_PTR phObject);
    void nameKeyPair(const ModelSession& session, const DeviceBytes& publicKey, const std::string& label);

    // Operations.
    CK_RV deliver(ModelSession& session, DeviceBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR length);
    int hash(const ModelSession& session, int code, std::span<const unsigned char> data, DeviceBytes& hash,
             std::string& failed);
    bool firmwareIsRecent(const ModelSession& session) const;
    CK_RV refuseFipsInput(ModelSession& session, std::span<const unsigned char> data);
    int sign(ModelSession& session, const DeviceBytes& hash);
    CK_RV addPart(ModelSession& session, const std::string& function, int code, std::span<const CK_BYTE> part);
    int finishParts(ModelSession& session);
    CK_RV finalHash(ModelSession& session, const std::string& text);
    CK_RV end(ModelSession& session, CK_RV code, const std::string& text);
    CK_RV selectCipherKey(ModelSession& session, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey);
    CK_RV selectDecryptionKey(ModelSession& session, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey);
    CK_RV readKind(CK_KEY_TYPE type, CK_ATTRIBUTE_PTR entries, CK_ULONG count, VelkorKeyPair& request);
    CK_KEY_TYPE readPrivateTemplate(CK_ATTRIBUTE_PTR entries, CK_ULONG count, VelkorKeyPair& request);
    CK_RV applyKdf(const ModelSession& session, CK_EC_KDF_TYPE kdf, DeviceBytes& secret);

    RecordingDevice& device_;
    int logLevel_ = 3;
    std::vector<std::string> lines_;
    std::vector<std::string> monitorLines_;
    CK_RV code_ = CKR_OK; ///< Of the entry that was refused last.
    std::string name_;    ///< Of the present call.
    std::string thrown_;  ///< What the device has thrown, until it is told.

    void* library_ = nullptr;
    std::string pin_; ///< The user's, while one is logged in.
    std::map<CK_SESSION_HANDLE, ModelSession> sessions_;
    std::map<std::string, TokenInfo> slots_; ///< By device name.
    bool monitorRuns_ = false;
    std::size_t devicesSeen_ = 0; ///< By the monitor, the last time.
    bool eventPending_ = false;
    VelkorKeyPair lastKeyPair_; ///< The one that was looked up last, by whichever session.
    std::map<CK_OBJECT_HANDLE, DeviceBytes> derivedKeys_;
};

#undef MODEL_ENTRY_POINT

/// A number as the log has it: signed.
inline std::string decimal(CK_ULONG number)
{
    return std::to_string(static_cast<CK_LONG>(number));
}

/// Whether a token of this model text counts as FIPS 140-3.
inline bool countsAsFips(const std::string& model)
{
    return model.size() < 3 || model[2] != '1';
}

/// The numbers between the dots of a version.
std::vector<long> versionNumbers(const std::string& version);
