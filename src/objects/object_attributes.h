// The attribute table: what each attribute of a token object answers.
#pragma once

#include <cstdint>

#include "cryptoki.h"
#include "mechanisms/key_kinds.h"
#include "objects/labels.h"
#include "sessions/session_record.h"
#include "util/bytes.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The values of one object from which its attributes are answered, valid as long as its record.
struct ObjectView {
    CK_OBJECT_HANDLE handle;
    CK_OBJECT_CLASS objectClass;
    Label label;
    Bytes objectId;
    Bytes value;             ///< Key: public key bytes. Certificate: DER.
    const KeyKindInfo& kind; ///< Certificates: that of 2048-bit RSA.
    std::uint32_t usageFlags;
};

ObjectView viewOf(const SessionRecord& session, const VelkorKeyPair& keyPair, CK_OBJECT_CLASS objectClass,
                  CK_OBJECT_HANDLE handle);
ObjectView viewOf(const VelkorCertificate& certificate, CK_OBJECT_HANDLE handle);

/// The attribute's value, empty for what the table does not know. It is the object's, or is composed in `room`.
Bytes attributeValue(const ObjectView& object, CK_ATTRIBUTE_TYPE type, OwnedBytes& room);

} // namespace velkor
