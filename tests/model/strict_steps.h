// The steps of a run against the model of the standard. Sessions and objects are named by the order in which a run has
// made them, since their handles are the library's to choose.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "cryptoki.h"

enum class StrictCall {
    Initialize, // clang-format off
    Finalize, OpenSession, CloseSession, CloseAllSessions, SessionInfo, TokenInfo, Login, Logout, SetPin, DigestInit,
    Digest, DigestUpdate, DigestFinal, FindKey, SignInit, Sign, SignUpdate, SignFinal, Create, Destroy, ReadValue,
    FindInit, Find, FindFinal, Random,
    // clang-format on
};

struct StrictStep {
    StrictCall call = StrictCall::SessionInfo;
    std::size_t session = 0;
    std::size_t object = 0;
    std::size_t slot = 0;
    CK_ULONG number = 0;  ///< Flags, kind of user, mechanism, whether an object is private, a count.
    std::size_t room = 0; ///< What the caller says that there is; NO_ROOM for a null pointer.
    std::string text;     ///< PIN, data, value.
    std::string more;     ///< The new PIN.

    static constexpr std::size_t NO_ROOM = static_cast<std::size_t>(-1);
};

std::string described(const StrictStep& step);

/// Nothing of a step can be left out.
inline bool simplified(StrictStep& /*step*/)
{
    return false;
}

/// Makes runs: the same ones from the same seed.
class StrictStepMaker
{
public:
    explicit StrictStepMaker(std::uint64_t seed) : random_(seed) {}

    std::vector<StrictStep> run(std::size_t length);

private:
    std::size_t below(std::size_t limit) { return random_() % limit; }
    bool inPercent(std::size_t percent) { return below(100) < percent; }
    template <typename Item, std::size_t Size>
    Item oneOf(const Item (&items)[Size])
    {
        return items[below(Size)];
    }
    StrictStep step(StrictCall call);
    void addDigest();
    void addSignature();
    void addSearch();
    void addRestart();

    std::mt19937_64 random_;
    std::vector<StrictStep> steps_;
    std::size_t session_ = 0; ///< Of the present scene.
};
