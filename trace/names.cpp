#include "names.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <map>
#include <utility>

#include "base/status_rows.h"
#include "frame/device_status.h"
#include "frame/module_state.h"
#include "objects/handles.h"
#include "sessions/session_record.h"
#include "sessions/session_table.h"
#include "strict/object.h"

namespace velkor::trace
{
namespace
{

// Made by the build from the Cryptoki header.
constexpr Constant CONSTANTS[] = {
#define CONSTANT(prefix, name) {#prefix, #name, name},
#include "constants.inc"
#undef CONSTANT
    {"CKR", "CKR_ACTION_PROHIBITED", strict::CKR_ACTION_PROHIBITED}, // Of a later standard; the strict front gives it.
};

struct StatusName {
    int number;
    std::string_view name;
    std::string_view text;
};

constexpr StatusName STATUSES[] = {
#define STATUS_NAME(name, number, text, exitCode) {number, #name, text},
    SOFTKEY_STATUSES(STATUS_NAME)
#undef STATUS_NAME
};

struct OperationName {
    ActiveOperation operation;
    std::string_view name;
};

constexpr OperationName OPERATIONS[] = {
    {ActiveOperation::None, "none"},
    {ActiveOperation::Find, "search"},
    {ActiveOperation::Encrypt, "encryption"},
    {ActiveOperation::Decrypt, "decryption"},
    {ActiveOperation::Digest, "digest"},
    {ActiveOperation::Sign, "signature"},
    {ActiveOperation::Verify, "verification"},
    {ActiveOperation::DigestEncrypt, "encryption begun in a digest"},
    {ActiveOperation::DigestDecrypt, "decryption begun in a digest"},
};

struct CodeMeaning {
    CK_RV code;
    std::string_view meaning;
};

constexpr CodeMeaning CODES[] = {
    {CKR_OK, "The call did what it was asked for."},
    {CKR_HOST_MEMORY, "The process has no memory left."},
    {CKR_SLOT_ID_INVALID, "There is no slot with this ID. Fetch the slot list first."},
    {CKR_GENERAL_ERROR, "Something failed that nobody expected; the log has the reason."},
    {CKR_FUNCTION_FAILED, "The device library failed; the log has its status."},
    {CKR_ARGUMENTS_BAD, "The host passed a null pointer or a length that cannot be."},
    {CKR_NO_EVENT, "No key was plugged in or out. This is no failure."},
    {CKR_ATTRIBUTE_VALUE_INVALID, "A value of the template has a wrong size or is not taken."},
    {CKR_DATA_INVALID, "The data cannot be read: no certificate, for one."},
    {CKR_DEVICE_REMOVED, "The key has been unplugged."},
    {CKR_FUNCTION_NOT_SUPPORTED, "The module does not do this function, or not with this class of objects."},
    {CKR_KEY_HANDLE_INVALID, "There is no key with this handle."},
    {CKR_KEY_SIZE_RANGE, "The key is too short; RSA keys of 1024 bits are refused."},
    {CKR_MECHANISM_INVALID,
     "The mechanism is not offered: by the module, by old firmware, or by the FIPS 140-3 rules."},
    {CKR_MECHANISM_PARAM_INVALID, "The mechanism came with a parameter that it does not take, or without one."},
    {CKR_OBJECT_HANDLE_INVALID, "There is no object with this handle. Search for it again."},
    {CKR_OPERATION_ACTIVE, "The session is in the middle of another operation."},
    {CKR_OPERATION_NOT_INITIALIZED, "The operation was not begun on this session, or has ended."},
    {CKR_PIN_INCORRECT, "The PIN is wrong, and a try has been spent. Do not repeat it."},
    {CKR_PIN_LEN_RANGE, "A PIN has at least 4 and at most 63 bytes. No try was spent."},
    {CKR_PIN_LOCKED, "The PIN is locked after too many wrong tries. A user PIN is unlocked with the SO PIN."},
    {CKR_SESSION_CLOSED, "Another thread closed the session while the call was at work."},
    {CKR_SESSION_HANDLE_INVALID,
     "There is no such session, or a public read-only session was asked for what it cannot do."},
    {CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKF_SERIAL_SESSION has to be set."},
    {CKR_SESSION_READ_ONLY, "This needs a read/write session."},
    {CKR_SESSION_READ_ONLY_EXISTS, "The SO cannot log in while a read-only session is open."},
    {CKR_SIGNATURE_INVALID, "The signature is not that of this key over this data."},
    {CKR_USER_ALREADY_LOGGED_IN, "The user is logged in already. This is no failure."},
    {CKR_USER_NOT_LOGGED_IN, "Nobody is logged in."},
    {CKR_USER_TYPE_INVALID, "Only CKU_USER and CKU_SO can log in."},
    {CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "The other user is logged in."},
    {CKR_BUFFER_TOO_SMALL, "The host's buffer or list is too small. Ask for the length first."},
    {CKR_CRYPTOKI_NOT_INITIALIZED, "C_Initialize was not called in this process, or the device library did not start."},
    {CKR_CRYPTOKI_ALREADY_INITIALIZED, "The module runs already in this process or was inherited by a fork."},
    // Of the strict front alone.
    {strict::CKR_ACTION_PROHIBITED, "The object says that it is not to be copied."},
    {CKR_ATTRIBUTE_READ_ONLY, "Nobody can set this attribute, or not any more."},
    {CKR_ATTRIBUTE_SENSITIVE, "The value never leaves the key. Its length is given as unavailable."},
    {CKR_ATTRIBUTE_TYPE_INVALID, "Objects of this class and key type do not have this attribute."},
    {CKR_CANT_LOCK, "The strict front locks with the operating system, and was given callbacks alone."},
    {CKR_DATA_LEN_RANGE, "The mechanism or the key does not take data of this length."},
    {CKR_DOMAIN_PARAMS_INVALID, "The token does not have this curve."},
    {CKR_ENCRYPTED_DATA_INVALID, "The device did not decrypt: the data was encrypted for another key, or is damaged."},
    {CKR_ENCRYPTED_DATA_LEN_RANGE, "The ciphertext is not as long as the key: it is for another key, or cut."},
    {CKR_FUNCTION_NOT_PARALLEL, "No function runs in parallel; the standard wants this answer."},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, "The key was not made for this use, or the token cannot use it so."},
    {CKR_KEY_TYPE_INCONSISTENT, "The mechanism is for keys of another type or class."},
    {CKR_PIN_INVALID, "The new PIN has a zero byte, at which a PIN ends."},
    {CKR_RANDOM_SEED_NOT_SUPPORTED, "The device takes no seed for its random numbers."},
    {CKR_SESSION_READ_WRITE_SO_EXISTS, "While the SO is logged in, only read/write sessions can be opened."},
    {CKR_SIGNATURE_LEN_RANGE, "The signature is not as long as those of the key: it is another key's, or cut."},
    {CKR_TEMPLATE_INCOMPLETE, "The template lacks what such an object needs."},
    {CKR_TEMPLATE_INCONSISTENT, "Parts of the template do not fit together, or the token cannot make such an object."},
    {CKR_TOKEN_NOT_PRESENT, "The key of this slot is not plugged in."},
};

std::string withNumber(std::string_view name, Number number)
{
    return std::string(name) + " (" + std::to_string(number) + ")";
}

std::string hexadecimal(Number number)
{
    char text[20] = "0x";
    const auto [end, error] = std::to_chars(text + 2, std::end(text), number, 16);
    return {text, end};
}

std::string constantInWords(std::string_view prefix, Number number)
{
    const std::string_view name = constantName(prefix, number);
    return withNumber(name.empty() ? "unknown" : name, number);
}

std::string handleInWords(const std::string& name, Number number)
{
    return name.empty() ? "no such handle: " + std::to_string(number) : name;
}

std::string objectsInWords(std::string_view text)
{
    std::string words;
    while (!text.empty()) {
        const std::string_view handle = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(handle.size() + 1, text.size()));
        const auto number = numberOf(handle);
        words += words.empty() ? "" : ", ";
        words += number ? handleInWords(objectName(*number), *number) : std::string(handle);
    }
    return words;
}

struct ValueKind {
    std::string_view kind;
    std::string (*inWords)(Number number);
};

constexpr ValueKind KINDS[] = {
    {"mechanism", [](Number number) { return constantInWords("CKM", number); }},
    {"attribute", [](Number number) { return constantInWords("CKA", number); }},
    {"class", [](Number number) { return constantInWords("CKO", number); }},
    {"keytype", [](Number number) { return constantInWords("CKK", number); }},
    {"state", [](Number number) { return constantInWords("CKS", number); }},
    {"user", [](Number number) { return constantInWords("CKU", number); }},
    {"code", [](Number number) { return withNumber(codeName(number), number); }},
    {"slot", [](Number number) { return handleInWords(slotName(number), number); }},
    {"session", [](Number number) { return handleInWords(sessionName(number), number); }},
    {"object", [](Number number) { return handleInWords(objectName(number), number); }},
    {"handle", [](Number number) { return "object " + std::to_string(number); }},
    {"status", [](Number number) { return statusWithMeaning(static_cast<int>(number)); }},
    {"tries", [](Number number) { return std::to_string(number) + (number == 1 ? " try left" : " tries left"); }},
    {"size", [](Number number) { return std::to_string(number) + (number == 1 ? " byte" : " bytes"); }},
    {"flags", hexadecimal},
    {"operation",
     [](Number number) {
         const auto* const found = std::ranges::find(
             OPERATIONS, static_cast<ActiveOperation>(static_cast<CK_ULONG>(number)), &OperationName::operation);
         return "operation: " + std::string(found != std::end(OPERATIONS) ? found->name : "unknown");
     }},
};

} // namespace

std::string_view constantName(std::string_view prefix, Number value)
{
    using Names = std::map<std::pair<Number, std::string_view>, std::string_view>;
    static const Names names = [] {
        Names all;
        for (const Constant& each :
             CONSTANTS) // The last one of a value: behind the older of two names stands the newer.
            all[{each.value, each.prefix}] = each.name;
        return all;
    }();
    const auto found = names.find({value, prefix});
    return found != names.end() ? found->second : std::string_view();
}

std::span<const Constant> constants()
{
    return CONSTANTS;
}

std::optional<Constant> findConstant(std::string_view name)
{
    const auto* const found = std::ranges::find(CONSTANTS, name, &Constant::name);
    return found != std::end(CONSTANTS) ? std::optional(*found) : std::nullopt;
}

std::string codeName(Number code)
{
    const std::string_view name = constantName("CKR", code);
    return name.empty() ? hexadecimal(code) : std::string(name);
}

std::string_view codeMeaning(Number code)
{
    const auto* const found = std::ranges::find(CODES, code, &CodeMeaning::code);
    return found != std::end(CODES) ? found->meaning : std::string_view();
}

std::string objectName(Number number)
{
    if (number < PRIVATE_KEY_BASE || number > DERIVED_KEY_BASE + std::numeric_limits<std::uint16_t>::max())
        return {};
    const auto handle = static_cast<CK_OBJECT_HANDLE>(number);
    if (isPrivateKeyHandle(handle))
        return "private key " + std::to_string(keyPairIdOf(handle));
    if (isPublicKeyHandle(handle))
        return "public key " + std::to_string(keyPairIdOf(handle));
    if (handle < DERIVED_KEY_BASE)
        return "certificate " + std::to_string(handle - CERTIFICATE_BASE);
    return "derived key " + std::to_string(handle - DERIVED_KEY_BASE + 1);
}

std::string slotName(Number slotID)
{
    const bool isSlot = slotID >= SLOT_ID_BASE && slotID < SESSION_HANDLE_BASE - 1;
    return isSlot ? "slot " + std::to_string(slotID - SLOT_ID_BASE + 1) : "";
}

std::string sessionName(Number handle)
{
    const bool isSession = handle >= SESSION_HANDLE_BASE && handle < PRIVATE_KEY_BASE;
    return isSession ? "session " + std::to_string(handle - SESSION_HANDLE_BASE + 1) : "";
}

std::string statusName(int status)
{
    const auto* const found = std::ranges::find(STATUSES, status, &StatusName::number);
    return found != std::end(STATUSES) ? std::string(found->text) : "";
}

std::vector<int> statusesOfRemoval()
{
    std::vector<int> statuses;
    for (const StatusName& each : STATUSES) {
        if (each.number != 0 && codeOfDeviceStatus(each.number) == CKR_DEVICE_REMOVED)
            statuses.push_back(each.number);
    }
    return statuses;
}

std::string statusWithMeaning(int status)
{
    const auto* const found = std::ranges::find(STATUSES, status, &StatusName::number);
    const std::string number = "status " + std::to_string(status);
    if (found == std::end(STATUSES))
        return number + " of the device library";
    return number + " (" + std::string(found->name) + "): " + std::string(found->text);
}

std::optional<Number> numberOf(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    const bool fits = number < 0 && number >= std::numeric_limits<std::int32_t>::min() && number != -1;
    return fits ? static_cast<Number>(static_cast<std::uint32_t>(number)) : static_cast<Number>(number);
}

std::string valueInWords(std::string_view kind, std::string_view text)
{
    if (kind == "objects")
        return objectsInWords(text);
    if (kind == "version")
        return "firmware " + std::string(text);
    const auto* const found = std::ranges::find(KINDS, kind, &ValueKind::kind);
    const auto number = numberOf(text);
    return found != std::end(KINDS) && number ? found->inWords(*number) : std::string(text);
}

std::vector<std::string> meaningsOf(Number number)
{
    std::vector<std::string> meanings;
    for (const std::string& handle : {slotName(number), sessionName(number), objectName(number)}) {
        if (!handle.empty())
            meanings.push_back(handle);
    }
    for (const std::string_view prefix : {"CKR", "CKM", "CKA", "CKO", "CKK", "CKS"}) {
        if (const std::string_view name = constantName(prefix, number); !name.empty())
            meanings.emplace_back(name);
    }
    if (number <= static_cast<Number>(std::numeric_limits<int>::max()) && !statusName(static_cast<int>(number)).empty())
        meanings.push_back(statusWithMeaning(static_cast<int>(number)));
    return meanings;
}

} // namespace velkor::trace
