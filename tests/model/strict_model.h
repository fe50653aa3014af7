// What the standard says of sessions, logins, session objects, searches, digests and signatures, as a program of its
// own: small, and silent where the standard leaves a choice. It makes each call of the strict front and holds what that
// answers against what it has to.
#pragma once

#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "strict_device.h"
#include "strict_steps.h"

class StrictWorld
{
public:
    /// `folder` is for the log and gets lost. The process has not used the strict front yet.
    explicit StrictWorld(const std::filesystem::path& folder);

    /// Makes a call and compares. What differs, in words; empty when nothing does.
    std::string step(const StrictStep& step);

private:
    using Codes = std::set<CK_RV>;

    /// A digest or a signature in the making.
    struct Operation {
        std::size_t size = 0; ///< Of the result.
        bool hasParts = false;
        bool isWhole = false;    ///< It is done in one call, which a length was asked of.
        bool endIsAsked = false; ///< The length of the end of parts was asked for.
        std::string gathered;
        int login = 0; ///< With which login it has begun; 0: it needs none.
    };

    struct Session {
        CK_SESSION_HANDLE handle = 0;
        std::size_t token = 0;
        bool writes = false;
        bool isOpen = false;
        std::optional<Operation> digest;
        std::optional<Operation> signature;
        std::optional<std::size_t> left; ///< What a search has not given yet.
        bool searchIsSure = true;        ///< Nothing has come or gone since it began.
    };

    struct Object {
        CK_OBJECT_HANDLE handle = 0;
        std::size_t token = 0;
        std::size_t owner = 0; ///< Its session.
        bool isPrivate = false;
        bool isThere = false;
        std::string value;
    };

    static constexpr int NO_LOGIN = -1;

    struct Token {
        std::string device;
        std::string pin = "1234";
        std::optional<CK_USER_TYPE> user;
        int login = 0; ///< Their number; a private handle ends with the login that it was seen in.
        CK_OBJECT_HANDLE key = 0;
        int keyLogin = NO_LOGIN; ///< Also when the library has ended since.
    };

    std::string initialize();
    std::string finalize();
    std::string openSession(const StrictStep& step);
    std::string closeSession(const StrictStep& step);
    std::string closeAllSessions(const StrictStep& step);
    std::string sessionInfo(const StrictStep& step);
    std::string tokenInfo(const StrictStep& step);
    std::string login(const StrictStep& step);
    std::string logout(const StrictStep& step);
    std::string setPin(const StrictStep& step);
    std::string digestInit(const StrictStep& step);
    std::string findKey(const StrictStep& step);
    std::string signInit(const StrictStep& step);
    std::string create(const StrictStep& step);
    std::string destroy(const StrictStep& step);
    std::string readValue(const StrictStep& step);
    std::string findInit(const StrictStep& step);
    std::string find(const StrictStep& step);
    std::string findFinal(const StrictStep& step);
    std::string random(const StrictStep& step);

    using Whole = CK_C_Digest; // Digests and signatures have the same parameters.
    using Update = CK_C_DigestUpdate;
    using Final = CK_C_DigestFinal;
    using Kept = std::optional<Operation> Session::*;
    std::string whole(const StrictStep& step, Kept kept, Whole call);
    std::string update(const StrictStep& step, Kept kept, Update call);
    std::string finish(const StrictStep& step, Kept kept, Final call);
    std::string deliver(const StrictStep& step, Kept kept, const std::string& data,
                        const std::function<CK_RV(CK_BYTE_PTR, CK_ULONG_PTR)>& call);

    Session* session(const StrictStep& step);
    CK_SESSION_HANDLE handle(const StrictStep& step);
    /// Why a call with this session is refused before anything else; nothing when it is not.
    std::optional<Codes> refusal(const StrictStep& step);
    bool isLoggedOut(const Session& session, const Operation& operation) const;
    void end(Session& session);
    void endLogin(std::size_t token);
    void objectsChanged(std::size_t token);
    CK_RV wrongPin(std::size_t token) const;
    static std::string compare(CK_RV code, const Codes& allowed);
    static std::string digestOf(const std::string& data, std::size_t size);

    std::shared_ptr<StrictDevice> device_ = std::make_shared<StrictDevice>();
    const CK_FUNCTION_LIST* front_ = nullptr;
    bool isInitialized_ = false;
    std::vector<CK_SLOT_ID> slots_;
    Token tokens_[2];
    std::deque<Session> sessions_;
    std::deque<Object> objects_;
};
