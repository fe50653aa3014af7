#include "strict_steps.h"

#include <string_view>
#include <utility>

namespace
{

// clang-format off
constexpr const char* CALL_TEXTS[] = {
    "C_Initialize", "C_Finalize", "C_OpenSession", "C_CloseSession", "C_CloseAllSessions", "C_GetSessionInfo",
    "C_GetTokenInfo", "C_Login", "C_Logout", "C_SetPIN", "C_DigestInit", "C_Digest", "C_DigestUpdate", "C_DigestFinal",
    "search for the token's key", "C_SignInit", "C_Sign", "C_SignUpdate", "C_SignFinal", "C_CreateObject",
    "C_DestroyObject", "C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal",
    "C_GenerateRandom"};
// clang-format on

} // namespace

std::string described(const StrictStep& step)
{
    std::string text = CALL_TEXTS[static_cast<std::size_t>(step.call)];
    text += " session " + std::to_string(step.session) + " object " + std::to_string(step.object) + " slot " +
            std::to_string(step.slot) + " number " + std::to_string(step.number);
    text += step.room == StrictStep::NO_ROOM ? " no room" : " room " + std::to_string(step.room);
    return text + " \"" + step.text + "\" \"" + step.more + "\"";
}

StrictStep StrictStepMaker::step(StrictCall call)
{
    static constexpr std::size_t ROOMS[] = {StrictStep::NO_ROOM, 0, 1, 31, 32, 63, 64, 300, 300, 300, 300};
    static constexpr std::string_view TEXTS[] = {"", "a", "some data", "data of another length"};
    StrictStep made;
    made.call = call;
    made.session = inPercent(90) ? session_ : below(6);
    made.object = below(6);
    made.slot = inPercent(70) ? 0 : below(3);
    made.room = oneOf(ROOMS);
    made.text = oneOf(TEXTS);
    return made;
}

void StrictStepMaker::addDigest()
{
    static constexpr StrictCall CALLS[] = {StrictCall::Digest, StrictCall::DigestUpdate, StrictCall::DigestFinal};
    static constexpr CK_MECHANISM_TYPE TYPES[] = {CKM_SHA_1, CKM_SHA256, CKM_SHA256, CKM_SHA512, CKM_MD5};
    StrictStep init = step(StrictCall::DigestInit);
    init.number = oneOf(TYPES);
    steps_.push_back(init);
    for (std::size_t calls = 1 + below(4); calls > 0; --calls)
        steps_.push_back(step(oneOf(CALLS)));
}

void StrictStepMaker::addSignature()
{
    static constexpr StrictCall CALLS[] = {StrictCall::Sign, StrictCall::SignUpdate, StrictCall::SignFinal};
    if (inPercent(60))
        steps_.push_back(step(StrictCall::FindKey));
    steps_.push_back(step(StrictCall::SignInit));
    for (std::size_t calls = 1 + below(4); calls > 0; --calls)
        steps_.push_back(step(oneOf(CALLS)));
}

void StrictStepMaker::addRestart()
{
    for (const StrictCall call : {StrictCall::Finalize, StrictCall::SessionInfo, StrictCall::Initialize,
                                  StrictCall::SessionInfo, StrictCall::OpenSession}) {
        steps_.push_back(step(call));
        steps_.back().number = CKF_SERIAL_SESSION | CKF_RW_SESSION;
    }
}

void StrictStepMaker::addSearch()
{
    steps_.push_back(step(StrictCall::FindInit));
    for (std::size_t calls = below(3); calls > 0; --calls) {
        StrictStep find = step(StrictCall::Find);
        find.number = static_cast<CK_ULONG>(below(4));
        steps_.push_back(find);
    }
    if (inPercent(85))
        steps_.push_back(step(StrictCall::FindFinal));
}

std::vector<StrictStep> StrictStepMaker::run(std::size_t length)
{
    static constexpr StrictCall SINGLE[] = {
        StrictCall::OpenSession, StrictCall::OpenSession,      StrictCall::OpenSession, StrictCall::CloseSession,
        StrictCall::SessionInfo, StrictCall::SessionInfo,      StrictCall::TokenInfo,   StrictCall::Login,
        StrictCall::Login,       StrictCall::Logout,           StrictCall::SetPin,      StrictCall::Create,
        StrictCall::Create,      StrictCall::Destroy,          StrictCall::ReadValue,   StrictCall::ReadValue,
        StrictCall::Random,      StrictCall::CloseAllSessions, StrictCall::Initialize};
    static constexpr CK_ULONG FLAGS[] = {0x6, 0x6, 0x6, 0x4, 0x2};
    static constexpr CK_USER_TYPE USERS[] = {CKU_USER, CKU_USER, CKU_USER, CKU_SO, CKU_CONTEXT_SPECIFIC, 77};
    static constexpr std::string_view PINS[] = {"1234", "1234", "1234", "12345678", "4321", "123", "87654321"};
    steps_.clear();
    if (inPercent(97))
        steps_.push_back(step(StrictCall::Initialize));
    while (steps_.size() < length) {
        session_ = below(5);
        if (inPercent(1))
            addRestart();
        const std::size_t kind = below(10);
        if (kind == 0) {
            addDigest();
        } else if (kind <= 2) {
            addSignature();
        } else if (kind == 3) {
            addSearch();
        } else {
            StrictStep single = step(oneOf(SINGLE));
            single.number = oneOf(FLAGS);
            if (single.call == StrictCall::Login || single.call == StrictCall::SetPin) {
                single.number = oneOf(USERS);
                single.text = single.number == CKU_SO && inPercent(80) ? "12345678" : oneOf(PINS);
                single.more = oneOf(PINS);
            }
            if (single.call == StrictCall::Create)
                single.number = static_cast<CK_ULONG>(below(2));
            steps_.push_back(single);
        }
    }
    return std::exchange(steps_, {});
}
