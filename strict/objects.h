// The host's objects: their handles, their contents as the module has them, and how they come and go.
#pragma once

#include <vector>

#include "cryptoki.h"
#include "strict/attributes.h"
#include "strict/device_access.h"
#include "strict/object.h"
#include "strict/state.h"

namespace velkor::strict
{

struct Session;
struct RemovedThings;

/// The object of a handle, where the session may see it. `code` answers a handle that stands for nothing.
CK_RV findObject(const char* name, const Session& session, CK_OBJECT_HANDLE hObject, CK_RV code, ObjectPtr& object);

/// The object that stands for one of the module's, which may be new. Under State::lock.
ObjectPtr objectOf(State& state, Token& token, CK_OBJECT_HANDLE moduleHandle);

/// A look at an object as it is known; its contents may be null.
View viewOf(const Object& object);

/// Reads the contents of an object that the module has, in one call. An object that has become another one is gone.
CK_RV readContents(const char* name, Token& token, const ObjectPtr& object, CK_RV code);

/// Reads the contents unless they are known, and gives a view of them.
CK_RV viewWithContents(const char* name, Token& token, const ObjectPtr& object, CK_RV code, View& view);

/// Finds the number of the key pair on the token that has this public key.
CK_RV findPairNumber(Token& token, const Contents& publicKey, CK_ULONG& number, bool& isThere);

/// Finds the public half of that pair; null when there is none.
CK_RV findPairOf(Token& token, const Contents& publicKey, ObjectPtr& half);

/// Whether nothing has made the object go. What the front deletes, it forgets before it leaves the gate, so that behind
/// it a known object's number is still its own. `code` answers for one that has gone. Under State::lock.
CK_RV checkKnown(const char* name, const Object& object, CK_RV code);

/// What is no longer there goes from the tables; not a public half that the host may still destroy once.
void forgetObject(const Object& object);

/// What a search of the module begins with.
unsigned long removalsOf(const Token& token);

/// Whether an object that had that number has gone since then: it may be another's. Under State::lock.
bool hasGoneSince(const Token& token, CK_OBJECT_HANDLE moduleHandle, unsigned long removals);

/// Notes that the number of a deleted object is free. Alone behind the gate, and under State::lock.
void noteGone(Token& token, CK_OBJECT_HANDLE moduleHandle);

/// Adds an object of the front's own, or one for a fresh object of the module.
ObjectPtr addObject(State& state, ObjectPtr object);

/// Asks the module for the objects that a template of its own finds.
CK_RV searchModule(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE>& criteria,
                   std::vector<CK_OBJECT_HANDLE>& found);

/// Objects that go with a session, with a token, or with a login. Under State::lock.
void takeObjectsOfSession(State& state, const Session& session, RemovedThings& removed);
void takeObjectsOfToken(State& state, Token& token, RemovedThings& removed);
void takeSessionPairs(State& state, RemovedThings& removed);
void takePrivateSessionObjects(State& state, Token& token, RemovedThings& removed);
void retirePrivateObjects(State& state, Token& token);

CK_RV createObject(Session& session, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phObject);
CK_RV copyObject(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                 CK_OBJECT_HANDLE_PTR phNewObject);
CK_RV destroyObject(Session& session, CK_OBJECT_HANDLE hObject);
CK_RV getObjectSize(Session& session, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize);
CK_RV getAttributeValue(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount);
CK_RV setAttributeValue(Session& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount);

/// Adds an object that only the front knows, and that goes with the session.
CK_RV addSessionObject(const char* name, Session& session, CK_OBJECT_CLASS objectClass, const Template& wanted,
                       std::shared_ptr<const Contents> contents, CK_OBJECT_HANDLE_PTR phObject);

/// What a template says of an object beside its contents.
struct Wishes {
    bool onToken = false;
    bool isModifiable = true;
    bool isCopyable = true;
};
Wishes wishesOf(const Template& wanted);

/// A key pair that a call brings to the token: it becomes two objects, or is taken off the token again.
class NewPair
{
public:
    /// Before the pair is there.
    NewPair(Session& session, const Wishes& ofPublic, const Wishes& ofPrivate);
    /// Once it is there, and before the gate is left.
    void adopt(CK_ULONG number);
    /// Reads the pair; not from behind the gate.
    CK_RV finish(const char* name, CK_OBJECT_HANDLE& publicKey, CK_OBJECT_HANDLE& privateKey);

private:
    CK_RV read(const char* name);
    void withdraw(const char* name);

    Session& session_;
    Wishes ofPublic_;
    Wishes ofPrivate_;
    CK_OBJECT_HANDLE lastObject_; ///< All handles up to it stand for what was there before.
    KeptPin pin_;
    unsigned long removals_ = 0; ///< Token::removals when the pair was there.
    ObjectPtr publicKey_;
    ObjectPtr privateKey_;
};

/// Every object of a pair that is gone goes too; a public half may still be destroyed once by the host.
void forgetPair(Token& token, CK_ULONG number);

/// Whether the session may change token objects, and whether the user is there whose PIN the device wants.
CK_RV checkMayWrite(const char* name, const Session& session);

/// Whether a label or an ID can be kept on the token.
CK_RV checkName(const char* name, CK_ATTRIBUTE_TYPE type, Bytes value);

} // namespace velkor::strict
