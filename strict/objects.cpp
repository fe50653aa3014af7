#include "strict/objects.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/der.h"
#include "strict/device_access.h"
#include "strict/sessions.h"
#include "util/der.h"

namespace velkor::strict
{
namespace
{

/// One attribute that is asked of the module, and the room for its value.
struct Asked {
    CK_ATTRIBUTE_TYPE type;
    std::size_t room;
};

constexpr std::size_t NAME_ROOM = 4096;
constexpr std::size_t CERTIFICATE_ROOM = 16384;

constexpr Asked OF_KEY_PAIR[] = {
    {CKA_VALUE, PUBLIC_KEY_CAPACITY},     {CKA_KEY_TYPE, sizeof(CK_ULONG)},
    {CKA_MODULUS_BITS, sizeof(CK_ULONG)}, {CKA_EC_PARAMS, 64},
    {CKA_SIGN, sizeof(CK_BBOOL)},         {CKA_DECRYPT, sizeof(CK_BBOOL)},
    {CKA_LABEL, LABEL_CAPACITY + 1},      {CKA_ID, OBJECT_ID_CAPACITY},
};
enum KeyPairAnswer { PAIR_VALUE, PAIR_TYPE, PAIR_BITS, PAIR_CURVE, PAIR_SIGN, PAIR_DECRYPT, PAIR_LABEL, PAIR_ID };

constexpr Asked OF_CERTIFICATE[] = {
    {CKA_VALUE, CERTIFICATE_ROOM}, {CKA_SUBJECT, NAME_ROOM},        {CKA_ISSUER, NAME_ROOM},
    {CKA_SERIAL_NUMBER, 256},      {CKA_LABEL, LABEL_CAPACITY + 1}, {CKA_ID, OBJECT_ID_CAPACITY},
};
enum CertificateAnswer { CERT_VALUE, CERT_SUBJECT, CERT_ISSUER, CERT_SERIAL, CERT_LABEL, CERT_ID };

/// All that is asked, in one call; a second one where a value is longer than any that was thought of.
template <std::size_t Count>
CK_RV ask(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE moduleHandle, const Asked (&asked)[Count],
          std::array<SecretBytes, Count>& answers)
{
    std::array<CK_ATTRIBUTE, Count> attributes{};
    const auto prepare = [&](std::size_t index, std::size_t room) {
        answers[index].resize(room);
        attributes[index] = {asked[index].type, answers[index].data(), static_cast<CK_ULONG>(room)};
    };
    for (std::size_t index = 0; index < Count; ++index)
        prepare(index, asked[index].room);
    CK_RV result = module().C_GetAttributeValue(session, moduleHandle, attributes.data(), Count);
    if (result == CKR_BUFFER_TOO_SMALL) {
        for (CK_ATTRIBUTE& attribute : attributes)
            attribute.pValue = nullptr;
        result = module().C_GetAttributeValue(session, moduleHandle, attributes.data(), Count);
        for (std::size_t index = 0; index < Count && result == CKR_OK; ++index)
            prepare(index, attributes[index].ulValueLen);
        if (result == CKR_OK)
            result = module().C_GetAttributeValue(session, moduleHandle, attributes.data(), Count);
    }
    for (std::size_t index = 0; index < Count && result == CKR_OK; ++index)
        answers[index].resize(attributes[index].ulValueLen);
    return result;
}

template <typename Number>
Number numberIn(const SecretBytes& bytes)
{
    Number number{};
    if (bytes.size() == sizeof number)
        std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

/// Both halves of a pair have the same contents.
CK_RV askKeyPair(CK_SESSION_HANDLE session, CK_ULONG number, Contents& contents)
{
    std::array<SecretBytes, std::size(OF_KEY_PAIR)> answers;
    const CK_RV result = ask(session, PRIVATE_KEY_BASE + number, OF_KEY_PAIR, answers);
    if (result != CKR_OK)
        return result;
    contents.identity = answers[PAIR_VALUE];
    contents.keyType = numberIn<CK_KEY_TYPE>(answers[PAIR_TYPE]);
    contents.bits = numberIn<CK_ULONG>(answers[PAIR_BITS]);
    contents.curve = answers[PAIR_CURVE];
    contents.mayUseSignatures = numberIn<CK_BBOOL>(answers[PAIR_SIGN]) != CK_FALSE;
    contents.mayUseCiphers = numberIn<CK_BBOOL>(answers[PAIR_DECRYPT]) != CK_FALSE;
    contents.label = answers[PAIR_LABEL];
    contents.id = answers[PAIR_ID];
    if (contents.keyType == CKK_EC) {
        contents.point = contents.identity;
    } else if (!readRsaPublicKey(contents.identity, contents.modulus, contents.exponent)) {
        contents.modulus = secretCopyOf(withoutLeadingZeros(contents.identity));
        contents.exponent = secretCopyOf(RSA_PUBLIC_EXPONENT);
    }
    return CKR_OK;
}

CK_RV askCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE moduleHandle, Contents& contents)
{
    std::array<SecretBytes, std::size(OF_CERTIFICATE)> answers;
    const CK_RV result = ask(session, moduleHandle, OF_CERTIFICATE, answers);
    if (result != CKR_OK)
        return result;
    contents.identity = answers[CERT_VALUE];
    contents.value = answers[CERT_VALUE];
    contents.subject = answers[CERT_SUBJECT];
    contents.issuer = answers[CERT_ISSUER];
    contents.serialNumber = answers[CERT_SERIAL];
    contents.label = answers[CERT_LABEL];
    contents.id = answers[CERT_ID];
    return CKR_OK;
}

CK_OBJECT_CLASS classOf(CK_OBJECT_HANDLE moduleHandle)
{
    if (moduleHandle >= CERTIFICATE_BASE)
        return CKO_CERTIFICATE;
    return moduleHandle >= PUBLIC_KEY_BASE ? CKO_PUBLIC_KEY : CKO_PRIVATE_KEY;
}

void forget(State& state, const Object& object)
{
    const auto mapped = object.token->tokenObjects.find(object.moduleHandle);
    if (mapped != object.token->tokenObjects.end() && mapped->second.get() == &object)
        object.token->tokenObjects.erase(mapped);
    state.objects.erase(object.handle);
}

/// What is read of one half of a pair is known of the other one, too.
void shareContents(Object& object)
{
    if (!isKey(object.objectClass))
        return;
    const CK_OBJECT_HANDLE base = object.objectClass == CKO_PRIVATE_KEY ? PUBLIC_KEY_BASE : PRIVATE_KEY_BASE;
    const auto other = object.token->tokenObjects.find(base + (object.moduleHandle & PAIR_NUMBER));
    if (other != object.token->tokenObjects.end() &&
        (!other->second->contents || other->second->contents->identity == object.contents->identity))
        other->second->contents = object.contents;
}

/// Keeps what has been read, unless it may be another object's: the number of one that is gone is given again.
CK_RV keepContents(const char* name, Object& object, std::shared_ptr<const Contents> contents, CK_RV code)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const CK_RV result = checkKnown(name, object, code);
    if (result != CKR_OK)
        return result;
    if (object.contents && object.contents->identity != contents->identity) {
        forget(state, object);
        return refuse(code, name, ": another object has taken its place, handle=", object.handle);
    }
    object.contents = std::move(contents);
    shareContents(object);
    return CKR_OK;
}

CK_RV readOf(Token& token, const Object& object, Contents& contents)
{
    if (!isKey(object.objectClass))
        return useToken(
            token, [&](CK_SESSION_HANDLE session) { return askCertificate(session, object.moduleHandle, contents); });
    const CK_ULONG number = object.moduleHandle & PAIR_NUMBER;
    return lookAtPair(token, number, [&](CK_SESSION_HANDLE session) { return askKeyPair(session, number, contents); });
}

template <typename IsMeant>
void takeObjects(State& state, const IsMeant& isMeant, RemovedThings& removed)
{
    for (auto entry = state.objects.begin(); entry != state.objects.end();) {
        const ObjectPtr object = entry->second;
        ++entry;
        if (!isMeant(*object))
            continue;
        if (object->ownsPair && object->objectClass == CKO_PRIVATE_KEY && object->fate == Fate::Live &&
            object->contents)
            removed.doomed.push_back(
                {object->token, object->moduleHandle, object->contents->identity, keepPin(*object->token)});
        removed.objects.push_back(object);
        forget(state, *object);
    }
}

CK_RV checkAttributes(const View& view, CK_ATTRIBUTE& entry)
{
    SecretBytes value;
    switch (attributeOf(view, entry.type, value)) {
    case Answer::NotThere:
        entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_ATTRIBUTE_TYPE_INVALID;
    case Answer::Sensitive:
        entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_ATTRIBUTE_SENSITIVE;
    default:
        break;
    }
    if (entry.pValue != nullptr && entry.ulValueLen < value.size()) {
        entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_BUFFER_TOO_SMALL;
    }
    if (entry.pValue != nullptr)
        std::copy(value.begin(), value.end(), static_cast<unsigned char*>(entry.pValue));
    entry.ulValueLen = static_cast<CK_ULONG>(value.size());
    return CKR_OK;
}

} // namespace

CK_RV findObject(const char* name, const Session& session, CK_OBJECT_HANDLE hObject, CK_RV code, ObjectPtr& object)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const auto found = state.objects.find(hObject);
    if (found == state.objects.end() || found->second->token != &session.token)
        return refuse(code, name, ": no such object, handle=", hObject);
    object = found->second;
    if (object->isPrivate && session.token.user != User::User)
        return refuse(CKR_USER_NOT_LOGGED_IN, name, ": the object is private, handle=", hObject);
    if (object->fate != Fate::Live)
        return refuse(code, name, ": the object is no longer there, handle=", hObject);
    return CKR_OK;
}

ObjectPtr addObject(State& state, ObjectPtr object)
{
    object->handle = ++state.lastObject;
    object->insertion = object->token->insertion;
    state.objects.emplace(object->handle, object);
    return object;
}

ObjectPtr objectOf(State& state, Token& token, CK_OBJECT_HANDLE moduleHandle)
{
    ObjectPtr& known = token.tokenObjects[moduleHandle];
    if (known)
        return known;
    known = std::make_shared<Object>();
    known->token = &token;
    known->objectClass = classOf(moduleHandle);
    known->moduleHandle = moduleHandle;
    known->isPrivate = known->objectClass == CKO_PRIVATE_KEY;
    known->isModifiable = known->objectClass != CKO_CERTIFICATE; // The module cannot change one.
    return addObject(state, known);
}

View viewOf(const Object& object)
{
    const std::scoped_lock lock(state().lock);
    View view;
    view.objectClass = object.objectClass;
    view.isTokenObject = object.owner == 0;
    view.isPrivate = object.isPrivate;
    view.isModifiable = object.isModifiable;
    view.isCopyable = object.isCopyable;
    view.hasPair = object.moduleHandle != 0 && isKey(object.objectClass);
    view.contents = object.contents;
    view.own = object.own;
    return view;
}

CK_RV readContents(const char* name, Token& token, const ObjectPtr& object, CK_RV code)
{
    if (object->moduleHandle == 0)
        return CKR_OK;
    auto contents = std::make_shared<Contents>();
    const CK_RV result = readOf(token, *object, *contents);
    if (result == CKR_OBJECT_HANDLE_INVALID) {
        forgetObject(*object);
        return refuse(code, name, ": the object is no longer there, handle=", object->handle);
    }
    return result == CKR_OK ? keepContents(name, *object, std::move(contents), code) : result;
}

CK_RV viewWithContents(const char* name, Token& token, const ObjectPtr& object, CK_RV code, View& view)
{
    view = viewOf(*object);
    if (view.contents)
        return CKR_OK;
    const CK_RV result = readContents(name, token, object, code);
    view = viewOf(*object);
    return result;
}

CK_RV searchModule(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE>& criteria, std::vector<CK_OBJECT_HANDLE>& found)
{
    constexpr CK_ULONG PAGE = 512;
    CK_RV result = module().C_FindObjectsInit(session, criteria.data(), static_cast<CK_ULONG>(criteria.size()));
    for (CK_ULONG count = PAGE; result == CKR_OK && count == PAGE;) {
        const std::size_t before = found.size();
        found.resize(before + PAGE);
        result = module().C_FindObjects(session, found.data() + before, PAGE, &count);
        found.resize(before + (result == CKR_OK ? count : 0));
    }
    if (result == CKR_OK)
        result = module().C_FindObjectsFinal(session);
    return result;
}

CK_RV findPairNumber(Token& token, const Contents& publicKey, CK_ULONG& number, bool& isThere)
{
    // The device has a modulus bare or in DER, and a point bare.
    std::vector<SecretBytes> forms;
    if (publicKey.keyType == CKK_EC)
        forms = {publicKey.point};
    else
        forms = {publicKey.modulus, secretCopyOf(rsaSubjectPublicKeyInfo(publicKey.modulus))};
    return useToken(token, [&](CK_SESSION_HANDLE session) -> CK_RV {
        isThere = false;
        for (SecretBytes& form : forms) {
            if (form.empty())
                continue;
            CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
            std::vector<CK_ATTRIBUTE> criteria = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                                  {CKA_VALUE, form.data(), static_cast<CK_ULONG>(form.size())}};
            std::vector<CK_OBJECT_HANDLE> found;
            const CK_RV result = searchModule(session, criteria, found);
            if (result != CKR_OK)
                return result;
            if (!found.empty()) {
                number = found.front() & PAIR_NUMBER;
                isThere = true;
                return CKR_OK;
            }
        }
        return CKR_OK;
    });
}

CK_RV findPairOf(Token& token, const Contents& publicKey, ObjectPtr& half)
{
    half.reset();
    CK_ULONG number = 0;
    bool isThere = false;
    const unsigned long removals = removalsOf(token);
    const CK_RV result = findPairNumber(token, publicKey, number, isThere);
    const std::scoped_lock lock(state().lock);
    if (isThere && !hasGoneSince(token, PUBLIC_KEY_BASE + number, removals))
        half = objectOf(state(), token, PUBLIC_KEY_BASE + number);
    return result;
}

unsigned long removalsOf(const Token& token)
{
    const std::scoped_lock lock(state().lock);
    return token.removals;
}

bool hasGoneSince(const Token& token, CK_OBJECT_HANDLE moduleHandle, unsigned long removals)
{
    const auto freed = token.freed.find(moduleHandle);
    return token.allFreed > removals || (freed != token.freed.end() && freed->second > removals);
}

void noteGone(Token& token, CK_OBJECT_HANDLE moduleHandle)
{
    token.freed[moduleHandle] = ++token.removals;
}

void forgetObject(const Object& object)
{
    const std::scoped_lock lock(state().lock);
    if (object.fate != Fate::HalfGone)
        forget(state(), object);
}

CK_RV checkKnown(const char* name, const Object& object, CK_RV code)
{
    if (state().objects.contains(object.handle) && object.fate != Fate::HalfGone)
        return CKR_OK;
    if (object.token->insertion != object.insertion || !object.token->isPresent)
        return refuse(CKR_DEVICE_REMOVED, "The token was removed meanwhile, slotID=", object.token->slotID);
    return refuse(code, name, ": the object is no longer there, handle=", object.handle);
}

void takeObjectsOfSession(State& state, const Session& session, RemovedThings& removed)
{
    takeObjects(
        state, [&](const Object& object) { return object.owner == session.handle; }, removed);
}

void takeObjectsOfToken(State& state, Token& token, RemovedThings& removed)
{
    takeObjects(
        state, [&](const Object& object) { return object.token == &token; }, removed);
    token.tokenObjects.clear();
}

void takeSessionPairs(State& state, RemovedThings& removed)
{
    takeObjects(
        state, [](const Object& object) { return object.ownsPair; }, removed);
}

void takePrivateSessionObjects(State& state, Token& token, RemovedThings& removed)
{
    takeObjects(
        state, [&](const Object& object) { return object.token == &token && object.owner != 0 && object.isPrivate; },
        removed);
}

void retirePrivateObjects(State& state, Token& token)
{
    // Those of former logins have been told apart long enough.
    std::erase_if(state.objects, [&](const auto& entry) {
        return entry.second->token == &token && entry.second->fate == Fate::Retired;
    });
    for (const auto& entry : state.objects) {
        if (entry.second->token == &token && entry.second->isPrivate)
            entry.second->fate = Fate::Retired;
    }
    std::erase_if(token.tokenObjects, [](const auto& entry) { return entry.second->isPrivate; });
}

CK_RV getObjectSize(Session& session, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize)
{
    ObjectPtr object;
    CK_RV result = findObject("C_GetObjectSize", session, hObject, CKR_OBJECT_HANDLE_INVALID, object);
    if (result != CKR_OK)
        return result;
    if (pulSize == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetObjectSize: pulSize is NULL");
    View view;
    result = viewWithContents("C_GetObjectSize", session.token, object, CKR_OBJECT_HANDLE_INVALID, view);
    if (result != CKR_OK)
        return result;
    const Contents& contents = *view.contents;
    *pulSize = static_cast<CK_ULONG>(contents.value.size() + contents.modulus.size() + contents.exponent.size() +
                                     contents.point.size() + contents.curve.size() + contents.label.size() +
                                     contents.id.size() + contents.subject.size() + contents.issuer.size() +
                                     contents.serialNumber.size());
    return CKR_OK;
}

CK_RV getAttributeValue(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    ObjectPtr object;
    CK_RV result = findObject("C_GetAttributeValue", session, hObject, CKR_OBJECT_HANDLE_INVALID, object);
    if (result != CKR_OK)
        return result;
    if (pTemplate == nullptr || ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue: no template, ulCount=", ulCount);
    result = readContents("C_GetAttributeValue", session.token, object, CKR_OBJECT_HANDLE_INVALID);
    if (result != CKR_OK)
        return result;
    const View view = viewOf(*object);
    for (CK_ATTRIBUTE& entry : std::span(pTemplate, ulCount)) {
        const CK_RV answer = checkAttributes(view, entry);
        if (answer != CKR_OK)
            result = refuse(answer, "C_GetAttributeValue: not answered, type=", CK_ATTRIBUTE_TYPE{entry.type});
    }
    return result;
}

} // namespace velkor::strict
