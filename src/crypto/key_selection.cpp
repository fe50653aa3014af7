#include "crypto/key_selection.h"

#include <algorithm>
#include <iterator>

#include "frame/module_state.h"
#include "log/log.h"
#include "objects/handles.h"
#include "objects/record_lookup.h"

namespace velkor
{
namespace
{

/// Whose handles lead to the key pair.
enum class Half {
    Either,
    Private, ///< The handle of a public key is then the id of no key pair.
};

struct KeyRule {
    KeyUse use;
    Half half;
    CK_OBJECT_HANDLE lowest;       ///< Any lower handle is refused unseen.
    const char* invalid;           ///< Text of that refusal: before the handle,
    const char* invalidEnd;        ///< and behind it.
    const char* notFound;          ///< Text before a handle without a key pair.
    const char* rsa1024 = nullptr; ///< Text of the refusal of such a key; null where it will do.
};

constexpr KeyRule KEY_RULES[] = {
    {KeyUse::Sign, Half::Private, PRIVATE_KEY_BASE, "C_SignInit: invalid hKey=", "", "Invalid input handle in sign : ",
     "C_SignInit: RSA-1024 signing not allowed — key size below 112-bit security strength"},
    {KeyUse::Verify, Half::Either, PRIVATE_KEY_BASE, "C_VerifyInit: invalid hKey=", "",
     "Invalid input handle in verify : "},
    {KeyUse::EncryptPkcs, Half::Either, PRIVATE_KEY_BASE, "C_EncryptInit: invalid hKey=", "",
     "Invalid input handle in encrypt : "},
    {KeyUse::EncryptOaep, Half::Either, PUBLIC_KEY_BASE, "C_EncryptInit: invalid hKey=", " for CKM_RSA_PKCS_OAEP",
     "C_EncryptInit: invalid input handle for OAEP encrypt : "},
    {KeyUse::DecryptPkcs, Half::Private, PRIVATE_KEY_BASE, "C_DecryptInit: invalid hKey=", " for CKM_RSA_PKCS",
     "Invalid input handle in decrypt : "},
    {KeyUse::DecryptOaep, Half::Private, PRIVATE_KEY_BASE, "C_DecryptInit: invalid hKey=", " for CKM_RSA_PKCS_OAEP",
     "Invalid input handle in decrypt OAEP : "},
};

} // namespace

CK_RV selectKey(SessionRecord& session, KeyUse use, CK_OBJECT_HANDLE hKey)
{
    const KeyRule& rule =
        *std::find_if(std::begin(KEY_RULES), std::end(KEY_RULES), [&](const KeyRule& each) { return each.use == use; });
    if (hKey < rule.lowest)
        return refuse(CKR_OBJECT_HANDLE_INVALID, rule.invalid, hKey, rule.invalidEnd);
    const CK_ULONG id = rule.half == Half::Either ? keyPairIdOf(hKey) : hKey - PRIVATE_KEY_BASE;
    const VelkorKeyPair* keyPair = findKeyPair(session, id);
    session.keyPair = keyPair != nullptr ? &moduleState().foundKeyPair : nullptr;
    if (keyPair == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, rule.notFound, hKey);
    if (rule.rsa1024 != nullptr && keyPair->keyKind == KEY_KIND_RSA_1024) {
        session.keyPair = nullptr;
        return refuse(CKR_KEY_SIZE_RANGE, rule.rsa1024);
    }
    return CKR_OK;
}

VelkorKeyPair keyPairInUse(const SessionRecord& session)
{
    const std::scoped_lock lock(moduleState().lock);
    return *session.keyPair;
}

} // namespace velkor
