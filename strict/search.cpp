#include "strict/search.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/attributes.h"
#include "strict/der.h"
#include "strict/device_access.h"
#include "strict/login.h"
#include "strict/objects.h"
#include "strict/sessions.h"
#include "strict/slots.h"

namespace velkor::strict
{
namespace
{

constexpr const char* INIT = "C_FindObjectsInit";
constexpr CK_OBJECT_CLASS ANY_CLASS = CK_UNAVAILABLE_INFORMATION;
/// So few objects are read when they are first found, which fixes what they are.
constexpr std::size_t FEW = 4;

/// The one criterion that the module is given beside the class: it honours no second one.
struct Criterion {
    CK_ATTRIBUTE_TYPE asked;  ///< What the host's template names.
    CK_ATTRIBUTE_TYPE passed; ///< What the module is given instead.
    bool needsPin;            ///< The module may write a label while it compares labels.
};

constexpr Criterion OF_KEYS[] = {
    {CKA_ID, CKA_ID, false},
    {CKA_MODULUS, CKA_VALUE, false},
    {CKA_EC_POINT, CKA_VALUE, false},
    {CKA_LABEL, CKA_LABEL, true},
};
constexpr Criterion OF_CERTIFICATES[] = {
    {CKA_VALUE, CKA_VALUE, false},
    {CKA_SUBJECT, CKA_SUBJECT, false},
    {CKA_ID, CKA_ID, false},
    {CKA_LABEL, CKA_LABEL, false},
};

/// What one look into the module is to find.
struct Query {
    CK_OBJECT_CLASS objectClass;
    const Criterion* criterion = nullptr;
    SecretBytes value;
};

template <std::size_t Count>
const Criterion* chooseCriterion(const Template& wanted, const Criterion (&criteria)[Count])
{
    const auto* found = std::find_if(std::begin(criteria), std::end(criteria),
                                     [&](const Criterion& each) { return !wanted.bytes(each.asked).empty(); });
    return found != std::end(criteria) ? found : nullptr;
}

/// The module reads labels up to a zero byte.
SecretBytes valueFor(const Criterion& criterion, const Template& wanted)
{
    const Bytes value = wanted.bytes(criterion.asked);
    SecretBytes passed = secretCopyOf(value);
    if (criterion.asked == CKA_LABEL)
        passed.push_back(0);
    if (criterion.asked == CKA_EC_POINT)
        passed = secretCopyOf(barePoint(value));
    if (criterion.asked == CKA_MODULUS)
        passed = secretCopyOf(withoutLeadingZeros(value));
    return passed;
}

Query queryFor(CK_OBJECT_CLASS objectClass, const Template& wanted)
{
    const Criterion* criterion =
        objectClass == CKO_CERTIFICATE ? chooseCriterion(wanted, OF_CERTIFICATES) : chooseCriterion(wanted, OF_KEYS);
    Query query{objectClass, criterion, {}};
    if (criterion != nullptr)
        query.value = valueFor(*criterion, wanted);
    return query;
}

CK_RV runQuery(CK_SESSION_HANDLE session, Query& query, std::vector<CK_OBJECT_HANDLE>& found)
{
    std::vector<CK_ATTRIBUTE> criteria = {{CKA_CLASS, &query.objectClass, sizeof query.objectClass}};
    if (query.criterion != nullptr)
        criteria.push_back({query.criterion->passed, query.value.data(), static_cast<CK_ULONG>(query.value.size())});
    return searchModule(session, criteria, found);
}

/// A device may hold a modulus in DER.
CK_RV findInModule(Token& token, Query query, std::vector<CK_OBJECT_HANDLE>& found)
{
    const auto work = [&](CK_SESSION_HANDLE session) { return runQuery(session, query, found); };
    if (query.criterion != nullptr && query.criterion->needsPin)
        return usePin(token, Needs::Nothing, work);
    const CK_RV result = useToken(token, work);
    if (result != CKR_OK || !found.empty() || query.criterion == nullptr || query.criterion->asked != CKA_MODULUS)
        return result;
    Contents contents;
    contents.keyType = CKK_RSA;
    contents.modulus = query.value;
    CK_ULONG number = 0;
    bool isThere = false;
    const CK_RV again = findPairNumber(token, contents, number, isThere);
    if (isThere)
        found.push_back(PUBLIC_KEY_BASE + number);
    return again;
}

/// An object that may match, and what is already certain about it.
struct Candidate {
    ObjectPtr object;
    CK_ATTRIBUTE_TYPE certain; ///< Compared by the module just now.
};
constexpr CK_ATTRIBUTE_TYPE NOTHING = CK_UNAVAILABLE_INFORMATION;

/// Makes candidates of what a look into the module found that began at that count of removals.
class Finds
{
public:
    Finds(Token& token, Query query, std::vector<Candidate>& candidates)
        : token_(token), query_(std::move(query)), candidates_(candidates), removals_(removalsOf(token))
    {
    }

    CK_RV look() { return findInModule(token_, query_, found_); }

    /// Under State::lock. `change` leads from the handles that were found to those of the objects.
    void add(CK_OBJECT_HANDLE change = 0)
    {
        for (const CK_OBJECT_HANDLE handle : found_) {
            if (hasGoneSince(token_, handle, removals_))
                continue;
            const ObjectPtr object = objectOf(state(), token_, handle - change);
            if (object->fate == Fate::Live)
                candidates_.push_back({object, query_.criterion != nullptr ? query_.criterion->asked : NOTHING});
        }
    }

private:
    Token& token_;
    Query query_;
    std::vector<Candidate>& candidates_;
    unsigned long removals_;
    std::vector<CK_OBJECT_HANDLE> found_;
};

/// The module is asked for public keys also where private ones are wanted: they are the same pairs, and their login is
/// the front's to know.
CK_RV addKeysOfToken(Session& session, const Template& wanted, CK_OBJECT_CLASS objectClass,
                     std::vector<Candidate>& candidates)
{
    Finds finds(session.token, queryFor(CKO_PUBLIC_KEY, wanted), candidates);
    const CK_RV result = finds.look();
    const std::scoped_lock lock(state().lock);
    if (objectClass != CKO_PRIVATE_KEY)
        finds.add();
    if (objectClass != CKO_PUBLIC_KEY && session.token.user == User::User)
        finds.add(PUBLIC_KEY_BASE - PRIVATE_KEY_BASE);
    return result;
}

CK_RV addCertificatesOfToken(Session& session, const Template& wanted, std::vector<Candidate>& candidates)
{
    Finds finds(session.token, queryFor(CKO_CERTIFICATE, wanted), candidates);
    const CK_RV result = finds.look();
    const std::scoped_lock lock(state().lock);
    finds.add();
    return result;
}

/// Session objects that are on no token's list.
void addSessionObjects(const Session& session, CK_OBJECT_CLASS objectClass, std::vector<Candidate>& candidates)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    for (const auto& entry : state.objects) {
        const Object& object = *entry.second;
        const bool isMeant = object.token == &session.token && object.owner != 0 && object.fate == Fate::Live &&
                             (objectClass == ANY_CLASS || object.objectClass == objectClass) &&
                             (!object.isPrivate || session.token.user == User::User);
        if (isMeant && !(isKey(object.objectClass) && object.ownsPair))
            candidates.push_back({entry.second, NOTHING});
    }
}

CK_RV collectCandidates(Session& session, const Template& wanted, std::vector<Candidate>& candidates)
{
    const CK_OBJECT_CLASS objectClass = wanted.number(CKA_CLASS, ANY_CLASS);
    CK_RV result = CKR_OK;
    if (objectClass == ANY_CLASS || isKey(objectClass))
        result = addKeysOfToken(session, wanted, objectClass, candidates);
    if (result == CKR_OK && (objectClass == ANY_CLASS || objectClass == CKO_CERTIFICATE))
        result = addCertificatesOfToken(session, wanted, candidates);
    if (result == CKR_OK)
        addSessionObjects(session, objectClass, candidates);
    return result;
}

/// Names may be changed by other processes: they have to be read, unless the module has just compared them.
bool mustRead(const View& view, const Candidate& candidate, const Template& wanted)
{
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        const bool isOfSomeKeysOnly = entry.type == CKA_MODULUS || entry.type == CKA_EC_POINT;
        if (!needsContents(entry.type) || (entry.type == candidate.certain && !isOfSomeKeysOnly))
            continue;
        const bool isName = entry.type == CKA_LABEL || entry.type == CKA_ID;
        if (!view.contents || (isName && !view.own.contains(entry.type)))
            return true;
    }
    return false;
}

bool matches(const View& view, const Candidate& candidate, const Template& wanted)
{
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        SecretBytes value;
        if (attributeOf(view, entry.type, value) != Answer::Value)
            return false;
        const bool isCertain = entry.type == candidate.certain && !view.own.contains(entry.type);
        if (!isCertain && !sameBytes(value, wanted.bytes(entry.type)))
            return false;
    }
    return true;
}

/// Cheap tests come first, so that no more objects are read than have to be.
bool matchesWithoutReading(const View& view, const Template& wanted)
{
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        SecretBytes value;
        if (!needsContents(entry.type) &&
            (attributeOf(view, entry.type, value) != Answer::Value || !sameBytes(value, wanted.bytes(entry.type))))
            return false;
    }
    return true;
}

/// An object that goes while it is looked at does not match.
CK_RV check(Session& session, const Candidate& candidate, const Template& wanted, bool readAlways, bool& isFound)
{
    isFound = false;
    View view = viewOf(*candidate.object);
    if (!matchesWithoutReading(view, wanted))
        return CKR_OK;
    if (mustRead(view, candidate, wanted) || (readAlways && !view.contents)) {
        const CK_RV result = readContents(INIT, session.token, candidate.object, CKR_OBJECT_HANDLE_INVALID);
        if (result != CKR_OK)
            return result == CKR_OBJECT_HANDLE_INVALID ? CKR_OK : result;
        view = viewOf(*candidate.object);
    }
    isFound = !view.contents || matches(view, candidate, wanted);
    return CKR_OK;
}

/// A device that has gone looks like an empty one.
CK_RV checkStillThere(Session& session)
{
    Token* token = nullptr;
    const CK_RV result = findPresentToken(INIT, session.token.slotID, token);
    return result == CKR_TOKEN_NOT_PRESENT ? CKR_DEVICE_REMOVED : result;
}

CK_RV checkClass(const Template& wanted)
{
    if (wanted.has(CKA_CLASS) && wanted.bytes(CKA_CLASS).size() != sizeof(CK_OBJECT_CLASS))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, INIT, ": wrong size for CKA_CLASS");
    return CKR_OK;
}

} // namespace

CK_RV findObjectsInit(Session& session, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    if (session.operations.search)
        return refuse(CKR_OPERATION_ACTIVE, INIT, ": a search is active");
    Template wanted;
    CK_RV result = Template::read(INIT, pTemplate, ulCount, wanted);
    if (result == CKR_OK)
        result = checkClass(wanted);
    std::vector<Candidate> candidates;
    if (result == CKR_OK)
        result = collectCandidates(session, wanted, candidates);
    if (result == CKR_OK && candidates.empty())
        result = checkStillThere(session);
    Search search;
    for (const Candidate& candidate : candidates) {
        bool isFound = false;
        if (result == CKR_OK)
            result = check(session, candidate, wanted, candidates.size() <= FEW, isFound);
        if (isFound)
            search.found.push_back(candidate.object->handle);
    }
    if (result == CKR_OK)
        session.operations.search = std::move(search);
    return result;
}

CK_RV findObjects(Session& session, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                  CK_ULONG_PTR pulObjectCount)
{
    if (!session.operations.search)
        return refuse(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjects: no search is active");
    if ((phObject == nullptr && ulMaxObjectCount != 0) || pulObjectCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjects: no room for handles, ulMaxObjectCount=", ulMaxObjectCount);
    Search& search = *session.operations.search;
    const std::size_t count =
        std::min(static_cast<std::size_t>(ulMaxObjectCount), search.found.size() - search.position);
    std::copy_n(search.found.begin() + static_cast<std::ptrdiff_t>(search.position), count, phObject);
    search.position += count;
    *pulObjectCount = static_cast<CK_ULONG>(count);
    return CKR_OK;
}

CK_RV findObjectsFinal(Session& session)
{
    if (!session.operations.search)
        return refuse(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjectsFinal: no search is active");
    session.operations.search.reset();
    return CKR_OK;
}

} // namespace velkor::strict
