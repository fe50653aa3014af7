// Lifecycle, slots, mechanisms, sessions and login.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "model.h"

namespace
{

constexpr CK_SLOT_ID FIRST_MODEL_SLOT = 0x50000001;
constexpr CK_SESSION_HANDLE FIRST_MODEL_SESSION = 0x60000001;

struct ModelMechanismRow {
    CK_MECHANISM_TYPE type;
    CK_ULONG smallest;
    CK_ULONG largest;
    CK_FLAGS flags;
};

constexpr CK_FLAGS SIGN_VERIFY = CKF_SIGN | CKF_VERIFY;
constexpr ModelMechanismRow MECHANISM_ROWS[] = {
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 1024, 4096, CKF_GENERATE_KEY_PAIR},
    {CKM_RSA_PKCS, 1024, 4096, CKF_ENCRYPT | CKF_DECRYPT | SIGN_VERIFY},
    {CKM_RSA_PKCS_OAEP, 1024, 4096, CKF_ENCRYPT | CKF_DECRYPT},
    {CKM_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA1_RSA_PKCS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA224_RSA_PKCS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA256_RSA_PKCS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA384_RSA_PKCS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA512_RSA_PKCS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA1_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA224_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA256_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA384_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_SHA512_RSA_PKCS_PSS, 1024, 4096, SIGN_VERIFY},
    {CKM_EC_KEY_PAIR_GEN, 256, 521, CKF_GENERATE_KEY_PAIR},
    {CKM_ECDH1_DERIVE, 256, 521, CKF_DERIVE},
    {CKM_ECDSA, 256, 521, SIGN_VERIFY},
    {CKM_ECDSA_SHA1, 256, 521, SIGN_VERIFY},
    {CKM_ECDSA_SHA224, 256, 521, SIGN_VERIFY},
    {CKM_ECDSA_SHA256, 256, 521, SIGN_VERIFY},
    {CKM_ECDSA_SHA384, 256, 521, SIGN_VERIFY},
    {CKM_SHA_1, 0, 0, CKF_DIGEST},
    {CKM_SHA224, 0, 0, CKF_DIGEST},
    {CKM_SHA256, 0, 0, CKF_DIGEST},
    {CKM_SHA384, 0, 0, CKF_DIGEST},
    {CKM_SHA512, 0, 0, CKF_DIGEST},
};

bool isSha1Signing(CK_MECHANISM_TYPE type)
{
    return type == CKM_SHA1_RSA_PKCS || type == CKM_SHA1_RSA_PKCS_PSS || type == CKM_ECDSA_SHA1;
}

bool isPinLength(CK_ULONG length)
{
    return length >= 4 && length <= 63;
}

/// The text, cut, and zeros behind it.
template <typename Field>
void fillField(Field& field, const std::string& text, std::size_t longest)
{
    std::memset(field, 0, sizeof field);
    std::memcpy(field, text.data(), std::min({text.size(), longest, sizeof field}));
}

CK_VERSION twoNumbers(const std::string& version)
{
    std::vector<long> numbers = versionNumbers(version);
    numbers.resize(std::max<std::size_t>(numbers.size(), 2));
    return {static_cast<CK_BYTE>(numbers[0]), static_cast<CK_BYTE>(numbers[1])};
}

CK_FLAGS pinFlags(const TokenInfo& token)
{
    CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    if (token.pinChanged != 1)
        flags |= CKF_USER_PIN_TO_BE_CHANGED;
    if (token.pinTriesLeft == 0)
        flags |= CKF_USER_PIN_LOCKED;
    if (token.pinTriesLeft == 1)
        flags |= CKF_USER_PIN_FINAL_TRY;
    if (token.pinTriesLeft == 2)
        flags |= CKF_USER_PIN_COUNT_LOW;
    return flags;
}

std::string textOf(CK_UTF8CHAR_PTR bytes, CK_ULONG length)
{
    return {reinterpret_cast<const char*>(bytes), length};
}

} // namespace

std::vector<long> versionNumbers(const std::string& version)
{
    std::vector<long> numbers;
    for (std::size_t begin = 0; begin < version.size();) {
        const std::size_t end = std::min(version.find('.', begin), version.size());
        numbers.push_back(std::strtol(version.substr(begin, end - begin).c_str(), nullptr, 10));
        begin = end + 1;
    }
    return numbers;
}

// ---- Log and entry ----

void Model::debug(const std::string& text)
{
    if (logLevel_ == 3)
        lines_.push_back("DEBUG " + text);
}

void Model::monitorDebug(const std::string& text)
{
    if (logLevel_ == 3)
        monitorLines_.push_back("DEBUG " + text);
}

void Model::error(const std::string& text)
{
    if (logLevel_ >= 2)
        lines_.push_back("ERROR " + text);
}

CK_RV Model::refuse(CK_RV code, const std::string& text)
{
    if (!thrown_.empty()) {
        error(name_ + ": unexpected exception: " + std::exchange(thrown_, {}));
        return CKR_GENERAL_ERROR;
    }
    error(text);
    return code;
}

/// False when the call ends with `code_`.
bool Model::enter(const std::string& name)
{
    debug(name);
    name_ = name;
    if (library_ == nullptr)
        code_ = refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name + ": not initialized");
    return library_ != nullptr;
}

/// Null when the call ends with `code_`.
ModelSession* Model::enter(const std::string& name, CK_SESSION_HANDLE hSession)
{
    if (!enter(name))
        return nullptr;
    const auto found = sessions_.find(hSession);
    if (found != sessions_.end())
        return &found->second;
    code_ = refuse(CKR_SESSION_HANDLE_INVALID, name + ": invalid hSession=" + decimal(hSession));
    return nullptr;
}

CK_RV Model::unsupported(const char* name)
{
    debug(name);
    return CKR_FUNCTION_NOT_SUPPORTED;
}

// ---- Lifecycle ----

CK_RV Model::C_Initialize(CK_VOID_PTR /*pInitArgs*/)
{
    debug("C_Initialize");
    if (library_ != nullptr)
        return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize: already initialized");
    device_.velkor_createInstance(&library_);
    if (monitorRuns_) {
        debug("Monitor already running. Stopping old thread.");
        stopMonitor();
    }
    monitorRuns_ = true;
    devicesSeen_ = 0;
    monitorDebug("Session monitor thread started.");
    monitorCycle();
    if (library_ == nullptr)
        error("Init pkcs11 library failed failed");
    return CKR_OK;
}

void Model::stopMonitor()
{
    monitorDebug("Session monitor thread stopped.");
    monitorRuns_ = false;
    debug("Monitor thread joined (stopDeviceMonitor).");
}

void Model::monitorCycle()
{
    const std::vector<std::string> names = device_.connected();
    for (auto& [handle, session] : sessions_) {
        const bool isThere = std::find(names.begin(), names.end(), session.token.serialNumber) != names.end();
        if (isThere || !session.isUser())
            continue;
        monitorDebug("Device disconnected, clearing userPassword");
        pin_.clear();
        session.state = session.isReadOnly() ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION;
    }
    if (names.size() == devicesSeen_)
        return;
    monitorDebug("Slot event: device count changed from " + std::to_string(devicesSeen_) + " to " +
                 std::to_string(names.size()));
    eventPending_ = true;
    devicesSeen_ = names.size();
}

CK_RV Model::C_Finalize(CK_VOID_PTR /*pReserved*/)
{
    if (!enter("C_Finalize"))
        return code_;
    stopMonitor();
    device_.velkor_releaseInstance(library_);
    library_ = nullptr;
    slots_.clear();
    sessions_.clear();
    pin_.clear();
    debug("C_Finalize completed successfully.");
    return CKR_OK;
}

CK_RV Model::C_GetInfo(CK_INFO_PTR pInfo)
{
    if (!enter("C_GetInfo"))
        return code_;
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetInfo: pInfo is NULL");
    pInfo->cryptokiVersion = {2, 20};
    std::memcpy(pInfo->manufacturerID, "Brenmoor", sizeof "Brenmoor"); // What is behind the zero stays.
    pInfo->flags = 0;
    std::memcpy(pInfo->libraryDescription, "Velkor PKCS11 Library", sizeof "Velkor PKCS11 Library");
    pInfo->libraryVersion = {VERSION_MAJOR, VERSION_MINOR};
    return CKR_OK;
}

CK_RV Model::C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    static CK_FUNCTION_LIST stands; // For the module's table.
    debug("C_GetFunctionList");
    if (ppFunctionList == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetFunctionList: ppFunctionList is NULL");
    *ppFunctionList = &stands;
    return CKR_OK;
}

// ---- Slots and tokens ----

const TokenInfo* Model::slot(CK_SLOT_ID slotID) const
{
    if (slotID < FIRST_MODEL_SLOT || slotID - FIRST_MODEL_SLOT >= slots_.size())
        return nullptr;
    return &std::next(slots_.begin(), static_cast<std::ptrdiff_t>(slotID - FIRST_MODEL_SLOT))->second;
}

CK_RV Model::C_GetSlotList(CK_BBOOL /*tokenPresent*/, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    if (!enter("C_GetSlotList"))
        return code_;
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL");
    const std::vector<std::string> names = device_.velkor_getConnectedDeviceList(false, library_);
    const auto count = static_cast<CK_ULONG>(names.size());
    if (count == 0) {
        slots_.clear();
        error("No valid token found");
    }
    if (pSlotList == nullptr) {
        *pulCount = count;
        return CKR_OK;
    }
    if (count > *pulCount)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetSlotList: buffer too small, *pulCount=" + decimal(*pulCount) +
                                                " slotCount=" + decimal(count));
    slots_.clear();
    CK_ULONG usable = 0;
    for (const std::string& name : names) {
        const TokenInfo token = device_.velkor_getTokenInfo(name.c_str(), library_);
        if (token.serialNumber.empty())
            continue;
        pSlotList[usable] = FIRST_MODEL_SLOT + usable;
        slots_.insert_or_assign(name, token);
        ++usable;
    }
    *pulCount = usable;
    return CKR_OK;
}

CK_RV Model::C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    if (!enter("C_GetSlotInfo"))
        return code_;
    const TokenInfo* token = slot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_GetSlotInfo: invalid slotID=" + decimal(slotID));
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotInfo: pInfo is NULL");
    fillField(pInfo->slotDescription, token->label, 63);
    fillField(pInfo->manufacturerID, "Brenmoor", 32);
    pInfo->flags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = twoNumbers(token->firmwareVersion);
    return CKR_OK;
}

CK_ULONG Model::sessionsInState(CK_STATE state) const
{
    return static_cast<CK_ULONG>(std::count_if(sessions_.begin(), sessions_.end(),
                                               [&](const auto& each) { return each.second.state == state; }));
}

CK_RV Model::C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    if (!enter("C_GetTokenInfo"))
        return code_;
    const TokenInfo* token = slot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_GetTokenInfo: invalid slotID=" + decimal(slotID));
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetTokenInfo: pInfo is NULL");
    fillField(pInfo->label, token->label, token->label.size() <= 32 ? 30 : 32);
    fillField(pInfo->manufacturerID, "Brenmoor", 32);
    fillField(pInfo->model, token->model, 15);
    fillField(pInfo->serialNumber, token->serialNumber, 16);
    pInfo->flags = pinFlags(*token);
    pInfo->ulMaxSessionCount = 0;
    pInfo->ulSessionCount = sessionsInState(CKS_RO_PUBLIC_SESSION);
    pInfo->ulMaxRwSessionCount = 0;
    pInfo->ulRwSessionCount = sessionsInState(CKS_RW_PUBLIC_SESSION);
    pInfo->ulMaxPinLen = 63;
    pInfo->ulMinPinLen = 4;
    pInfo->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = twoNumbers(token->firmwareVersion);
    std::memset(pInfo->utcTime, ' ', sizeof pInfo->utcTime);
    debug("C_GetTokenInfo -- exit");
    return CKR_OK;
}

CK_RV Model::C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR /*pReserved*/)
{
    if (!enter("C_WaitForSlotEvent"))
        return code_;
    if (pSlot == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL");
    const bool blocks = (flags & CKF_DONT_BLOCK) == 0;
    if (!eventPending_)
        return refuse(CKR_NO_EVENT, "C_WaitForSlotEvent: no event pending (non-blocking)");
    eventPending_ = false;
    *pSlot = FIRST_MODEL_SLOT;
    debug(std::string("C_WaitForSlotEvent: ") + (blocks ? "blocking" : "non-blocking") + ", returning slot " +
          decimal(FIRST_MODEL_SLOT));
    return CKR_OK;
}

// ---- Mechanisms ----

CK_RV Model::C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount)
{
    if (!enter("C_GetMechanismList"))
        return code_;
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismList: pulCount is NULL");
    const TokenInfo* token = slot(slotID);
    std::vector<CK_MECHANISM_TYPE> types;
    for (const ModelMechanismRow& row : MECHANISM_ROWS) {
        if (token == nullptr || !countsAsFips(token->model) || !isSha1Signing(row.type))
            types.push_back(row.type);
    }
    const auto count = static_cast<CK_ULONG>(types.size());
    if (pMechanismList != nullptr && count > *pulCount)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList: buffer too small, *pulCount=" + decimal(*pulCount) +
                                                " mechanismCount=" + decimal(count));
    if (pMechanismList != nullptr)
        std::copy(types.begin(), types.end(), pMechanismList);
    *pulCount = count;
    return CKR_OK;
}

CK_RV Model::C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    if (!enter("C_GetMechanismInfo"))
        return code_;
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo: pInfo is NULL");
    debug("C_GetMechanismInfo -- type : " + decimal(type));
    const auto* row = std::find_if(std::begin(MECHANISM_ROWS), std::end(MECHANISM_ROWS),
                                   [&](const ModelMechanismRow& each) { return each.type == type; });
    if (row == std::end(MECHANISM_ROWS))
        return refuse(CKR_MECHANISM_INVALID, "C_GetMechanismInfo: unsupported mechanism type=" + decimal(type));
    *pInfo = {row->smallest, row->largest, row->flags};
    if (const TokenInfo* token = slot(slotID); token != nullptr) {
        if (countsAsFips(token->model) && isSha1Signing(type))
            pInfo->flags &= ~CKF_SIGN;
        if ((pInfo->flags & (CKF_SIGN | CKF_GENERATE_KEY_PAIR)) != 0 && pInfo->ulMinKeySize == 1024)
            pInfo->ulMinKeySize = 2048;
    }
    debug("C_GetMechanismInfo -- exit");
    return CKR_OK;
}

// ---- Sessions ----

CK_RV Model::C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR /*pApplication*/, CK_NOTIFY /*Notify*/,
                           CK_SESSION_HANDLE_PTR phSession)
{
    if (!enter("C_OpenSession"))
        return code_;
    const TokenInfo* token = slot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_OpenSession: invalid slotID=" + decimal(slotID));
    if ((flags & CKF_SERIAL_SESSION) == 0)
        return refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED,
                      "C_OpenSession: CKF_SERIAL_SESSION not set, flags=" + decimal(flags));
    if (phSession == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_OpenSession: phSession is NULL");
    const bool writes = (flags & CKF_RW_SESSION) != 0;
    const CK_SESSION_HANDLE handle = sessions_.empty() ? FIRST_MODEL_SESSION : sessions_.rbegin()->first + 1;
    ModelSession& session = sessions_[handle];
    session.slot = slotID;
    session.token = *token;
    session.state = writes ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    if (!pin_.empty())
        session.state = writes ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    *phSession = handle;
    debug("Opensession  : " + decimal(handle));
    return CKR_OK;
}

CK_RV Model::C_CloseSession(CK_SESSION_HANDLE hSession)
{
    if (enter("C_CloseSession", hSession) == nullptr)
        return code_;
    sessions_.erase(hSession);
    return CKR_OK;
}

CK_RV Model::C_CloseAllSessions(CK_SLOT_ID slotID)
{
    if (!enter("C_CloseAllSessions"))
        return code_;
    if (slot(slotID) == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_CloseAllSessions: invalid slotID=" + decimal(slotID));
    sessions_.clear(); // Those of every slot.
    debug("Close all session");
    return CKR_OK;
}

CK_RV Model::C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    const ModelSession* session = enter("C_GetSessionInfo", hSession);
    if (session == nullptr)
        return code_;
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSessionInfo: pInfo is NULL");
    const CK_FLAGS flags = session->isReadOnly() ? CKF_SERIAL_SESSION : CKF_SERIAL_SESSION | CKF_RW_SESSION;
    *pInfo = {session->slot, session->state, flags, 0};
    return CKR_OK;
}

// ---- Login ----

CK_RV Model::checkPin(const ModelSession& session, const std::string& pin, int userType)
{
    int triesLeft = 0;
    const int status = attempt(
        [&] { return device_.velkor_validatePassword(session.device(), pin.c_str(), userType, &triesLeft, library_); });
    if (status == 0)
        return CKR_OK;
    if (!thrown_.empty())
        return refuse(CKR_GENERAL_ERROR, {});
    error("Token password validation failed : " + std::to_string(status));
    if (status == STATUS_CHECK_NOT_POSSIBLE)
        return CKR_FUNCTION_FAILED;
    error("Token password validation failed, retry count : " + std::to_string(triesLeft));
    return triesLeft != 0 ? CKR_PIN_INCORRECT : CKR_PIN_LOCKED;
}

/// The result that is set last counts.
CK_RV Model::raiseStates(const std::string& device, CK_USER_TYPE userType)
{
    CK_RV result = CKR_OK;
    for (auto& [handle, session] : sessions_) {
        if (session.token.serialNumber != device)
            continue;
        if (session.state == CKS_RW_SO_FUNCTIONS) {
            result = userType == CKU_USER ? refuse(CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
                                                   "C_Login: SO already logged in on another session")
                                          : CKR_USER_ALREADY_LOGGED_IN;
        } else if (userType == CKU_USER) {
            session.state = session.isReadOnly() ? CKS_RO_USER_FUNCTIONS : CKS_RW_USER_FUNCTIONS;
        } else if (session.isReadOnly()) {
            result = refuse(CKR_SESSION_READ_ONLY_EXISTS, "C_Login: read-only session exists, cannot log in as SO");
        } else {
            session.state = CKS_RW_SO_FUNCTIONS;
        }
    }
    return result;
}

CK_RV Model::C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    const ModelSession* session = enter("C_Login", hSession);
    if (session == nullptr)
        return code_;
    if (userType != CKU_USER && userType != CKU_SO)
        return refuse(CKR_USER_TYPE_INVALID, "C_Login: unsupported userType=" + decimal(userType));
    if (userType == CKU_USER && session->isUser()) {
        debug("C_Login: User already logged in");
        return CKR_USER_ALREADY_LOGGED_IN;
    }
    if (pPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Login: pPin is NULL");
    if (!isPinLength(ulPinLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_Login: pin length out of range, ulPinLen=" + decimal(ulPinLen));
    const std::string pin = textOf(pPin, ulPinLen);
    const bool isCached = userType == CKU_USER && pin_ == pin;
    if (!isCached) {
        const int kind = userType == CKU_USER ? USER_TYPE_USER : USER_TYPE_SECURITY_OFFICER;
        if (const CK_RV code = checkPin(*session, pin, kind); code != CKR_OK)
            return code;
    }
    if (userType == CKU_USER)
        pin_ = pin;
    debug("Login state : " + decimal(session->state));
    const CK_RV result = raiseStates(session->token.serialNumber, userType);
    debug("Login end result : " + decimal(result));
    return result;
}

CK_RV Model::C_Logout(CK_SESSION_HANDLE hSession)
{
    const ModelSession* session = enter("C_Logout", hSession);
    if (session == nullptr)
        return code_;
    if (session->state == CKS_RO_PUBLIC_SESSION || session->state == CKS_RW_PUBLIC_SESSION)
        return refuse(CKR_USER_NOT_LOGGED_IN, "C_Logout: user not logged in, session state=" + decimal(session->state));
    for (auto& [handle, each] : sessions_) {
        if (each.token.serialNumber == session->token.serialNumber)
            each.state = each.isReadOnly() ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION;
    }
    pin_.clear();
    debug("C_Logout end");
    return CKR_OK;
}

CK_RV Model::C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
                      CK_ULONG ulNewLen)
{
    const ModelSession* session = enter("C_SetPIN", hSession);
    if (session == nullptr)
        return code_;
    if (session->isReadOnly())
        return refuse(CKR_SESSION_READ_ONLY, "C_SetPIN: session is read-only, state=" + decimal(session->state));
    if (pOldPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pOldPin is NULL");
    if (!isPinLength(ulOldLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: old pin length out of range, ulOldLen=" + decimal(ulOldLen));
    if (pNewPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pNewPin is NULL");
    if (!isPinLength(ulNewLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: new pin length out of range, ulNewLen=" + decimal(ulNewLen));
    const std::string newPin = textOf(pNewPin, ulNewLen);
    int failures = 0;
    if (!attempt([&] {
            return device_.velkor_changeUserPassword(session->device(), textOf(pOldPin, ulOldLen).c_str(),
                                                     newPin.c_str(), &failures, false, false, library_);
        }))
        return refuse(CKR_FUNCTION_FAILED,
                      "C_SetPIN: velkor_changeUserPassword failed, failureCount=" + std::to_string(failures));
    if (!pin_.empty())
        pin_ = newPin;
    return CKR_OK;
}
