// One step of a run, done by the module's function table or by the model: both get memory that is filled alike, and
// what they leave in it is written down, byte for byte.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <iterator>
#include <vector>

#include "model.h"
#include "steps.h"
#include "velkor_extensions.h"

/// What a call is given, and what it has left of it.
class CallMemory
{
public:
    explicit CallMemory(const ModelStep& step)
        : data(step.data), more(step.more), length(step.count), nulls_(step.nulls)
    {
        data.reserve(1); // Not null, even when there is nothing in it.
        more.reserve(1);
        addEntries(step.entries, entries);
        addEntries(step.moreEntries, moreEntries);
        std::memset(list, UNTOUCHED_BYTE, sizeof list);
        std::memset(handles, UNTOUCHED_BYTE, sizeof handles);
        mechanism = {step.number, nullptr, 0};
        derivation = {step.count, 0, nullptr, static_cast<CK_ULONG>(more.size()), more.data()};
        setParameter(step.parameter);
    }

    CallMemory(const CallMemory&) = delete;
    CallMemory& operator=(const CallMemory&) = delete;

    /// The pointer, or null when the step wants this one to be null.
    template <typename Item>
    Item* pointer(unsigned position, Item* item) const
    {
        return ((nulls_ >> position) & 1U) != 0 ? nullptr : item;
    }

    /// Everything that a call may have written to.
    DeviceBytes contents() const
    {
        DeviceBytes all = room;
        const auto append = [&](const void* first, std::size_t size) {
            const auto* bytes = static_cast<const unsigned char*>(first);
            all.insert(all.end(), bytes, bytes + size);
        };
        append(&length, sizeof length);
        append(list, sizeof list);
        append(handles, sizeof handles);
        std::vector<CK_ULONG> told;
        for (const CK_ATTRIBUTE& entry : entries)
            told.push_back(CK_ULONG{entry.ulValueLen}); // Which may lie at any address.
        append(told.data(), told.size() * sizeof(CK_ULONG));
        for (const DeviceBytes& value : values_)
            append(value.data(), value.size());
        return all;
    }

    DeviceBytes data;
    DeviceBytes more;
    CK_ULONG length;
    DeviceBytes room = DeviceBytes(2048, UNTOUCHED_BYTE); ///< For any result: lengths that callers tell do not count.
    CK_ULONG list[64];
    CK_OBJECT_HANDLE handles[2];
    std::vector<CK_ATTRIBUTE> entries;
    std::vector<CK_ATTRIBUTE> moreEntries;
    CK_MECHANISM mechanism;
    CK_ECDH1_DERIVE_PARAMS derivation;

    static constexpr unsigned char UNTOUCHED_BYTE = 0xEE;

private:
    void addEntries(const std::vector<StepEntry>& given, std::vector<CK_ATTRIBUTE>& to)
    {
        to.reserve(given.size() + 1);
        for (const StepEntry& entry : given) {
            DeviceBytes& kept = values_.emplace_back(entry.value);
            kept.push_back(0); // A label of a search is read up to here.
            to.push_back({entry.type, entry.isNull ? nullptr : kept.data(), static_cast<CK_ULONG>(entry.value.size())});
        }
    }

    void setParameter(StepParameter parameter)
    {
        if (parameter == StepParameter::None)
            return;
        mechanism.pParameter = &derivation;
        mechanism.ulParameterLen = sizeof derivation;
        if (parameter == StepParameter::Bytes)
            mechanism.ulParameterLen = 4;
        if (parameter == StepParameter::ShortDerive)
            mechanism.ulParameterLen = sizeof derivation - 1;
        if (parameter == StepParameter::DeriveWithoutPeer)
            derivation.pPublicData = nullptr;
    }

    std::deque<DeviceBytes> values_;
    unsigned nulls_;
};

// ---- Exports that are not supported ----

struct UnsupportedExport {
    const char* name;
    CK_RV (*call)(const CK_FUNCTION_LIST& table);
};

template <typename... Parameters>
CK_RV callWithZeros(CK_RV (*function)(Parameters...))
{
    return function(Parameters{}...);
}

#define UNSUPPORTED_ROW(name)                                                                                          \
    {                                                                                                                  \
#name, [](const CK_FUNCTION_LIST& table) { return callWithZeros(table.name); }                                 \
    }
#define UNSUPPORTED_EXTENSION(name)                                                                                    \
    {                                                                                                                  \
#name, [](const CK_FUNCTION_LIST&) { return callWithZeros(&::name); }                                          \
    }
inline constexpr UnsupportedExport UNSUPPORTED_EXPORTS[] = {UNSUPPORTED_ROW(C_InitToken),
                                                            UNSUPPORTED_ROW(C_InitPIN),
                                                            UNSUPPORTED_ROW(C_GetOperationState),
                                                            UNSUPPORTED_ROW(C_SetOperationState),
                                                            UNSUPPORTED_ROW(C_CopyObject),
                                                            UNSUPPORTED_ROW(C_EncryptUpdate),
                                                            UNSUPPORTED_ROW(C_EncryptFinal),
                                                            UNSUPPORTED_ROW(C_DecryptUpdate),
                                                            UNSUPPORTED_ROW(C_DecryptFinal),
                                                            UNSUPPORTED_ROW(C_DigestKey),
                                                            UNSUPPORTED_ROW(C_SignRecoverInit),
                                                            UNSUPPORTED_ROW(C_SignRecover),
                                                            UNSUPPORTED_ROW(C_VerifyRecoverInit),
                                                            UNSUPPORTED_ROW(C_VerifyRecover),
                                                            UNSUPPORTED_ROW(C_DigestEncryptUpdate),
                                                            UNSUPPORTED_ROW(C_DecryptDigestUpdate),
                                                            UNSUPPORTED_ROW(C_SignEncryptUpdate),
                                                            UNSUPPORTED_ROW(C_DecryptVerifyUpdate),
                                                            UNSUPPORTED_ROW(C_GenerateKey),
                                                            UNSUPPORTED_ROW(C_WrapKey),
                                                            UNSUPPORTED_ROW(C_UnwrapKey),
                                                            UNSUPPORTED_ROW(C_SeedRandom),
                                                            UNSUPPORTED_ROW(C_GetFunctionStatus),
                                                            UNSUPPORTED_ROW(C_CancelFunction),
                                                            UNSUPPORTED_EXTENSION(C_EjectToken),
                                                            UNSUPPORTED_EXTENSION(C_GetUnmanagedStructSizeList),
                                                            UNSUPPORTED_EXTENSION(C_InteractiveLogin)};
#undef UNSUPPORTED_ROW
#undef UNSUPPORTED_EXTENSION

inline CK_RV callUnsupported(const CK_FUNCTION_LIST& table, const UnsupportedExport& called)
{
    return called.call(table);
}

inline CK_RV callUnsupported(Model& model, const UnsupportedExport& called)
{
    return model.unsupported(called.name);
}

// ---- Structures, whose fields are written down one by one: what is between them is nobody's ----

template <typename Structure>
Structure untouchedStructure()
{
    Structure structure;
    std::memset(&structure, CallMemory::UNTOUCHED_BYTE, sizeof structure);
    return structure;
}

template <typename... Fields>
void tellFields(DeviceBytes& outputs, const Fields&... fields)
{
    const auto tell = [&](const auto& field) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&field);
        outputs.insert(outputs.end(), bytes, bytes + sizeof field);
    };
    (tell(fields), ...);
}

inline void tellStructure(DeviceBytes& outputs, const CK_INFO& info)
{
    tellFields(outputs, info.manufacturerID, info.libraryDescription, info.cryptokiVersion, info.libraryVersion);
    const CK_ULONG flags = info.flags; // A field that may lie at any address is copied first.
    tellFields(outputs, flags);
}

inline void tellStructure(DeviceBytes& outputs, const CK_SLOT_INFO& info)
{
    tellFields(outputs, info.slotDescription, info.manufacturerID, info.hardwareVersion, info.firmwareVersion);
    const CK_ULONG flags = info.flags;
    tellFields(outputs, flags);
}

inline void tellStructure(DeviceBytes& outputs, const CK_TOKEN_INFO& info)
{
    tellFields(outputs, info.label, info.manufacturerID, info.model, info.serialNumber, info.hardwareVersion,
               info.firmwareVersion, info.utcTime);
    const CK_ULONG numbers[] = {info.flags,
                                info.ulMaxSessionCount,
                                info.ulSessionCount,
                                info.ulMaxRwSessionCount,
                                info.ulRwSessionCount,
                                info.ulMaxPinLen,
                                info.ulMinPinLen,
                                info.ulTotalPublicMemory,
                                info.ulFreePublicMemory,
                                info.ulTotalPrivateMemory,
                                info.ulFreePrivateMemory};
    tellFields(outputs, numbers);
}

inline void tellStructure(DeviceBytes& outputs, const CK_MECHANISM_INFO& info)
{
    const CK_ULONG numbers[] = {info.ulMinKeySize, info.ulMaxKeySize, info.flags};
    tellFields(outputs, numbers);
}

inline void tellStructure(DeviceBytes& outputs, const CK_SESSION_INFO& info)
{
    const CK_ULONG numbers[] = {info.slotID, info.state, info.flags, info.ulDeviceError};
    tellFields(outputs, numbers);
}

// ---- The calls ----

/// Makes a call; what it wrote goes to `outputs`. `Api` is the module's table or the model.
template <typename Api>
CK_RV makeCall(Api& api, const ModelStep& step, CallMemory& memory, DeviceBytes& outputs)
{
    const CK_SESSION_HANDLE session = step.session;
    const CK_OBJECT_HANDLE object = step.object; // A slot where no object is asked for.
    CK_BYTE* const data = memory.pointer(0, memory.data.data());
    const auto size = static_cast<CK_ULONG>(memory.data.size());
    CK_ATTRIBUTE* const entries = memory.pointer(0, memory.entries.data());
    const auto count = static_cast<CK_ULONG>(memory.entries.size());
    CK_MECHANISM* const mechanism = memory.pointer(0, &memory.mechanism);
    CK_BYTE* const out = memory.room.data();
    CK_ULONG* const length = &memory.length;
    const auto withStructure = [&](auto structure, const auto& call) {
        const CK_RV code = call(memory.pointer(0, &structure));
        tellStructure(outputs, structure);
        return code;
    };
    switch (step.call) {
    case ModelCall::Initialize:
        return api.C_Initialize(nullptr);
    case ModelCall::Finalize:
        return api.C_Finalize(nullptr);
    case ModelCall::GetInfo:
        return withStructure(untouchedStructure<CK_INFO>(), [&](CK_INFO* info) { return api.C_GetInfo(info); });
    case ModelCall::GetFunctionList: {
        CK_FUNCTION_LIST* list = nullptr;
        const CK_RV code = api.C_GetFunctionList(memory.pointer(0, &list));
        outputs.push_back(list != nullptr ? 1 : 0);
        return code;
    }
    case ModelCall::GetSlotList:
        return api.C_GetSlotList(CK_TRUE, memory.pointer(0, memory.list), memory.pointer(1, length));
    case ModelCall::GetSlotInfo:
        return withStructure(untouchedStructure<CK_SLOT_INFO>(),
                             [&](CK_SLOT_INFO* info) { return api.C_GetSlotInfo(object, info); });
    case ModelCall::GetTokenInfo:
        return withStructure(untouchedStructure<CK_TOKEN_INFO>(),
                             [&](CK_TOKEN_INFO* info) { return api.C_GetTokenInfo(object, info); });
    case ModelCall::GetMechanismList:
        return api.C_GetMechanismList(object, memory.pointer(0, memory.list), memory.pointer(1, length));
    case ModelCall::GetMechanismInfo:
        return withStructure(untouchedStructure<CK_MECHANISM_INFO>(), [&](CK_MECHANISM_INFO* info) {
            return api.C_GetMechanismInfo(object, step.number, info);
        });
    case ModelCall::SetPin:
        return api.C_SetPIN(session, data, size, memory.pointer(1, memory.more.data()),
                            static_cast<CK_ULONG>(memory.more.size()));
    case ModelCall::OpenSession:
        return api.C_OpenSession(object, step.number, nullptr, nullptr, memory.pointer(0, memory.handles));
    case ModelCall::CloseSession:
        return api.C_CloseSession(session);
    case ModelCall::CloseAllSessions:
        return api.C_CloseAllSessions(object);
    case ModelCall::GetSessionInfo:
        return withStructure(untouchedStructure<CK_SESSION_INFO>(),
                             [&](CK_SESSION_INFO* info) { return api.C_GetSessionInfo(session, info); });
    case ModelCall::Login:
        return api.C_Login(session, step.number, data, size);
    case ModelCall::Logout:
        return api.C_Logout(session);
    case ModelCall::CreateObject:
        return api.C_CreateObject(session, entries, count, memory.pointer(1, memory.handles));
    case ModelCall::DestroyObject:
        return api.C_DestroyObject(session, object);
    case ModelCall::GetObjectSize:
        return api.C_GetObjectSize(session, object, length);
    case ModelCall::GetAttributeValue:
        return api.C_GetAttributeValue(session, object, entries, count);
    case ModelCall::SetAttributeValue:
        return api.C_SetAttributeValue(session, object, entries, count);
    case ModelCall::FindObjectsInit:
        return api.C_FindObjectsInit(session, entries, count);
    case ModelCall::FindObjects:
        return api.C_FindObjects(session, memory.pointer(0, memory.list), std::min<CK_ULONG>(step.count, 64),
                                 memory.pointer(1, length));
    case ModelCall::FindObjectsFinal:
        return api.C_FindObjectsFinal(session);
    case ModelCall::EncryptInit:
        return api.C_EncryptInit(session, mechanism, object);
    case ModelCall::Encrypt:
        return api.C_Encrypt(session, data, size, memory.pointer(1, out), memory.pointer(2, length));
    case ModelCall::DecryptInit:
        return api.C_DecryptInit(session, mechanism, object);
    case ModelCall::Decrypt:
        return api.C_Decrypt(session, data, size, memory.pointer(1, out), memory.pointer(2, length));
    case ModelCall::DigestInit:
        return api.C_DigestInit(session, mechanism);
    case ModelCall::Digest:
        return api.C_Digest(session, data, size, memory.pointer(1, out), memory.pointer(2, length));
    case ModelCall::DigestUpdate:
        return api.C_DigestUpdate(session, data, size);
    case ModelCall::DigestFinal:
        return api.C_DigestFinal(session, memory.pointer(0, out), memory.pointer(1, length));
    case ModelCall::SignInit:
        return api.C_SignInit(session, mechanism, object);
    case ModelCall::Sign:
        return api.C_Sign(session, data, size, memory.pointer(1, out), memory.pointer(2, length));
    case ModelCall::SignUpdate:
        return api.C_SignUpdate(session, data, size);
    case ModelCall::SignFinal:
        return api.C_SignFinal(session, memory.pointer(0, out), memory.pointer(1, length));
    case ModelCall::VerifyInit:
        return api.C_VerifyInit(session, mechanism, object);
    case ModelCall::Verify:
        return api.C_Verify(session, data, size, memory.pointer(1, memory.more.data()),
                            static_cast<CK_ULONG>(memory.more.size()));
    case ModelCall::VerifyUpdate:
        return api.C_VerifyUpdate(session, data, size);
    case ModelCall::VerifyFinal:
        return api.C_VerifyFinal(session, memory.pointer(0, memory.more.data()),
                                 static_cast<CK_ULONG>(memory.more.size()));
    case ModelCall::GenerateKeyPair:
        return api.C_GenerateKeyPair(session, mechanism, memory.pointer(1, memory.entries.data()), count,
                                     memory.pointer(2, memory.moreEntries.data()),
                                     static_cast<CK_ULONG>(memory.moreEntries.size()), &memory.handles[0],
                                     &memory.handles[1]);
    case ModelCall::DeriveKey:
        return api.C_DeriveKey(session, mechanism, object, memory.entries.data(), count,
                               memory.pointer(1, memory.handles));
    case ModelCall::GenerateRandom:
        return api.C_GenerateRandom(session, memory.pointer(0, out), step.count);
    case ModelCall::WaitForSlotEvent:
        return api.C_WaitForSlotEvent(step.number, memory.pointer(0, memory.handles), nullptr);
    case ModelCall::Unsupported:
        return callUnsupported(api, UNSUPPORTED_EXPORTS[step.number % std::size(UNSUPPORTED_EXPORTS)]);
    default:
        return CKR_OK; // No call.
    }
}
