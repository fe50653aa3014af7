// What a key's file says, read at one moment and never changed afterwards.
#pragma once

#include "crypto/protection.h"
#include "platform/table_memory.h"
#include "store/sqlite.h"
#include "velkor/device_service.h"

#include <array>
#include <string>
#include <unordered_map>
#include <vector>

namespace softkey
{

using Identifier = std::array<unsigned char, KEY_IDENTIFIER_SIZE>;

enum class PinRole : int { User = USER_TYPE_USER, SecurityOfficer = USER_TYPE_SECURITY_OFFICER };

struct DeviceRecord {
    std::string serialNumber;
    std::string label;
    std::string model;
    std::string firmwareVersion;
    bool plugged = true;
    std::int64_t timesUnplugged = 0;
};

struct PinRecord {
    PinRole role = PinRole::User;
    bool changed = false;
    int triesMax = 0;
    int triesLeft = 0;
    ScryptCost cost;
    ByteVector salt;
    ByteVector wrappedMasterKey;
    ByteVector machine; ///< Mark of the machine that it is bound to; empty when it is bound to none.
};

/// Identifiers are hashes already.
struct IdentifierHash {
    std::size_t operator()(const Identifier& identifier) const;
};

using KeyPairTable = std::vector<VelkorKeyPair, TableAllocator<VelkorKeyPair>>;

struct Contents {
    std::uint32_t changeCounter = 0; ///< Of the snapshot that they were read from.
    std::uint64_t reading = 0;       ///< Tells them from all others that this process has read; 0: from none.
    DeviceRecord device;
    PinRecord userPin;
    PinRecord soPin;
    KeyPairTable keyPairs; ///< In the order of their numbers.
    std::unordered_map<Identifier, std::size_t, IdentifierHash> keyPairPositions;
    std::vector<VelkorCertificate> certificates; ///< In the order of their numbers.
    ByteVector authenticator; ///< See authenticity.h; empty in a file that no PIN has opened since layout 2.

    const PinRecord& pin(PinRole role) const { return role == PinRole::User ? userPin : soPin; }
    /// Null when there is none.
    const VelkorKeyPair* findKeyPair(const Identifier& identifier) const;
    const VelkorCertificate* findCertificate(const Identifier& identifier) const;
};

/// Reads everything but the counter. Throws FileDamaged.
Contents readContents(Database& database);
PinRecord readPin(Database& database, PinRole role);

/// Whether one record can be read and agrees with itself.
struct RecordFinding {
    std::string record;
    bool isSound = false;
};
/// All records, of a file whose contents cannot be read as a whole. Of a table that breaks off, the rest counts as one.
std::vector<RecordFinding> lookAtRecords(Database& database);

/// Tells a damaged record of a PIN from a wrong PIN; secret from nobody.
ByteVector checksumOf(const PinRecord& pin);

/// Identifiers are derived from the content, so that the same key or certificate is known again.
Identifier identifierOf(Bytes content);

} // namespace softkey
