// A host of any Cryptoki library: loads it, logs in on the token that the benchmarks' keys are on, and makes the calls
// that are measured. A call that fails ends the program.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cryptoki.h"

namespace bench
{

using ByteString = std::vector<unsigned char>;

/// Tokens whose label begins like this are the benchmarks'.
inline constexpr const char* TOKEN_LABEL = "bench";

/// What happened once, when the library was started.
struct FirstCalls {
    double slotListMilliseconds = 0;
    double searchMilliseconds = 0; ///< For one public key by its ID, before the login.
};

class Host
{
public:
    /// Starts the library, looks for a key once, and logs in on every token of the benchmarks, unless the PIN is empty.
    Host(const std::string& file, const std::string& pin);

    CK_FUNCTION_LIST_PTR operator->() const { return p11_; }
    /// The first token of the benchmarks.
    CK_SLOT_ID slot() const { return slots_.front(); }
    const std::vector<CK_SLOT_ID>& slots() const { return slots_; }
    const std::string& pin() const { return pin_; }
    FirstCalls firstCalls() const { return firstCalls_; }
    CK_ULONG keyPairs() const { return keyPairs_; }
    /// Mebibytes that the process has come to hold since the library was loaded.
    double memory() const;
    /// The same by what it is mapped from, see memory_map.h.
    std::map<std::string, double> memoryParts() const;
    void end();

    CK_SESSION_HANDLE openSession() const { return openSession(slot()); }
    CK_SESSION_HANDLE openSession(CK_SLOT_ID slot) const;
    /// Pair 1 is RSA with 2048 bits, all others are on P-256. Their IDs are their numbers, four bytes big-endian.
    void makeKeyPairs(CK_ULONG count) const;
    /// The private half of the new pair.
    CK_OBJECT_HANDLE makeKeyPair(CK_SESSION_HANDLE session, std::uint32_t number) const;
    std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria) const;
    CK_OBJECT_HANDLE key(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::uint32_t number) const;

    ByteString sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteString& data) const;
    void verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteString& data,
                ByteString& signature) const;
    ByteString encrypt(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, ByteString& data) const;
    ByteString decrypt(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, ByteString& data) const;
    ByteString digest(CK_SESSION_HANDLE session, ByteString& data) const;

private:
    void chooseSlots();
    void searchFirst();
    void login(CK_SLOT_ID slot) const;

    std::string pin_;
    double memoryBefore_;
    std::map<std::string, double> partsBefore_;
    CK_FUNCTION_LIST_PTR p11_ = nullptr;
    std::vector<CK_SLOT_ID> slots_;
    FirstCalls firstCalls_;
    CK_ULONG keyPairs_ = 0;
};

/// Ends the program unless the call has succeeded.
void require(CK_RV result, const char* call);

} // namespace bench
