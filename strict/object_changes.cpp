// Objects that come, change and go.
#include <algorithm>
#include <utility>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/der.h"
#include "strict/device_access.h"
#include "strict/login.h"
#include "strict/objects.h"
#include "strict/sessions.h"
#include "util/der.h"

namespace velkor::strict
{
namespace
{

constexpr const char* CREATE = "C_CreateObject";
constexpr const char* COPY = "C_CopyObject";
constexpr const char* DESTROY = "C_DestroyObject";

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const SecretBytes& value)
{
    return {type, const_cast<unsigned char*>(value.data()), static_cast<CK_ULONG>(value.size())};
}

void addIfGiven(std::vector<CK_ATTRIBUTE>& attributes, CK_ATTRIBUTE_TYPE type, const SecretBytes& value)
{
    if (!value.empty())
        attributes.push_back(attribute(type, value));
}

CK_RV checkNames(const char* name, const Template& wanted)
{
    for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID}) {
        if (wanted.bytes(type).empty())
            continue;
        const CK_RV result = checkName(name, type, wanted.bytes(type));
        if (result != CKR_OK)
            return result;
    }
    return CKR_OK;
}

/// The handle that the module gives stays 0 where the device does not list the new object. `adopt` is given it before
/// the gate is left.
template <typename Adopt>
CK_RV createInModule(Session& session, std::vector<CK_ATTRIBUTE>& attributes, const Adopt& adopt)
{
    CK_OBJECT_HANDLE created = 0;
    const CK_RV result = usePin(session.token, Needs::Login, [&](CK_SESSION_HANDLE moduleSession) {
        const CK_RV status = module().C_CreateObject(moduleSession, attributes.data(),
                                                     static_cast<CK_ULONG>(attributes.size()), &created);
        if (status == CKR_OK && created != 0)
            adopt(created);
        return status;
    });
    if (result == CKR_DATA_INVALID)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": no certificate can be read from CKA_VALUE");
    if (result == CKR_OK && created == 0)
        return refuse(CKR_FUNCTION_FAILED, CREATE, ": the device does not list the new object");
    return result;
}

CK_RV storeCertificate(const char* name, Session& session, const SecretBytes& der, const SecretBytes& label,
                       const SecretBytes& id, const Wishes& wishes, CK_OBJECT_HANDLE_PTR phObject)
{
    CK_RV result = checkMayWrite(name, session);
    if (result != CKR_OK)
        return result;
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    std::vector<CK_ATTRIBUTE> attributes = {{CKA_CLASS, &objectClass, sizeof objectClass}, attribute(CKA_VALUE, der)};
    addIfGiven(attributes, CKA_LABEL, label);
    addIfGiven(attributes, CKA_ID, id);
    return createInModule(session, attributes, [&](CK_OBJECT_HANDLE created) {
        const std::scoped_lock lock(state().lock);
        const ObjectPtr object = objectOf(state(), session.token, created);
        object->contents.reset(); // The device may have put it in the place of the same certificate.
        object->isCopyable = wishes.isCopyable;
        *phObject = object->handle;
    });
}

CK_RV createCertificate(Session& session, const Template& wanted, CK_OBJECT_HANDLE_PTR phObject)
{
    if (wanted.number(CKA_CERTIFICATE_TYPE, CKC_X_509) != CKC_X_509)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": only X.509 certificates are taken");
    if (wanted.bytes(CKA_VALUE).empty())
        return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": CKA_VALUE is missing");
    if (wanted.flag(CKA_TOKEN, false)) {
        if (wanted.flag(CKA_PRIVATE, false))
            return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": certificates on the token are public");
        return storeCertificate(CREATE, session, secretCopyOf(wanted.bytes(CKA_VALUE)),
                                secretCopyOf(wanted.bytes(CKA_LABEL)), secretCopyOf(wanted.bytes(CKA_ID)),
                                wishesOf(wanted), phObject);
    }
    auto contents = std::make_shared<Contents>();
    contents->value = secretCopyOf(wanted.bytes(CKA_VALUE));
    return addSessionObject(CREATE, session, CKO_CERTIFICATE, wanted, contents, phObject);
}

CK_RV readPublicKey(const Template& wanted, Contents& contents)
{
    contents.keyType = wanted.number(CKA_KEY_TYPE, CK_UNAVAILABLE_INFORMATION);
    if (contents.keyType == CKK_RSA) {
        contents.modulus = secretCopyOf(withoutLeadingZeros(wanted.bytes(CKA_MODULUS)));
        contents.exponent = secretCopyOf(withoutLeadingZeros(wanted.bytes(CKA_PUBLIC_EXPONENT)));
        contents.bits = static_cast<CK_ULONG>(contents.modulus.size() * 8);
        if (contents.modulus.empty() || contents.exponent.empty())
            return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": CKA_MODULUS or CKA_PUBLIC_EXPONENT is missing");
        return CKR_OK;
    }
    if (contents.keyType != CKK_EC)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": unsupported CKA_KEY_TYPE=", contents.keyType);
    contents.point = secretCopyOf(barePoint(wanted.bytes(CKA_EC_POINT)));
    contents.curve = secretCopyOf(wanted.bytes(CKA_EC_PARAMS));
    if (contents.point.empty() || contents.curve.empty())
        return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": CKA_EC_POINT or CKA_EC_PARAMS is missing");
    return CKR_OK;
}

/// Gives a pair the label and ID of a template, where it has them.
CK_RV renamePair(Session& session, CK_OBJECT_HANDLE half, const Template& wanted)
{
    std::vector<CK_ATTRIBUTE> names;
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        if ((entry.type == CKA_LABEL || entry.type == CKA_ID) && entry.ulValueLen != 0)
            names.push_back(entry);
    }
    return names.empty() ? CKR_OK : setAttributeValue(session, half, names.data(), static_cast<CK_ULONG>(names.size()));
}

/// The token's own half of a pair, by an object that stands for it, with the names of a template, and tied down as the
/// host wishes.
CK_RV giveHalf(const char* name, Session& session, const Object& source, const Template& wanted, const Wishes& wishes,
               CK_OBJECT_HANDLE_PTR phObject)
{
    ObjectPtr object;
    {
        const std::scoped_lock lock(state().lock);
        const CK_RV result = checkKnown(name, source, CKR_OBJECT_HANDLE_INVALID);
        if (result != CKR_OK)
            return result;
        object = objectOf(state(), session.token, source.moduleHandle);
        object->fate = Fate::Live;
    }
    const CK_RV result = renamePair(session, object->handle, wanted);
    if (result != CKR_OK)
        return result;
    const std::scoped_lock lock(state().lock);
    object->isModifiable = wishes.isModifiable;
    object->isCopyable = wishes.isCopyable;
    *phObject = object->handle;
    return CKR_OK;
}

/// The token has public keys as halves of pairs only: to create one there is to name its pair.
CK_RV nameHalfOfPair(Session& session, const Template& wanted, const ObjectPtr& half, CK_OBJECT_HANDLE_PTR phObject)
{
    if (!half)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": the token keeps public keys with their pair only");
    CK_RV result = checkMayWrite(CREATE, session);
    if (result == CKR_OK)
        result = giveHalf(CREATE, session, *half, wanted, wishesOf(wanted), phObject);
    return result == CKR_OBJECT_HANDLE_INVALID ? CKR_ATTRIBUTE_VALUE_INVALID : result; // The host has named no object.
}

CK_RV createPublicKey(Session& session, const Template& wanted, CK_OBJECT_HANDLE_PTR phObject)
{
    auto contents = std::make_shared<Contents>();
    CK_RV result = readPublicKey(wanted, *contents);
    if (result != CKR_OK)
        return result;
    ObjectPtr half;
    result = findPairOf(session.token, *contents, half);
    if (result != CKR_OK)
        return result;
    if (wanted.flag(CKA_TOKEN, false))
        return nameHalfOfPair(session, wanted, half, phObject);
    result = addSessionObject(CREATE, session, CKO_PUBLIC_KEY, wanted, contents, phObject);
    if (result != CKR_OK)
        return result;
    const std::scoped_lock lock(state().lock);
    Object& object = *state().objects.at(*phObject);
    const auto set = [&](CK_ATTRIBUTE_TYPE type, bool able) {
        object.own[type] = {static_cast<unsigned char>(able && wanted.flag(type, true) ? CK_TRUE : CK_FALSE)};
    };
    set(CKA_VERIFY, half != nullptr);
    set(CKA_ENCRYPT, half != nullptr && contents->keyType == CKK_RSA);
    object.own[CKA_LOCAL] = {CK_FALSE};
    object.own[CKA_KEY_GEN_MECHANISM] = bytesOfValue(CK_UNAVAILABLE_INFORMATION);
    object.own[CKA_EC_POINT] = derOctetString(contents->point);
    return CKR_OK;
}

CK_RV checkPrivateKey(const Template& wanted)
{
    const CK_KEY_TYPE keyType = wanted.number(CKA_KEY_TYPE, CK_UNAVAILABLE_INFORMATION);
    if (keyType != CKK_RSA)
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": only RSA private keys are taken, CKA_KEY_TYPE=", keyType);
    for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) {
        if (wanted.bytes(type).empty())
            return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": a component is missing, type=", CK_ATTRIBUTE_TYPE{type});
    }
    const Bytes exponent = withoutLeadingZeros(wanted.bytes(CKA_PUBLIC_EXPONENT));
    if (!exponent.empty() && !sameBytes(exponent, RSA_PUBLIC_EXPONENT))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": the public exponent has to be 65537");
    constexpr std::size_t SIZES[] = {256, 384, 512};
    const std::size_t size = withoutLeadingZeros(wanted.bytes(CKA_MODULUS)).size();
    if (std::find(std::begin(SIZES), std::end(SIZES), size) == std::end(SIZES))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": unsupported size of the modulus, bytes=", size);
    return CKR_OK;
}

CK_RV createPrivateKey(Session& session, const Template& wanted, CK_OBJECT_HANDLE_PTR phObject)
{
    CK_RV result = checkPrivateKey(wanted);
    if (result == CKR_OK && wanted.flag(CKA_TOKEN, false))
        result = checkMayWrite(CREATE, session);
    if (result == CKR_OK && !isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, CREATE, ": private keys need a login");
    if (result != CKR_OK)
        return result;
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE keyType = CKK_RSA;
    SecretBytes values[] = {secretCopyOf(withoutLeadingZeros(wanted.bytes(CKA_MODULUS))),
                            secretCopyOf(withoutLeadingZeros(wanted.bytes(CKA_PRIVATE_EXPONENT))),
                            secretCopyOf(withoutLeadingZeros(wanted.bytes(CKA_PRIME_1)))};
    const SecretBytes label = secretCopyOf(wanted.bytes(CKA_LABEL));
    const SecretBytes id = secretCopyOf(wanted.bytes(CKA_ID));
    std::vector<CK_ATTRIBUTE> attributes = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                            {CKA_KEY_TYPE, &keyType, sizeof keyType},
                                            attribute(CKA_MODULUS, values[0]),
                                            attribute(CKA_PRIVATE_EXPONENT, values[1]),
                                            attribute(CKA_PRIME_1, values[2])};
    addIfGiven(attributes, CKA_LABEL, label);
    addIfGiven(attributes, CKA_ID, id);
    const Wishes wishes = wishesOf(wanted);
    NewPair pair(session, wishes, wishes);
    result = createInModule(session, attributes, [&](CK_OBJECT_HANDLE created) { pair.adopt(created & PAIR_NUMBER); });
    CK_OBJECT_HANDLE publicKey = 0;
    return result == CKR_OK ? pair.finish(CREATE, publicKey, *phObject) : result;
}

CK_RV createData(Session& session, const Template& wanted, CK_OBJECT_HANDLE_PTR phObject)
{
    if (wanted.flag(CKA_TOKEN, false))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": the token keeps no data objects");
    auto contents = std::make_shared<Contents>();
    contents->value = secretCopyOf(wanted.bytes(CKA_VALUE));
    return addSessionObject(CREATE, session, CKO_DATA, wanted, contents, phObject);
}

/// Whether the device is where the object is changed and deleted.
bool staysOnDevice(const Object& object)
{
    const std::scoped_lock lock(state().lock);
    return object.moduleHandle != 0 && (object.owner == 0 || object.ownsPair);
}

/// A copy is tied down as its original where its template says nothing else.
Wishes wishesOfCopy(const View& view, const Template& wanted)
{
    return {true, wanted.flag(CKA_MODIFIABLE, view.isModifiable), wanted.flag(CKA_COPYABLE, view.isCopyable)};
}

/// Copies of one object in the front: another handle for what backs it.
CK_RV copyToSession(Session& session, const ObjectPtr& source, const Template& wanted, CK_OBJECT_HANDLE_PTR phNewObject)
{
    const bool isPrivate = wanted.flag(CKA_PRIVATE, source->isPrivate);
    if (isPrivate && !isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, COPY, ": the copy is private");
    const std::scoped_lock lock(state().lock);
    CK_RV result = checkStillOpen(COPY, session, isPrivate);
    if (result == CKR_OK)
        result = checkKnown(COPY, *source, CKR_OBJECT_HANDLE_INVALID);
    if (result != CKR_OK)
        return result;
    auto copy = std::make_shared<Object>(*source);
    copy->owner = session.handle;
    copy->isPrivate = isPrivate;
    copy->ownsPair = false;
    copy->followsPair = false;
    if (copy->objectClass == CKO_CERTIFICATE)
        copy->moduleHandle = 0; // Its contents are all there is to it.
    copy->isModifiable = wanted.flag(CKA_MODIFIABLE, source->isModifiable);
    copy->isCopyable = wanted.flag(CKA_COPYABLE, source->isCopyable);
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        if (needsContents(entry.type))
            copy->own[entry.type] = secretCopyOf(wanted.bytes(entry.type));
    }
    *phNewObject = addObject(state(), copy)->handle;
    return CKR_OK;
}

/// A pair that was to go with its session stays on the token. The session's objects go on standing for it; the copy is
/// what a search finds from now on.
CK_RV letPairStay(const Object& source, const Wishes& wishes, CK_OBJECT_HANDLE_PTR phNewObject)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const CK_RV result = checkKnown(COPY, source, CKR_OBJECT_HANDLE_INVALID);
    if (result != CKR_OK)
        return result;
    Token& token = *source.token;
    const CK_OBJECT_HANDLE number = source.moduleHandle & PAIR_NUMBER;
    if (!token.tokenObjects.contains(PRIVATE_KEY_BASE + number)) // It is about to be deleted with its login.
        return refuse(CKR_OBJECT_HANDLE_INVALID, COPY, ": the object is no longer there, handle=", source.handle);
    for (const CK_OBJECT_HANDLE half : {PRIVATE_KEY_BASE + number, PUBLIC_KEY_BASE + number}) {
        const auto mapped = token.tokenObjects.find(half);
        if (mapped == token.tokenObjects.end())
            continue;
        mapped->second->ownsPair = false;
        mapped->second->followsPair = mapped->second.get() != &source;
        token.tokenObjects.erase(mapped);
    }
    const ObjectPtr copy = objectOf(state, token, source.moduleHandle);
    copy->contents = source.contents;
    copy->isModifiable = wishes.isModifiable;
    copy->isCopyable = wishes.isCopyable;
    *phNewObject = copy->handle;
    return CKR_OK;
}

CK_RV keepPair(Session& session, const ObjectPtr& source, const View& view, const Template& wanted,
               CK_OBJECT_HANDLE_PTR phNewObject)
{
    CK_RV result = checkMayWrite(COPY, session);
    if (result == CKR_OK)
        result = checkNames(COPY, wanted);
    if (result != CKR_OK)
        return result;
    result = renamePair(session, source->handle, wanted);
    return result == CKR_OK ? letPairStay(*source, wishesOfCopy(view, wanted), phNewObject) : result;
}

/// Whether the half of a former session pair has yet to follow the other one, which a copy keeps on the token.
bool followsPair(const Object& object)
{
    const std::scoped_lock lock(state().lock);
    return object.followsPair;
}

CK_RV followPair(Session& session, const ObjectPtr& source, const View& view, const Template& wanted,
                 CK_OBJECT_HANDLE_PTR phNewObject)
{
    CK_RV result = checkMayWrite(COPY, session);
    if (result == CKR_OK)
        result = checkNames(COPY, wanted);
    if (result == CKR_OK) // Another process may have put another pair in its place.
        result = readContents(COPY, session.token, source, CKR_OBJECT_HANDLE_INVALID);
    if (result == CKR_OK)
        result = giveHalf(COPY, session, *source, wanted, wishesOfCopy(view, wanted), phNewObject);
    const std::scoped_lock lock(state().lock);
    source->followsPair = result != CKR_OK;
    return result;
}

CK_RV copyToToken(Session& session, const ObjectPtr& source, const View& view, const Template& wanted,
                  CK_OBJECT_HANDLE_PTR phNewObject)
{
    if (isKey(view.objectClass) && !view.isTokenObject && staysOnDevice(*source))
        return keepPair(session, source, view, wanted, phNewObject);
    if (followsPair(*source))
        return followPair(session, source, view, wanted, phNewObject);
    if (view.objectClass != CKO_CERTIFICATE || view.isTokenObject)
        return refuse(CKR_TEMPLATE_INCONSISTENT, COPY, ": the token cannot hold this twice, handle=", source->handle);
    if (wanted.flag(CKA_PRIVATE, view.isPrivate))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, COPY, ": certificates on the token are public");
    SecretBytes label;
    SecretBytes id;
    attributeOf(view, CKA_LABEL, label);
    attributeOf(view, CKA_ID, id);
    if (wanted.has(CKA_LABEL))
        label = secretCopyOf(wanted.bytes(CKA_LABEL));
    if (wanted.has(CKA_ID))
        id = secretCopyOf(wanted.bytes(CKA_ID));
    return storeCertificate(COPY, session, view.contents->value, label, id, wishesOfCopy(view, wanted), phNewObject);
}

/// A copy may have another place, label and ID, and may be tied down further; all else must be as it is.
CK_RV checkCopyTemplate(const View& view, bool isFrontsOwn, const Template& wanted)
{
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        const CK_ATTRIBUTE_TYPE type = entry.type;
        SecretBytes value;
        const Answer answer = attributeOf(view, type, value);
        if (answer == Answer::NotThere)
            return refuse(CKR_ATTRIBUTE_TYPE_INVALID, COPY, ": no such attribute here, type=", type);
        const bool mayDiffer = type == CKA_TOKEN || type == CKA_LABEL || type == CKA_ID || type == CKA_MODIFIABLE ||
                               type == CKA_COPYABLE || type == CKA_SUBJECT || (type == CKA_PRIVATE && isFrontsOwn);
        if (!mayDiffer && (answer == Answer::Sensitive || !sameBytes(value, wanted.bytes(type))))
            return refuse(CKR_ATTRIBUTE_READ_ONLY, COPY, ": cannot be changed, type=", type);
    }
    return CKR_OK;
}

CK_RV checkChange(const char* name, const View& view, const Object& object, const CK_ATTRIBUTE& entry)
{
    const CK_ATTRIBUTE_TYPE type = entry.type;
    SecretBytes value;
    if (attributeOf(view, type, value) == Answer::NotThere)
        return refuse(CKR_ATTRIBUTE_TYPE_INVALID, name, ": no such attribute here, type=", type);
    const bool isName = type == CKA_LABEL || type == CKA_ID;
    const bool isNote = type == CKA_SUBJECT || type == CKA_START_DATE || type == CKA_END_DATE;
    if (!view.isModifiable || !(isName || (isNote && !staysOnDevice(object))))
        return refuse(CKR_ATTRIBUTE_READ_ONLY, name, ": cannot be changed, type=", type);
    if (!staysOnDevice(object))
        return CKR_OK;
    return checkName(name, type, Bytes(static_cast<const unsigned char*>(entry.pValue), entry.ulValueLen));
}

/// Both halves are one record on the device.
void noteNewNames(const Object& changed, const Template& wanted)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const CK_OBJECT_HANDLE number = changed.moduleHandle & PAIR_NUMBER;
    for (const CK_OBJECT_HANDLE half : {PRIVATE_KEY_BASE + number, PUBLIC_KEY_BASE + number}) {
        const auto mapped = changed.token->tokenObjects.find(half);
        if (mapped == changed.token->tokenObjects.end() || !mapped->second->contents)
            continue;
        auto contents = std::make_shared<Contents>(*mapped->second->contents);
        if (wanted.has(CKA_LABEL))
            contents->label = secretCopyOf(wanted.bytes(CKA_LABEL));
        if (wanted.has(CKA_ID))
            contents->id = secretCopyOf(wanted.bytes(CKA_ID));
        mapped->second->contents = std::move(contents);
    }
}

/// The same pair may have come back under its number, as another object, before the gate let the call in.
CK_RV checkKnownBehindGate(const char* name, const Object& object)
{
    const std::scoped_lock lock(state().lock);
    return checkKnown(name, object, CKR_OBJECT_HANDLE_INVALID);
}

CK_RV changeOnDevice(Session& session, const ObjectPtr& object, const View& view, const Template& wanted)
{
    CK_RV result = view.isTokenObject ? checkMayWrite("C_SetAttributeValue", session) : CKR_OK;
    if (result != CKR_OK)
        return result;
    std::vector<CK_ATTRIBUTE> attributes(wanted.entries().begin(), wanted.entries().end());
    const CK_ULONG number = object->moduleHandle & PAIR_NUMBER;
    result = changePair(session.token, number, view.contents->identity, [&](CK_SESSION_HANDLE moduleSession) {
        CK_RV status = checkKnownBehindGate("C_SetAttributeValue", *object);
        if (status == CKR_OK)
            status = module().C_SetAttributeValue(moduleSession, PRIVATE_KEY_BASE + number, attributes.data(),
                                                  static_cast<CK_ULONG>(attributes.size()));
        if (status == CKR_OK)
            noteNewNames(*object, wanted);
        return status;
    });
    return result == CKR_KEY_HANDLE_INVALID ? CKR_OBJECT_HANDLE_INVALID : result;
}

CK_RV destroyCertificate(Session& session, const ObjectPtr& object)
{
    const CK_RV result = readContents(DESTROY, session.token, object, CKR_OBJECT_HANDLE_INVALID);
    if (result != CKR_OK)
        return result;
    return changeObjects(session.token, [&](KeyGate::Stay& /*stay*/, CK_SESSION_HANDLE moduleSession) {
        CK_RV status = checkKnownBehindGate(DESTROY, *object);
        if (status == CKR_OK)
            status = module().C_DestroyObject(moduleSession, object->moduleHandle);
        if (status != CKR_OK)
            return status;
        forgetObject(*object);
        const std::scoped_lock lock(state().lock);
        noteGone(session.token, object->moduleHandle);
        return CKR_OK;
    });
}

CK_RV destroyPair(Session& session, const ObjectPtr& privateKey)
{
    View view;
    CK_RV result = viewWithContents(DESTROY, session.token, privateKey, CKR_OBJECT_HANDLE_INVALID, view);
    if (result != CKR_OK)
        return result;
    const CK_ULONG number = privateKey->moduleHandle & PAIR_NUMBER;
    result = changePair(session.token, number, view.contents->identity, [&](CK_SESSION_HANDLE moduleSession) {
        CK_RV status = checkKnownBehindGate(DESTROY, *privateKey);
        if (status == CKR_OK)
            status = module().C_DestroyObject(moduleSession, privateKey->moduleHandle);
        if (status == CKR_OK)
            forgetPair(session.token, number);
        return status;
    });
    return result == CKR_KEY_HANDLE_INVALID ? CKR_OBJECT_HANDLE_INVALID : result;
}

/// A public half whose pair is gone already: the host, who knows two objects, may destroy this one too.
bool takeHalfGone(const Session& session, CK_OBJECT_HANDLE hObject)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const auto found = state.objects.find(hObject);
    if (found == state.objects.end() || found->second->token != &session.token || found->second->fate != Fate::HalfGone)
        return false;
    state.objects.erase(found);
    return true;
}

} // namespace

void forgetPair(Token& token, CK_ULONG number)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    noteGone(token, PUBLIC_KEY_BASE + number); // By which pairs are searched.
    std::erase_if(token.tokenObjects, [&](const auto& entry) {
        return isKey(entry.second->objectClass) && (entry.first & PAIR_NUMBER) == number;
    });
    std::erase_if(state.objects, [&](const auto& entry) {
        Object& object = *entry.second;
        if (object.token != &token || object.moduleHandle == 0 || !isKey(object.objectClass) ||
            (object.moduleHandle & PAIR_NUMBER) != number)
            return false;
        if (object.objectClass == CKO_PUBLIC_KEY && object.fate == Fate::Live) {
            object.fate = Fate::HalfGone;
            object.contents.reset();
        }
        return object.fate != Fate::HalfGone;
    });
}

CK_RV checkMayWrite(const char* name, const Session& session)
{
    if (!session.isReadWrite)
        return refuse(CKR_SESSION_READ_ONLY, name, ": session is read-only");
    if (!isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, name, ": changing the token needs a login");
    return CKR_OK;
}

CK_RV checkName(const char* name, CK_ATTRIBUTE_TYPE type, Bytes value)
{
    const bool hasZeroByte = std::find(value.begin(), value.end(), 0) != value.end();
    if (value.empty() || value.size() > LABEL_CAPACITY || (type == CKA_LABEL && hasZeroByte))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, name, ": the token cannot keep this, type=", type,
                      " ulValueLen=", value.size());
    return CKR_OK;
}

Wishes wishesOf(const Template& wanted)
{
    return {wanted.flag(CKA_TOKEN, false), wanted.flag(CKA_MODIFIABLE, true), wanted.flag(CKA_COPYABLE, true)};
}

CK_RV addSessionObject(const char* name, Session& session, CK_OBJECT_CLASS objectClass, const Template& wanted,
                       std::shared_ptr<const Contents> contents, CK_OBJECT_HANDLE_PTR phObject)
{
    auto object = std::make_shared<Object>();
    object->token = &session.token;
    object->objectClass = objectClass;
    object->owner = session.handle;
    object->isPrivate = wanted.flag(CKA_PRIVATE, false);
    const Wishes wishes = wishesOf(wanted);
    object->isModifiable = wishes.isModifiable;
    object->isCopyable = wishes.isCopyable;
    object->contents = std::move(contents);
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        if (needsContents(entry.type) && entry.type != CKA_VALUE_LEN) // The value has its own length.
            object->own[entry.type] = secretCopyOf(wanted.bytes(entry.type));
    }
    if (object->isPrivate && !isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, name, ": the object is private");
    const std::scoped_lock lock(state().lock);
    const CK_RV result = checkStillOpen(name, session, object->isPrivate);
    if (result == CKR_OK)
        *phObject = addObject(state(), std::move(object))->handle;
    return result;
}

NewPair::NewPair(Session& session, const Wishes& ofPublic, const Wishes& ofPrivate)
    : session_(session), ofPublic_(ofPublic), ofPrivate_(ofPrivate)
{
    const std::scoped_lock lock(state().lock);
    lastObject_ = state().lastObject;
    pin_ = keepPin(session.token);
}

/// Another call may have found the pair already: then the objects are there.
void NewPair::adopt(CK_ULONG number)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const auto half = [&](CK_OBJECT_HANDLE base, const Wishes& wishes) {
        const auto old = session_.token.tokenObjects.find(base + number);
        if (old != session_.token.tokenObjects.end() && old->second->handle <= lastObject_) {
            state.objects.erase(old->second->handle); // Of a pair that another process has deleted.
            session_.token.tokenObjects.erase(old);
        }
        ObjectPtr object = objectOf(state, session_.token, base + number);
        object->isModifiable = wishes.isModifiable;
        object->isCopyable = wishes.isCopyable;
        // The pair is one thing on the token: the private half decides where it stays.
        object->owner = ofPrivate_.onToken ? 0 : session_.handle;
        object->ownsPair = !ofPrivate_.onToken;
        return object;
    };
    publicKey_ = half(PUBLIC_KEY_BASE, ofPublic_);
    privateKey_ = half(PRIVATE_KEY_BASE, ofPrivate_);
    removals_ = session_.token.removals;
    if (session_.token.user == User::User)
        pin_ = keepPin(session_.token);
}

CK_RV NewPair::read(const char* name)
{
    const CK_RV result = readContents(name, session_.token, privateKey_, CKR_FUNCTION_FAILED);
    const std::scoped_lock lock(state().lock);
    const CK_RV cause = checkStillOpen(name, session_, true);
    return cause == CKR_OK ? result : cause;
}

/// None is left on the token that nobody knows of, be it that it cannot be read or that its session or login is over.
void NewPair::withdraw(const char* name)
{
    Token& token = session_.token;
    const CK_OBJECT_HANDLE handle = privateKey_->moduleHandle;
    CK_RV result = CKR_OK;
    {
        KeyGate::Stay stay = state().gate.enterAlone();
        {
            const std::scoped_lock lock(state().lock);
            const bool isKnown = state().objects.contains(privateKey_->handle);
            const bool isDoomed = !isKnown && privateKey_->ownsPair && privateKey_->contents; // With session or login.
            if (isDoomed || hasGoneSince(token, publicKey_->moduleHandle, removals_))
                return;
        }
        result = putKeptPinInForce(stay, token, pin_);
        if (result == CKR_OK)
            result = module().C_DestroyObject(token.loginSession, handle);
        stay.holds().pair.reset();
        for (const ObjectPtr& half : {publicKey_, privateKey_})
            forgetObject(*half);
        if (result == CKR_OK)
            forgetPair(token, handle - PRIVATE_KEY_BASE);
        dropKeptPin(stay);
    }
    if (result != CKR_OK)
        logError(name, ": the new key pair can be neither read nor deleted, number=", handle - PRIVATE_KEY_BASE, " : ",
                 result);
}

CK_RV NewPair::finish(const char* name, CK_OBJECT_HANDLE& publicKey, CK_OBJECT_HANDLE& privateKey)
{
    const CK_RV result = read(name);
    if (result != CKR_OK) {
        withdraw(name);
        return result;
    }
    publicKey = publicKey_->handle;
    privateKey = privateKey_->handle;
    return CKR_OK;
}

CK_RV createObject(Session& session, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phObject)
{
    Template wanted;
    CK_RV result = Template::read(CREATE, pTemplate, ulCount, wanted);
    if (result != CKR_OK)
        return result;
    if (phObject == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, CREATE, ": phObject is NULL");
    if (!wanted.has(CKA_CLASS))
        return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": CKA_CLASS is missing");
    const CK_OBJECT_CLASS objectClass = wanted.number(CKA_CLASS, CK_UNAVAILABLE_INFORMATION);
    using Create = CK_RV (*)(Session&, const Template&, CK_OBJECT_HANDLE_PTR);
    constexpr std::pair<CK_OBJECT_CLASS, Create> CREATORS[] = {{CKO_DATA, createData},
                                                               {CKO_CERTIFICATE, createCertificate},
                                                               {CKO_PUBLIC_KEY, createPublicKey},
                                                               {CKO_PRIVATE_KEY, createPrivateKey}};
    const auto* creator = std::find_if(std::begin(CREATORS), std::end(CREATORS),
                                       [&](const auto& each) { return each.first == objectClass; });
    if (creator == std::end(CREATORS))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, CREATE, ": unsupported CKA_CLASS=", objectClass);
    if (isKey(objectClass) && !wanted.has(CKA_KEY_TYPE))
        return refuse(CKR_TEMPLATE_INCOMPLETE, CREATE, ": CKA_KEY_TYPE is missing");
    result = checkTemplate(CREATE, wanted, objectClass, wanted.number(CKA_KEY_TYPE, CKK_RSA));
    if (result == CKR_OK && wanted.flag(CKA_TOKEN, false))
        result = checkNames(CREATE, wanted);
    return result == CKR_OK ? creator->second(session, wanted, phObject) : result;
}

CK_RV copyObject(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                 CK_OBJECT_HANDLE_PTR phNewObject)
{
    ObjectPtr source;
    CK_RV result = findObject(COPY, session, hObject, CKR_OBJECT_HANDLE_INVALID, source);
    Template wanted;
    if (result == CKR_OK)
        result = Template::read(COPY, pTemplate, ulCount, wanted);
    if (result != CKR_OK)
        return result;
    if (phNewObject == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, COPY, ": phNewObject is NULL");
    View view;
    result = viewWithContents(COPY, session.token, source, CKR_OBJECT_HANDLE_INVALID, view);
    if (result == CKR_OK && !view.isCopyable)
        return refuse(CKR_ACTION_PROHIBITED, COPY, ": the object may not be copied, handle=", hObject);
    if (result == CKR_OK)
        result = checkCopyTemplate(view, source->moduleHandle == 0, wanted);
    if (result != CKR_OK)
        return result;
    return wanted.flag(CKA_TOKEN, view.isTokenObject) ? copyToToken(session, source, view, wanted, phNewObject)
                                                      : copyToSession(session, source, wanted, phNewObject);
}

CK_RV destroyObject(Session& session, CK_OBJECT_HANDLE hObject)
{
    if (takeHalfGone(session, hObject))
        return CKR_OK;
    ObjectPtr object;
    CK_RV result = findObject(DESTROY, session, hObject, CKR_OBJECT_HANDLE_INVALID, object);
    if (result == CKR_OK && viewOf(*object).isTokenObject)
        result = checkMayWrite(DESTROY, session);
    if (result != CKR_OK)
        return result;
    if (!staysOnDevice(*object)) {
        forgetObject(*object);
        return CKR_OK;
    }
    if (object->objectClass == CKO_PUBLIC_KEY) { // It goes with its private half; until then it is out of sight.
        const std::scoped_lock lock(state().lock);
        object->fate = Fate::Hidden;
        return CKR_OK;
    }
    return isKey(object->objectClass) ? destroyPair(session, object) : destroyCertificate(session, object);
}

CK_RV setAttributeValue(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    constexpr const char* NAME = "C_SetAttributeValue";
    ObjectPtr object;
    CK_RV result = findObject(NAME, session, hObject, CKR_OBJECT_HANDLE_INVALID, object);
    Template wanted;
    if (result == CKR_OK)
        result = Template::read(NAME, pTemplate, ulCount, wanted);
    if (result != CKR_OK)
        return result;
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, NAME, ": ulCount=", ulCount);
    View view;
    result = viewWithContents(NAME, session.token, object, CKR_OBJECT_HANDLE_INVALID, view);
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        if (result == CKR_OK)
            result = checkChange(NAME, view, *object, entry);
    }
    if (result != CKR_OK)
        return result;
    if (staysOnDevice(*object))
        return changeOnDevice(session, object, view, wanted);
    const std::scoped_lock lock(state().lock);
    for (const CK_ATTRIBUTE& entry : wanted.entries())
        object->own[entry.type] = secretCopyOf(wanted.bytes(entry.type));
    return CKR_OK;
}

} // namespace velkor::strict
