// What the parts of the model read from records and templates.
#pragma once

#include <cstring>
#include <string>

#include "model.h"

inline int lengthOf(const DeviceBytes& bytes)
{
    return static_cast<int>(bytes.size());
}

inline DeviceBytes publicKeyOf(const VelkorKeyPair& keyPair)
{
    return {keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength};
}

template <typename Record>
DeviceBytes objectIdOf(const Record& record)
{
    return {record.objectId, record.objectId + record.objectIdLength};
}

inline DeviceBytes bytesIn(const CK_ATTRIBUTE& entry)
{
    const auto* first = static_cast<const unsigned char*>(entry.pValue);
    return {first, first + entry.ulValueLen};
}

/// A number, which no entry that is read has fewer bytes for.
inline CK_ULONG numberOf(const CK_ATTRIBUTE& entry)
{
    CK_ULONG number = 0;
    std::memcpy(&number, entry.pValue, sizeof number);
    return number;
}

inline DeviceBytes numberBytes(CK_ULONG number)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&number);
    return {first, first + sizeof number};
}

inline std::string computedLabel(const CertificateDetails& details)
{
    return (details.subjectCommonName + "_" + details.issuerCommonName).substr(0, 128);
}

inline bool isEcKind(std::uint32_t keyKind)
{
    return keyKind >= KEY_KIND_EC_P256 && keyKind <= KEY_KIND_EC_P521;
}

/// CKA_EC_PARAMS of an EC key, empty for others.
inline DeviceBytes curveOf(std::uint32_t keyKind)
{
    switch (keyKind) {
    case KEY_KIND_EC_P256:
        return {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    case KEY_KIND_EC_P384:
        return {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
    case KEY_KIND_EC_P521:
        return {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};
    default:
        return {};
    }
}
