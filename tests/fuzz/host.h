// A host whose calls come from the input: with which handles, numbers, buffers and templates. It keeps to what every
// caller owes a library: pointers lead to as much memory as their lengths say.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "cryptoki.h"
#include "expect.h"
#include "rooms.h"

namespace fuzz
{

/// How a result is to be fetched.
enum class Results {
    AskedFor, ///< The library does not look at the room: its length is asked for first.
    Bounded,  ///< The library keeps to the length that it is given.
};

struct Data {
    unsigned char* bytes = nullptr;
    CK_ULONG length = 0;
};

struct Attributes {
    CK_ATTRIBUTE* entries = nullptr;
    CK_ULONG count = 0;
};

class Host
{
public:
    Host(const CK_FUNCTION_LIST& library, FuzzedDataProvider& bytes, Results results)
        : p11(library), input(bytes), results_(results)
    {
    }

    CK_ULONG number();
    CK_SLOT_ID slot();
    CK_SESSION_HANDLE session();
    CK_OBJECT_HANDLE object();
    /// Keeps handles that the library gave, for later calls.
    void learnSlot(CK_SLOT_ID slot) { slots_.push_back(slot); }
    void learnSession(CK_SESSION_HANDLE session) { sessions_.push_back(session); }
    void learnObject(CK_OBJECT_HANDLE object) { objects_.push_back(object); }

    Data data(std::size_t most = 300);
    Data pin();
    /// Null now and then.
    CK_MECHANISM* mechanism();
    Attributes attributes();
    /// Entries with room for answers.
    Attributes questions();
    /// Checks that no answer is longer than its room.
    static void checkAnswers(const Attributes& asked, const std::vector<CK_ULONG>& sizes);

    /// Room for one value; null now and then.
    template <typename Value>
    Value* room()
    {
        return isRarely() ? nullptr : reinterpret_cast<Value*>(rooms.take(sizeof(Value)));
    }

    template <typename Value>
    Value* room(std::size_t count)
    {
        return reinterpret_cast<Value*>(rooms.take(count * sizeof(Value)));
    }

    /// Fetches a result with a call that takes where to and how long.
    template <typename Call>
    CK_RV fetch(const Call& call)
    {
        auto* length = room<CK_ULONG>();
        if (length == nullptr || isRarely())
            return call(nullptr, length);
        return results_ == Results::Bounded ? fetchInto(call, length) : fetchWhole(call, length);
    }

    bool isRarely() { return input.ConsumeIntegralInRange(0, 15) == 1; }

    const CK_FUNCTION_LIST& p11;
    FuzzedDataProvider& input;
    Rooms rooms;

private:
    template <typename Call>
    CK_RV fetchInto(const Call& call, CK_ULONG* length)
    {
        const auto given = input.ConsumeIntegralInRange<CK_ULONG>(0, 1100);
        *length = given;
        const CK_RV code = call(rooms.take(given), length);
        expect(code != CKR_OK || *length <= given, "a result is no longer than its room");
        expect(code != CKR_BUFFER_TOO_SMALL || *length > given, "a room that is too small is smaller than its result");
        return code;
    }

    /// A result without bytes is made anew by the second call.
    template <typename Call>
    CK_RV fetchWhole(const Call& call, CK_ULONG* length)
    {
        const CK_RV code = call(nullptr, length);
        expect(code != CKR_OK || *length <= Rooms::LARGEST, "a result is no longer than the widest one");
        if (code != CKR_OK)
            return code;
        return call(rooms.take(*length == 0 ? Rooms::LARGEST : *length), length);
    }

    template <typename Handle>
    Handle handle(const std::vector<Handle>& known, std::span<const CK_ULONG> others);
    Data parameterOf(CK_MECHANISM_TYPE type);
    Data value(CK_ATTRIBUTE_TYPE type);

    const Results results_;
    std::vector<CK_SLOT_ID> slots_;
    std::vector<CK_SESSION_HANDLE> sessions_;
    std::vector<CK_OBJECT_HANDLE> objects_;
};

} // namespace fuzz
