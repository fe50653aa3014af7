// The steps of a run against the model: calls of the interface with good and bad arguments, and what happens to the
// devices and the log's level between them. A step holds all that it needs, so that any part of a run can be run.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cryptoki.h"
#include "recording_device.h"

enum class ModelCall {
    Initialize, // clang-format off
    Finalize, GetInfo, GetFunctionList, GetSlotList, GetSlotInfo, GetTokenInfo, GetMechanismList, GetMechanismInfo,
    SetPin, OpenSession, CloseSession, CloseAllSessions, GetSessionInfo, Login, Logout, CreateObject, DestroyObject,
    GetObjectSize, GetAttributeValue, SetAttributeValue, FindObjectsInit, FindObjects, FindObjectsFinal, EncryptInit,
    Encrypt, DecryptInit, Decrypt, DigestInit, Digest, DigestUpdate, DigestFinal, SignInit, Sign, SignUpdate,
    SignFinal, VerifyInit, Verify, VerifyUpdate, VerifyFinal, GenerateKeyPair, DeriveKey, GenerateRandom,
    WaitForSlotEvent, Unsupported,
    // clang-format on
    // What is no call of the interface.
    MonitorCycle,
    SetDevices,  ///< Which devices are connected, in which order.
    ChangeToken, ///< What the first device says of itself.
    ClearLabels, ///< The first device's objects lose their labels.
    SetLogLevel,
};

/// An entry of a template.
struct StepEntry {
    CK_ATTRIBUTE_TYPE type = 0;
    DeviceBytes value;   ///< For an answer, the room for it.
    bool isNull = false; ///< The length stays.
};

/// What stands behind the pointer of a mechanism.
enum class StepParameter { None, Bytes, Derive, ShortDerive, DeriveWithoutPeer };

struct ModelStep {
    ModelCall call = ModelCall::GetInfo;
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE object = 0;
    CK_ULONG number = 0; ///< Slot, flags, kind of user, mechanism, state of the world.
    CK_ULONG count = 0;  ///< A length or count that the caller tells.
    DeviceBytes data;
    DeviceBytes more;   ///< A second input: new PIN, signature, peer.
    unsigned nulls = 0; ///< Bits: which pointers are null, in the order of the parameters.
    StepParameter parameter = StepParameter::None;
    std::vector<StepEntry> entries;
    std::vector<StepEntry> moreEntries;
    PlannedFault fault;
};

/// A step in one line.
std::string described(const ModelStep& step);

/// Takes a step's fault away; false when it has none.
inline bool simplified(ModelStep& step)
{
    return std::exchange(step.fault, {}).call != 0;
}

/// Makes runs: the same ones from the same seed, in each layout.
class StepMaker
{
public:
    explicit StepMaker(std::uint64_t seed) : random_(seed) {}

    /// A run of about so many steps, from a process that has just been started.
    std::vector<ModelStep> run(std::size_t length);

private:
    CK_ULONG below(CK_ULONG limit) { return static_cast<CK_ULONG>(random_() % limit); }
    bool inPercent(CK_ULONG percent) { return below(100) < percent; }
    template <typename Item, std::size_t Size>
    Item oneOf(const Item (&items)[Size])
    {
        return items[random_() % Size];
    }

    ModelStep step(ModelCall call);
    void add(ModelStep step);
    void start();
    void scene();
    void lifecycleScene();
    void slotScene();
    void sessionScene();
    void loginScene();
    void searchScene();
    void attributeScene();
    void importScene();
    void keyScene();
    void digestScene();
    void signScene();
    void verifyScene();
    void cipherScene();
    void worldScene();

    CK_SLOT_ID slot();
    CK_SESSION_HANDLE session();
    CK_OBJECT_HANDLE object();
    CK_OBJECT_HANDLE privateKey();
    CK_OBJECT_HANDLE keyOfPair();
    CK_MECHANISM_TYPE signatureMechanism();
    DeviceBytes bytes(CK_ULONG longest);
    DeviceBytes signedData();
    DeviceBytes pin();
    StepEntry criterion();
    StepEntry room();
    StepEntry numbered(CK_ATTRIBUTE_TYPE type, CK_ULONG number);
    StepEntry text(CK_ATTRIBUTE_TYPE type);

    std::mt19937_64 random_;
    std::vector<ModelStep> steps_;
    CK_SESSION_HANDLE current_ = 0; ///< The session of the present scene.
};
