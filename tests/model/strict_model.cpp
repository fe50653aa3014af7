#include "strict_model.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <thread>

#include "device_double.h"
#include "sleeps.h"
#include "test_system.h"

namespace
{

constexpr CK_SLOT_ID NO_SLOT = 9999;
constexpr unsigned char UNTOUCHED_BYTE = 0xEE;
const std::string OBJECT_LABEL = "model";
constexpr std::chrono::milliseconds MONITOR_PERIOD{1000}; ///< Of the module, which ends no sooner,
constexpr std::chrono::milliseconds SHORT_PERIOD{10};     ///< and what it becomes here.

CK_BYTE_PTR bytesOf(const std::string& text)
{
    return reinterpret_cast<CK_BYTE_PTR>(const_cast<char*>(text.data()));
}

CK_ULONG sizeOf(const std::string& text)
{
    return static_cast<CK_ULONG>(text.size());
}

/// Room for an answer. More than a caller says, so that what is written behind it can be seen.
class Room
{
public:
    explicit Room(std::size_t told)
        : length(told == StrictStep::NO_ROOM ? 0 : static_cast<CK_ULONG>(told)), isNull_(told == StrictStep::NO_ROOM)
    {
    }

    CK_BYTE_PTR data() { return isNull_ ? nullptr : bytes_.data(); }
    bool takes(std::size_t size) const { return !isNull_ && told_ >= size; }
    bool isNull() const { return isNull_; }
    std::string text(std::size_t size) const
    {
        return {bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size)};
    }

    /// Whether something was written from this byte on.
    bool isWrittenFrom(std::size_t at) const
    {
        return std::any_of(bytes_.begin() + static_cast<std::ptrdiff_t>(at), bytes_.end(),
                           [](unsigned char byte) { return byte != UNTOUCHED_BYTE; });
    }

    CK_ULONG length;

private:
    bool isNull_;
    CK_ULONG told_ = length;
    std::vector<unsigned char> bytes_ = std::vector<unsigned char>(1024, UNTOUCHED_BYTE);
};

std::string inHexadecimal(CK_RV code)
{
    std::ostringstream text;
    text << "0x" << std::hex << code;
    return text.str();
}

std::string differs(const std::string& what, CK_ULONG of, CK_ULONG wanted)
{
    if (of == wanted)
        return {};
    return "  " + what + " is " + std::to_string(of) + " instead of " + std::to_string(wanted) + "\n";
}

} // namespace

StrictWorld::StrictWorld(const std::filesystem::path& folder)
{
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    test_system::setTemporaryFolder(folder);
    test_system::LogLevel(folder).set("0");
    test_system::takeOverSleeps([](std::chrono::milliseconds time) {
        if (time < MONITOR_PERIOD)
            return false;
        std::this_thread::sleep_for(SHORT_PERIOD);
        return true;
    });
    setDeviceOperations(device_);
    tokens_[0].device = FIRST_DEVICE;
    tokens_[1].device = SECOND_DEVICE;
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(test_system::moduleSymbol(STRICT_FILE, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    getList(&list);
    front_ = list;
}

std::string StrictWorld::step(const StrictStep& step)
{
    using Handler = std::string (StrictWorld::*)(const StrictStep&);
    static const std::map<StrictCall, Handler> handlers = {
        {StrictCall::OpenSession, &StrictWorld::openSession},
        {StrictCall::CloseSession, &StrictWorld::closeSession},
        {StrictCall::CloseAllSessions, &StrictWorld::closeAllSessions},
        {StrictCall::SessionInfo, &StrictWorld::sessionInfo},
        {StrictCall::TokenInfo, &StrictWorld::tokenInfo},
        {StrictCall::Login, &StrictWorld::login},
        {StrictCall::Logout, &StrictWorld::logout},
        {StrictCall::SetPin, &StrictWorld::setPin},
        {StrictCall::DigestInit, &StrictWorld::digestInit},
        {StrictCall::FindKey, &StrictWorld::findKey},
        {StrictCall::SignInit, &StrictWorld::signInit},
        {StrictCall::Create, &StrictWorld::create},
        {StrictCall::Destroy, &StrictWorld::destroy},
        {StrictCall::ReadValue, &StrictWorld::readValue},
        {StrictCall::FindInit, &StrictWorld::findInit},
        {StrictCall::Find, &StrictWorld::find},
        {StrictCall::FindFinal, &StrictWorld::findFinal},
        {StrictCall::Random, &StrictWorld::random}};
    for (const Token& token : tokens_) {
        if (device_->triesLeft(token.device) == 0)
            device_->setTriesLeft(token.device, 10); // As if somebody had unlocked it.
    }
    switch (step.call) {
    case StrictCall::Initialize:
        return initialize();
    case StrictCall::Finalize:
        return finalize();
    case StrictCall::Digest:
        return whole(step, &Session::digest, front_->C_Digest);
    case StrictCall::DigestUpdate:
        return update(step, &Session::digest, front_->C_DigestUpdate);
    case StrictCall::DigestFinal:
        return finish(step, &Session::digest, front_->C_DigestFinal);
    case StrictCall::Sign:
        return whole(step, &Session::signature, front_->C_Sign);
    case StrictCall::SignUpdate:
        return update(step, &Session::signature, front_->C_SignUpdate);
    case StrictCall::SignFinal:
        return finish(step, &Session::signature, front_->C_SignFinal);
    default:
        return (this->*handlers.at(step.call))(step);
    }
}

// ---- What calls have in common ----

std::string StrictWorld::compare(CK_RV code, const Codes& allowed)
{
    if (allowed.count(code) != 0)
        return {};
    std::string text = "  the call answers " + inHexadecimal(code) + " instead of";
    for (const CK_RV each : allowed)
        text += " " + inHexadecimal(each);
    return text + "\n";
}

/// The last sessions, from the last one on.
StrictWorld::Session* StrictWorld::session(const StrictStep& step)
{
    if (sessions_.empty())
        return nullptr;
    return &sessions_[sessions_.size() - 1 - step.session % sessions_.size()];
}

CK_SESSION_HANDLE StrictWorld::handle(const StrictStep& step)
{
    const Session* found = session(step);
    return found != nullptr ? found->handle : NO_SLOT;
}

std::optional<StrictWorld::Codes> StrictWorld::refusal(const StrictStep& step)
{
    if (!isInitialized_)
        return Codes{CKR_CRYPTOKI_NOT_INITIALIZED};
    const Session* found = session(step);
    if (found == nullptr || !found->isOpen)
        return Codes{CKR_SESSION_HANDLE_INVALID};
    return std::nullopt;
}

void StrictWorld::objectsChanged(std::size_t token)
{
    for (Session& each : sessions_) {
        if (each.token == token)
            each.searchIsSure = false;
    }
}

void StrictWorld::endLogin(std::size_t token)
{
    tokens_[token].user.reset();
    for (Object& each : objects_) {
        if (each.token == token && each.isPrivate)
            each.isThere = false;
    }
    objectsChanged(token);
}

void StrictWorld::end(Session& session)
{
    const auto index = static_cast<std::size_t>(
        std::find_if(sessions_.begin(), sessions_.end(), [&](const Session& each) { return &each == &session; }) -
        sessions_.begin());
    const std::size_t token = session.token;
    const CK_SESSION_HANDLE ended = session.handle;
    session = Session();
    session.handle = ended;
    session.token = token;
    for (Object& each : objects_) {
        if (each.owner == index)
            each.isThere = false;
    }
    objectsChanged(token);
    if (std::none_of(sessions_.begin(), sessions_.end(),
                     [&](const Session& each) { return each.isOpen && each.token == token; }))
        endLogin(token);
}

// ---- Lifecycle, sessions ----

std::string StrictWorld::initialize()
{
    const CK_RV code = front_->C_Initialize(nullptr);
    const std::string difference = compare(code, {isInitialized_ ? CKR_CRYPTOKI_ALREADY_INITIALIZED : CKR_OK});
    if (code != CKR_OK)
        return difference;
    isInitialized_ = true;
    slots_.resize(8);
    auto count = static_cast<CK_ULONG>(slots_.size());
    const std::string listed = compare(front_->C_GetSlotList(CK_TRUE, slots_.data(), &count), {CKR_OK});
    slots_.resize(2);
    return difference + listed + differs("the number of slots", count, 2);
}

std::string StrictWorld::finalize()
{
    const CK_RV code = front_->C_Finalize(nullptr);
    const std::string difference = compare(code, {isInitialized_ ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED});
    isInitialized_ = false;
    for (Session& each : sessions_)
        end(each);
    for (Token& each : tokens_)
        each.keyLogin = NO_LOGIN;
    return difference;
}

std::string StrictWorld::openSession(const StrictStep& step)
{
    const bool isSlot = step.slot < slots_.size();
    const bool writes = (step.number & CKF_RW_SESSION) != 0;
    Codes allowed;
    if (!isInitialized_)
        allowed = {CKR_CRYPTOKI_NOT_INITIALIZED};
    if (isInitialized_ && !isSlot)
        allowed.insert(CKR_SLOT_ID_INVALID);
    if (isInitialized_ && (step.number & CKF_SERIAL_SESSION) == 0)
        allowed.insert(CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    if (isInitialized_ && isSlot && !writes && tokens_[step.slot].user == CK_USER_TYPE{CKU_SO})
        allowed.insert(CKR_SESSION_READ_WRITE_SO_EXISTS);
    const bool isGood = allowed.empty();
    if (isGood)
        allowed = {CKR_OK};
    CK_SESSION_HANDLE opened = 0;
    const CK_RV code =
        front_->C_OpenSession(isSlot ? slots_[step.slot] : NO_SLOT, step.number, nullptr, nullptr, &opened);
    std::string difference = compare(code, allowed);
    if (code != CKR_OK || !isGood)
        return difference;
    for (const Session& each : sessions_) {
        if (each.handle == opened)
            difference += "  the handle was a session's before\n";
    }
    Session made;
    made.handle = opened;
    made.token = step.slot;
    made.writes = writes;
    made.isOpen = true;
    sessions_.push_back(made);
    return difference;
}

std::string StrictWorld::closeSession(const StrictStep& step)
{
    const Codes allowed = refusal(step).value_or(Codes{CKR_OK});
    const CK_RV code = front_->C_CloseSession(handle(step));
    if (code == CKR_OK && allowed.count(CKR_OK) != 0)
        end(*session(step));
    return compare(code, allowed);
}

std::string StrictWorld::closeAllSessions(const StrictStep& step)
{
    const bool isSlot = step.slot < slots_.size();
    const CK_RV code = front_->C_CloseAllSessions(isSlot ? slots_[step.slot] : NO_SLOT);
    if (!isInitialized_)
        return compare(code, {CKR_CRYPTOKI_NOT_INITIALIZED});
    for (Session& each : sessions_) {
        if (isSlot && each.isOpen && each.token == step.slot)
            end(each);
    }
    return compare(code, {isSlot ? CKR_OK : CKR_SLOT_ID_INVALID});
}

std::string StrictWorld::sessionInfo(const StrictStep& step)
{
    CK_SESSION_INFO info{};
    const CK_RV code = front_->C_GetSessionInfo(handle(step), &info);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    const Session& asked = *session(step);
    const std::optional<CK_USER_TYPE> user = tokens_[asked.token].user;
    CK_STATE state = asked.writes ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    if (user == CK_USER_TYPE{CKU_USER})
        state = asked.writes ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    if (user == CK_USER_TYPE{CKU_SO})
        state = CKS_RW_SO_FUNCTIONS;
    const CK_FLAGS flags = asked.writes ? CKF_SERIAL_SESSION | CKF_RW_SESSION : CKF_SERIAL_SESSION;
    return compare(code, {CKR_OK}) + differs("the state", info.state, state) + differs("flags", info.flags, flags) +
           differs("the slot", info.slotID, slots_[asked.token]);
}

std::string StrictWorld::tokenInfo(const StrictStep& step)
{
    const bool isSlot = step.slot < slots_.size();
    CK_TOKEN_INFO info{};
    const CK_RV code = front_->C_GetTokenInfo(isSlot ? slots_[step.slot] : NO_SLOT, &info);
    if (!isInitialized_)
        return compare(code, {CKR_CRYPTOKI_NOT_INITIALIZED});
    if (!isSlot)
        return compare(code, {CKR_SLOT_ID_INVALID});
    CK_ULONG sessions = 0;
    CK_ULONG writers = 0;
    for (const Session& each : sessions_) {
        const bool counts = each.isOpen && each.token == step.slot;
        sessions += counts ? 1 : 0;
        writers += counts && each.writes ? 1 : 0;
    }
    return compare(code, {CKR_OK}) + differs("the number of sessions", info.ulSessionCount, sessions) +
           differs("the number of read/write sessions", info.ulRwSessionCount, writers);
}

// ---- Login ----

/// The answer to a wrong PIN of the user, by the tries that are left before it.
CK_RV StrictWorld::wrongPin(std::size_t token) const
{
    return device_->triesLeft(tokens_[token].device) <= 1 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
}

std::string StrictWorld::login(const StrictStep& step)
{
    Codes allowed = {CKR_OK};
    const CK_USER_TYPE user = step.number;
    if (const std::optional<Codes> refused = refusal(step)) {
        allowed = *refused;
    } else {
        const Token& token = tokens_[session(step)->token];
        const bool hasReader = std::any_of(sessions_.begin(), sessions_.end(), [&](const Session& each) {
            return each.isOpen && !each.writes && each.token == session(step)->token;
        });
        if (user == CKU_CONTEXT_SPECIFIC)
            allowed = {CKR_OPERATION_NOT_INITIALIZED, CKR_USER_NOT_LOGGED_IN};
        else if (user != CKU_USER && user != CKU_SO)
            allowed = {CKR_USER_TYPE_INVALID};
        else if (token.user)
            allowed = {*token.user == user ? CKR_USER_ALREADY_LOGGED_IN : CKR_USER_ANOTHER_ALREADY_LOGGED_IN};
        else if (user == CKU_SO && hasReader)
            allowed = {CKR_SESSION_READ_ONLY_EXISTS};
        else if (user == CKU_SO && step.text != "12345678")
            allowed = {CKR_PIN_INCORRECT};
        else if (user == CKU_USER && step.text.size() < 4)
            allowed = {CKR_PIN_INCORRECT};
        else if (user == CKU_USER && step.text != token.pin)
            allowed = {wrongPin(session(step)->token)};
    }
    const CK_RV code = front_->C_Login(handle(step), user, bytesOf(step.text), sizeOf(step.text));
    if (code == CKR_OK && allowed.count(CKR_OK) != 0) {
        Token& token = tokens_[session(step)->token];
        token.user = user;
        ++token.login;
        objectsChanged(session(step)->token);
    }
    return compare(code, allowed);
}

std::string StrictWorld::logout(const StrictStep& step)
{
    Codes allowed = refusal(step).value_or(Codes{CKR_OK});
    if (allowed.count(CKR_OK) != 0 && !tokens_[session(step)->token].user)
        allowed = {CKR_USER_NOT_LOGGED_IN};
    const CK_RV code = front_->C_Logout(handle(step));
    if (code == CKR_OK && allowed.count(CKR_OK) != 0)
        endLogin(session(step)->token);
    return compare(code, allowed);
}

/// Of several reasons against it, any may be told.
std::string StrictWorld::setPin(const StrictStep& step)
{
    Codes allowed;
    if (const std::optional<Codes> refused = refusal(step)) {
        allowed = *refused;
    } else {
        const Token& token = tokens_[session(step)->token];
        if (!session(step)->writes)
            allowed.insert(CKR_SESSION_READ_ONLY);
        if (token.user == CK_USER_TYPE{CKU_SO})
            allowed.insert(CKR_FUNCTION_NOT_SUPPORTED);
        if (step.text.size() < 4 || step.more.size() < 4)
            allowed.insert(CKR_PIN_LEN_RANGE);
        if (allowed.empty())
            allowed = {step.text == token.pin ? CKR_OK : wrongPin(session(step)->token)};
    }
    const CK_RV code =
        front_->C_SetPIN(handle(step), bytesOf(step.text), sizeOf(step.text), bytesOf(step.more), sizeOf(step.more));
    if (code == CKR_OK && allowed.count(CKR_OK) != 0)
        tokens_[session(step)->token].pin = step.more;
    return compare(code, allowed);
}

// ---- Digests and signatures ----

/// What the device makes of data.
std::string StrictWorld::digestOf(const std::string& data, std::size_t size)
{
    std::string digest = data;
    digest.resize(size, static_cast<char>(data.size()));
    return digest;
}

std::string StrictWorld::digestInit(const StrictStep& step)
{
    static const std::map<CK_MECHANISM_TYPE, std::size_t> sizes = {{CKM_SHA_1, 20}, {CKM_SHA256, 32}, {CKM_SHA512, 64}};
    const auto size = sizes.find(step.number);
    Codes allowed = refusal(step).value_or(Codes());
    if (allowed.empty() && session(step)->digest)
        allowed.insert(CKR_OPERATION_ACTIVE);
    if (!refusal(step) && size == sizes.end())
        allowed.insert(CKR_MECHANISM_INVALID);
    const bool isGood = allowed.empty();
    CK_MECHANISM mechanism = {step.number, nullptr, 0};
    const CK_RV code = front_->C_DigestInit(handle(step), &mechanism);
    if (code == CKR_OK && isGood) {
        session(step)->digest = Operation();
        session(step)->digest->size = size->second;
    }
    return compare(code, isGood ? Codes{CKR_OK} : allowed);
}

bool StrictWorld::isLoggedOut(const Session& session, const Operation& operation) const
{
    const Token& token = tokens_[session.token];
    return operation.login != 0 && (!token.user || token.login != operation.login);
}

/// The end of an operation, or a question for its length, which takes no login.
std::string StrictWorld::deliver(const StrictStep& step, Kept kept, const std::string& data,
                                 const std::function<CK_RV(CK_BYTE_PTR, CK_ULONG_PTR)>& call)
{
    std::optional<Operation>& operation = session(step)->*kept;
    const bool isLoginGone = isLoggedOut(*session(step), *operation);
    if (isLoginGone && tokens_[session(step)->token].user)
        return {}; // Another login has come since; the standard leaves open what holds.
    const std::size_t size = operation->size;
    Room room(step.room);
    const bool isTaken = room.takes(size);
    const CK_RV code = call(room.data(), &room.length);
    if (isTaken && isLoginGone) {
        operation.reset();
        return compare(code, {CKR_USER_NOT_LOGGED_IN});
    }
    std::string difference = compare(code, {isTaken || room.isNull() ? CKR_OK : CKR_BUFFER_TOO_SMALL}) +
                             differs("the length", room.length, static_cast<CK_ULONG>(size));
    if (room.isWrittenFrom(isTaken ? size : 0))
        difference += "  something was written where nothing belongs\n";
    if (isTaken && kept == &Session::digest && !data.empty() && room.text(size) != digestOf(data, size))
        difference += "  the digest is another one\n";
    if (isTaken)
        operation.reset();
    return difference;
}

std::string StrictWorld::whole(const StrictStep& step, Kept kept, Whole call)
{
    const auto make = [&](CK_BYTE_PTR out, CK_ULONG_PTR length) {
        return call(handle(step), bytesOf(step.text), sizeOf(step.text), out, length);
    };
    Room room(step.room);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(make(room.data(), &room.length), *refused);
    std::optional<Operation>& operation = session(step)->*kept;
    if (!operation)
        return compare(make(room.data(), &room.length), {CKR_OPERATION_NOT_INITIALIZED});
    if (operation->endIsAsked)
        return {}; // Left open.
    if (operation->hasParts) {
        operation.reset();
        return compare(make(room.data(), &room.length), {CKR_OPERATION_ACTIVE});
    }
    operation->isWhole = true;
    return deliver(step, kept, step.text, make);
}

std::string StrictWorld::update(const StrictStep& step, Kept kept, Update call)
{
    const auto make = [&] { return call(handle(step), bytesOf(step.text), sizeOf(step.text)); };
    if (const std::optional<Codes> refused = refusal(step))
        return compare(make(), *refused);
    std::optional<Operation>& operation = session(step)->*kept;
    if (!operation)
        return compare(make(), {CKR_OPERATION_NOT_INITIALIZED});
    if (operation->endIsAsked || step.text.empty() || isLoggedOut(*session(step), *operation))
        return {}; // Left open.
    if (operation->isWhole) {
        operation.reset();
        return compare(make(), {CKR_OPERATION_ACTIVE});
    }
    operation->hasParts = true;
    operation->gathered += step.text;
    return compare(make(), {CKR_OK});
}

std::string StrictWorld::finish(const StrictStep& step, Kept kept, Final call)
{
    const auto make = [&](CK_BYTE_PTR out, CK_ULONG_PTR length) { return call(handle(step), out, length); };
    Room room(step.room);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(make(room.data(), &room.length), *refused);
    std::optional<Operation>& operation = session(step)->*kept;
    if (!operation)
        return compare(make(room.data(), &room.length), {CKR_OPERATION_NOT_INITIALIZED});
    if (operation->isWhole && isLoggedOut(*session(step), *operation))
        return {}; // Two reasons against it.
    if (operation->isWhole) {
        operation.reset();
        return compare(make(room.data(), &room.length), {CKR_OPERATION_ACTIVE});
    }
    operation->endIsAsked = true;
    const std::string gathered = operation->gathered;
    return deliver(step, kept, gathered, make);
}

/// Looks for the token's private key, as a user who is logged in can.
std::string StrictWorld::findKey(const StrictStep& step)
{
    if (refusal(step) || session(step)->left || tokens_[session(step)->token].user != CK_USER_TYPE{CKU_USER})
        return {};
    Token& token = tokens_[session(step)->token];
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    std::string label = session(step)->token == 0 ? "pair 2" : "other pair";
    CK_ATTRIBUTE criteria[] = {{CKA_CLASS, &privateKey, sizeof privateKey}, {CKA_LABEL, label.data(), sizeOf(label)}};
    CK_OBJECT_HANDLE found[2] = {};
    CK_ULONG count = 0;
    std::string difference = compare(front_->C_FindObjectsInit(handle(step), criteria, 2), {CKR_OK});
    difference += compare(front_->C_FindObjects(handle(step), found, 2, &count), {CKR_OK});
    difference += compare(front_->C_FindObjectsFinal(handle(step)), {CKR_OK});
    token.key = found[0];
    token.keyLogin = token.login;
    return difference + differs("the number of keys", count, 1);
}

std::string StrictWorld::signInit(const StrictStep& step)
{
    if (refusal(step) || tokens_[session(step)->token].key == 0)
        return {};
    const Token& token = tokens_[session(step)->token];
    std::optional<Operation>& operation = session(step)->signature;
    if (operation && isLoggedOut(*session(step), *operation))
        return {}; // Left open.
    Codes allowed;
    if (operation)
        allowed.insert(CKR_OPERATION_ACTIVE);
    if (token.user != CK_USER_TYPE{CKU_USER})
        allowed.insert(CKR_USER_NOT_LOGGED_IN);
    if (token.keyLogin != token.login || token.user == CK_USER_TYPE{CKU_SO})
        allowed.insert(CKR_KEY_HANDLE_INVALID);
    const bool isGood = allowed.empty();
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    const CK_RV code = front_->C_SignInit(handle(step), &mechanism, token.key);
    if (code == CKR_OK && isGood) {
        operation = Operation();
        operation->size = 256;
        operation->login = token.login;
    }
    return compare(code, isGood ? Codes{CKR_OK} : allowed);
}

// ---- Session objects ----

std::string StrictWorld::create(const StrictStep& step)
{
    CK_OBJECT_CLASS data = CKO_DATA;
    CK_BBOOL no = CK_FALSE;
    auto isPrivate = static_cast<CK_BBOOL>(step.number % 2);
    std::string label = OBJECT_LABEL;
    std::string value = step.text;
    CK_ATTRIBUTE entries[] = {{CKA_CLASS, &data, sizeof data},
                              {CKA_TOKEN, &no, sizeof no},
                              {CKA_PRIVATE, &isPrivate, sizeof isPrivate},
                              {CKA_LABEL, label.data(), sizeOf(label)},
                              {CKA_VALUE, value.data(), sizeOf(value)}};
    Codes allowed = refusal(step).value_or(Codes{CKR_OK});
    if (!refusal(step) && isPrivate == CK_TRUE && tokens_[session(step)->token].user != CK_USER_TYPE{CKU_USER})
        allowed = {CKR_USER_NOT_LOGGED_IN};
    CK_OBJECT_HANDLE made = 0;
    const CK_RV code = front_->C_CreateObject(handle(step), entries, 5, &made);
    if (code == CKR_OK && allowed.count(CKR_OK) != 0) {
        const std::size_t owner = sessions_.size() - 1 - step.session % sessions_.size();
        objects_.push_back({made, session(step)->token, owner, isPrivate == CK_TRUE, true, value});
        objectsChanged(session(step)->token);
    }
    return compare(code, allowed);
}

std::string StrictWorld::destroy(const StrictStep& step)
{
    if (objects_.empty())
        return {};
    Object& object = objects_[objects_.size() - 1 - step.object % objects_.size()];
    Codes allowed = refusal(step).value_or(Codes{CKR_OK});
    if (!refusal(step) && (!object.isThere || object.token != session(step)->token))
        allowed = {CKR_OBJECT_HANDLE_INVALID};
    if (!refusal(step) && !object.isThere && object.isPrivate)
        allowed.insert(CKR_USER_NOT_LOGGED_IN);
    const CK_RV code = front_->C_DestroyObject(handle(step), object.handle);
    if (code == CKR_OK && allowed.count(CKR_OK) != 0) {
        object.isThere = false;
        objectsChanged(object.token);
    }
    return compare(code, allowed);
}

std::string StrictWorld::readValue(const StrictStep& step)
{
    if (objects_.empty())
        return {};
    const Object& object = objects_[objects_.size() - 1 - step.object % objects_.size()];
    const std::size_t size = object.value.size();
    Room room(step.room);
    const bool isTaken = room.takes(size);
    CK_ATTRIBUTE entry = {CKA_VALUE, room.data(), room.length};
    const CK_RV code = front_->C_GetAttributeValue(handle(step), object.handle, &entry, 1);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    if (!object.isThere || object.token != session(step)->token)
        return compare(code, object.isPrivate ? Codes{CKR_OBJECT_HANDLE_INVALID, CKR_USER_NOT_LOGGED_IN}
                                              : Codes{CKR_OBJECT_HANDLE_INVALID});
    const bool isTold = isTaken || room.isNull();
    std::string difference = compare(code, {isTold ? CKR_OK : CKR_BUFFER_TOO_SMALL});
    difference +=
        differs("the length", entry.ulValueLen, isTold ? static_cast<CK_ULONG>(size) : CK_UNAVAILABLE_INFORMATION);
    if (room.isWrittenFrom(isTaken ? size : 0))
        difference += "  something was written where nothing belongs\n";
    if (isTaken && room.text(size) != object.value)
        difference += "  the value is another one\n";
    return difference;
}

// ---- Searches ----

std::string StrictWorld::findInit(const StrictStep& step)
{
    CK_OBJECT_CLASS data = CKO_DATA;
    std::string label = OBJECT_LABEL;
    CK_ATTRIBUTE criteria[] = {{CKA_CLASS, &data, sizeof data}, {CKA_LABEL, label.data(), sizeOf(label)}};
    const CK_RV code = front_->C_FindObjectsInit(handle(step), criteria, 2);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    Session& asked = *session(step);
    if (asked.left)
        return compare(code, {CKR_OPERATION_ACTIVE});
    asked.searchIsSure = true;
    asked.left = static_cast<std::size_t>(std::count_if(objects_.begin(), objects_.end(), [&](const Object& each) {
        return each.isThere && each.token == asked.token;
    }));
    return compare(code, {CKR_OK});
}

std::string StrictWorld::find(const StrictStep& step)
{
    const CK_ULONG most = 1 + step.number % 3;
    CK_OBJECT_HANDLE found[3] = {};
    CK_ULONG count = 0;
    const CK_RV code = front_->C_FindObjects(handle(step), found, most, &count);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    Session& asked = *session(step);
    if (!asked.left)
        return compare(code, {CKR_OPERATION_NOT_INITIALIZED});
    std::string difference = compare(code, {CKR_OK});
    if (!asked.searchIsSure)
        return count <= most ? difference : difference + "  more objects than there is room for\n";
    const std::size_t given = std::min<std::size_t>(*asked.left, most);
    *asked.left -= given;
    for (CK_ULONG index = 0; index < std::min<CK_ULONG>(count, most); ++index) {
        if (std::none_of(objects_.begin(), objects_.end(), [&](const Object& each) {
                return each.isThere && each.token == asked.token && each.handle == found[index];
            }))
            difference += "  an object that is not there\n";
    }
    return difference + differs("the number of objects", count, static_cast<CK_ULONG>(given));
}

std::string StrictWorld::findFinal(const StrictStep& step)
{
    const CK_RV code = front_->C_FindObjectsFinal(handle(step));
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    const bool isActive = session(step)->left.has_value();
    session(step)->left.reset();
    return compare(code, {isActive ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED});
}

std::string StrictWorld::random(const StrictStep& step)
{
    Room room(step.room == StrictStep::NO_ROOM ? 16 : step.room);
    const CK_ULONG wanted = room.length;
    const CK_RV code = front_->C_GenerateRandom(handle(step), room.data(), wanted);
    if (const std::optional<Codes> refused = refusal(step))
        return compare(code, *refused);
    std::string difference = compare(code, {CKR_OK});
    if (room.isWrittenFrom(wanted))
        difference += "  something was written where nothing belongs\n";
    return difference;
}
