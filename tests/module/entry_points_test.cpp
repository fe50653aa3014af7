// Every export, before and after C_Initialize, with arguments that make no sense.
#include <algorithm>
#include <iterator>

#include "module_fixture.h"

namespace
{

enum class ArgumentKind { Zero, Garbage };

template <typename Parameter>
Parameter makeArgument(ArgumentKind arguments)
{
    const bool garbage = arguments == ArgumentKind::Garbage;
    if constexpr (std::is_pointer_v<Parameter>)
        return garbage ? reinterpret_cast<Parameter>(std::uintptr_t{1}) : nullptr;
    else
        return garbage ? static_cast<Parameter>(~Parameter{0}) : Parameter{0};
}

template <typename... Parameters>
CK_RV callWith(ArgumentKind arguments, CK_RV (*function)(Parameters...))
{
    return function(makeArgument<Parameters>(arguments)...);
}

struct EntryPoint {
    const char* name;
    CK_RV (*call)(ArgumentKind);
    /// What zero arguments give after C_Initialize.
    CK_RV initialized;
    bool supported = true;

    friend std::ostream& operator<<(std::ostream& out, const EntryPoint& entry) { return out << entry.name; }
};

#define SUPPORTED(name, code)                                                                                          \
    {                                                                                                                  \
#name, [](ArgumentKind arguments) { return callWith(arguments, name); }, code                                  \
    }
#define UNSUPPORTED(name)                                                                                              \
    {                                                                                                                  \
#name, [](ArgumentKind arguments) { return callWith(arguments, name); }, CKR_FUNCTION_NOT_SUPPORTED, false     \
    }

const EntryPoint entryPoints[] = {
    SUPPORTED(C_GetInfo, CKR_ARGUMENTS_BAD),
    SUPPORTED(C_GetSlotList, CKR_ARGUMENTS_BAD),
    SUPPORTED(C_GetSlotInfo, CKR_SLOT_ID_INVALID),
    SUPPORTED(C_GetTokenInfo, CKR_SLOT_ID_INVALID),
    SUPPORTED(C_GetMechanismList, CKR_ARGUMENTS_BAD),
    SUPPORTED(C_GetMechanismInfo, CKR_ARGUMENTS_BAD),
    UNSUPPORTED(C_InitToken),
    UNSUPPORTED(C_InitPIN),
    SUPPORTED(C_SetPIN, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_OpenSession, CKR_SLOT_ID_INVALID),
    SUPPORTED(C_CloseSession, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_CloseAllSessions, CKR_SLOT_ID_INVALID),
    SUPPORTED(C_GetSessionInfo, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_GetOperationState),
    UNSUPPORTED(C_SetOperationState),
    SUPPORTED(C_Login, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Logout, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_CreateObject, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_CopyObject),
    SUPPORTED(C_DestroyObject, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_GetObjectSize, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_GetAttributeValue, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_SetAttributeValue, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_FindObjectsInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_FindObjects, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_FindObjectsFinal, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_EncryptInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Encrypt, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_EncryptUpdate),
    UNSUPPORTED(C_EncryptFinal),
    SUPPORTED(C_DecryptInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Decrypt, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_DecryptUpdate),
    UNSUPPORTED(C_DecryptFinal),
    SUPPORTED(C_DigestInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Digest, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_DigestUpdate, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_DigestKey),
    SUPPORTED(C_DigestFinal, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_SignInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Sign, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_SignUpdate, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_SignFinal, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_SignRecoverInit),
    UNSUPPORTED(C_SignRecover),
    SUPPORTED(C_VerifyInit, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_Verify, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_VerifyUpdate, CKR_SESSION_HANDLE_INVALID),
    SUPPORTED(C_VerifyFinal, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_VerifyRecoverInit),
    UNSUPPORTED(C_VerifyRecover),
    UNSUPPORTED(C_DigestEncryptUpdate),
    UNSUPPORTED(C_DecryptDigestUpdate),
    UNSUPPORTED(C_SignEncryptUpdate),
    UNSUPPORTED(C_DecryptVerifyUpdate),
    UNSUPPORTED(C_GenerateKey),
    SUPPORTED(C_GenerateKeyPair, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_WrapKey),
    UNSUPPORTED(C_UnwrapKey),
    SUPPORTED(C_DeriveKey, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_SeedRandom),
    SUPPORTED(C_GenerateRandom, CKR_SESSION_HANDLE_INVALID),
    UNSUPPORTED(C_GetFunctionStatus),
    UNSUPPORTED(C_CancelFunction),
    SUPPORTED(C_WaitForSlotEvent, CKR_ARGUMENTS_BAD),
    UNSUPPORTED(C_EjectToken),
    UNSUPPORTED(C_GetUnmanagedStructSizeList),
    UNSUPPORTED(C_InteractiveLogin),
};

class EntryPointTest : public ModuleTest, public testing::WithParamInterface<EntryPoint>
{
protected:
    Answer call(ArgumentKind arguments) const { return answer(GetParam().call, arguments); }

    Answer unsupported() const { return {CKR_FUNCTION_NOT_SUPPORTED, {std::string("DEBUG ") + GetParam().name}}; }

    Answer notInitialized() const
    {
        const std::string name = GetParam().name;
        if (name == "C_DeriveKey") // Its first refusals write no line.
            return {CKR_CRYPTOKI_NOT_INITIALIZED, {"DEBUG C_DeriveKey"}};
        return refusal(CKR_CRYPTOKI_NOT_INITIALIZED, name, name + ": not initialized");
    }
};

INSTANTIATE_TEST_SUITE_P(All, EntryPointTest, testing::ValuesIn(entryPoints),
                         [](const auto& entry) { return entry.param.name; });

TEST_P(EntryPointTest, LooksAtNoArgumentBeforeInitialize)
{
    const Answer expected = GetParam().supported ? notInitialized() : unsupported();
    EXPECT_EQ(call(ArgumentKind::Zero), expected);
    EXPECT_EQ(call(ArgumentKind::Garbage), expected);
}

TEST_P(EntryPointTest, AnswersAfterInitialize)
{
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(call(ArgumentKind::Zero).code, GetParam().initialized);
    if (!GetParam().supported) {
        EXPECT_EQ(call(ArgumentKind::Garbage), unsupported());
    }
}

/// Those whose first argument is a session handle.
std::vector<EntryPoint> sessionEntryPoints()
{
    std::vector<EntryPoint> entries;
    std::copy_if(std::begin(entryPoints), std::end(entryPoints), std::back_inserter(entries),
                 [](const EntryPoint& entry) { return entry.initialized == CKR_SESSION_HANDLE_INVALID; });
    return entries;
}

using SessionEntryPointTest = EntryPointTest;

INSTANTIATE_TEST_SUITE_P(All, SessionEntryPointTest, testing::ValuesIn(sessionEntryPoints()),
                         [](const auto& entry) { return entry.param.name; });

TEST_P(SessionEntryPointTest, RefusesAnUnknownSessionBeforeItLooksAtOtherArguments)
{
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    const std::string name = GetParam().name;
    if (name == "C_DeriveKey") { // Its first refusals write no line.
        EXPECT_EQ(call(ArgumentKind::Garbage), (Answer{CKR_SESSION_HANDLE_INVALID, {"DEBUG C_DeriveKey"}}));
        return;
    }
    if (name == "C_DestroyObject") { // Says it in words of its own.
        EXPECT_EQ(call(ArgumentKind::Garbage),
                  refusal(CKR_SESSION_HANDLE_INVALID, name, "Delete session state invalid"));
        return;
    }
    EXPECT_EQ(call(ArgumentKind::Zero), refusal(CKR_SESSION_HANDLE_INVALID, name, name + ": invalid hSession=0"));
    EXPECT_EQ(call(ArgumentKind::Garbage), refusal(CKR_SESSION_HANDLE_INVALID, name, name + ": invalid hSession=-1"));
}

TEST(EntryPoints, AreAllInTheTableButThoseOfTheLifecycle)
{
    std::vector<std::string> expected = {
#define EXPORT(name) #name,
#define EXTENSION(name) #name,
#include "frame/exports.inc"
    };
    std::erase_if(expected, [](const std::string& name) {
        return name == "C_Initialize" || name == "C_Finalize" || name == "C_GetFunctionList";
    });
    std::vector<std::string> names;
    for (const EntryPoint& entry : entryPoints)
        names.emplace_back(entry.name);
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
}

} // namespace
