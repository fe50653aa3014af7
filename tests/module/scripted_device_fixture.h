// A session whose device follows a script: each call of its keys and its cryptography is named beforehand, in order,
// with every argument. A call that the script does not have fails the test.
#pragma once

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "firmware_versions.h"
#include "operation_in_progress.h"
#include "template.h"

inline CK_BYTE_PTR pointerTo(const ByteVector& bytes)
{
    return const_cast<CK_BYTE_PTR>(bytes.data());
}

inline CK_ULONG sizeOf(const ByteVector& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

/// `size` different bytes.
inline ByteVector numbered(std::size_t size, unsigned char first)
{
    ByteVector bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

/// Stands for a hash code where a mechanism has no hash.
constexpr int NOT_HASHED = 0;

inline ByteVector digestOf(int hashCode)
{
    static const std::map<int, std::size_t> lengths = {{2, 20}, {3, 32}, {4, 48}, {5, 64}, {6, 28}};
    return numbered(lengths.at(hashCode), static_cast<unsigned char>(16 * hashCode));
}

struct SignatureMechanism {
    const char* name;
    CK_MECHANISM_TYPE type;
    bool isPss;
    int hash;
    int multiPartVerifyHash;

    friend std::ostream& operator<<(std::ostream& out, const SignatureMechanism& each) { return out << each.name; }
};

inline constexpr SignatureMechanism SIGNATURE_MECHANISMS[] = {
    {"RSA_PKCS", 0x1, false, NOT_HASHED, NOT_HASHED},
    {"SHA1_RSA_PKCS", 0x6, false, 2, 2},
    {"RSA_PKCS_PSS", 0xD, true, NOT_HASHED, 3},
    {"SHA1_RSA_PKCS_PSS", 0xE, true, 2, 3},
    {"SHA256_RSA_PKCS", 0x40, false, 3, 3},
    {"SHA384_RSA_PKCS", 0x41, false, 4, 4},
    {"SHA512_RSA_PKCS", 0x42, false, 5, 5},
    {"SHA256_RSA_PKCS_PSS", 0x43, true, 3, 3},
    {"SHA384_RSA_PKCS_PSS", 0x44, true, 4, 3},
    {"SHA512_RSA_PKCS_PSS", 0x45, true, 5, 3},
    {"SHA224_RSA_PKCS", 0x46, false, 6, 6},
    {"SHA224_RSA_PKCS_PSS", 0x47, true, 6, 6},
    {"ECDSA", 0x1041, false, NOT_HASHED, NOT_HASHED},
    {"ECDSA_SHA1", 0x1042, false, 2, 2},
    {"ECDSA_SHA224", 0x1043, false, 6, 6},
    {"ECDSA_SHA256", 0x1044, false, 3, 3},
    {"ECDSA_SHA384", 0x1045, false, 4, 4},
};

/// What neither signs nor verifies: offered for something else, or not offered at all.
inline constexpr CK_MECHANISM_TYPE NO_SIGNATURE_MECHANISMS[] = {0x0,   0x3,    0x5,    0x9,    0x210,      0x220,
                                                                0x250, 0x1040, 0x1046, 0x1050, 0xFFFFFFFF, 0x80000001};

/// A caller's length and the count that the device is given for it.
struct LargeLength {
    CK_ULONG length;
    int count;
};

/// A count has 32 bits and a sign; a length without a 32-bit form is passed as -1.
inline std::vector<LargeLength> largeLengths()
{
    std::vector<LargeLength> lengths = {{0x7FFFFFFF, std::numeric_limits<int>::max()},
                                        {0x80000000, std::numeric_limits<int>::min()},
                                        {0x80000001, std::numeric_limits<int>::min() + 1},
                                        {0xFFFFFFFF, -1}};
    if (sizeof(CK_ULONG) > 4) {
        for (const unsigned long long length : {0x100000000ULL, 0x100000001ULL, 0x8000000000000000ULL})
            lengths.push_back({static_cast<CK_ULONG>(length), -1});
    }
    return lengths;
}

/// `handles`, and where a handle has more than 32 bits also those whose lower 32 bits are a handle of key pair 2.
inline std::vector<CK_OBJECT_HANDLE> withLargeHandles(std::vector<CK_OBJECT_HANDLE> handles)
{
    if (sizeof(CK_OBJECT_HANDLE) > 4) {
        for (const unsigned long long handle : {0x170000002ULL, 0x170001002ULL})
            handles.push_back(static_cast<CK_OBJECT_HANDLE>(handle));
    }
    return handles;
}

/// DER of a hash with its algorithm, as the raw RSA mechanism is given it.
inline const ByteVector SHA1_DIGEST_INFO = joined(
    {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14}, ByteVector(20, 0xAA));
inline const ByteVector MD5_DIGEST_INFO =
    joined({0x30, 0x20, 0x30, 0x0C, 0x06, 0x08, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10},
           ByteVector(16, 0xAA));

/// Where a result goes; larger than any result, so that what is written behind the caller's length can be seen.
class Output
{
public:
    explicit Output(CK_ULONG lengthOnEntry = 2048) : length(lengthOnEntry) { memory_.fill(UNTOUCHED); }

    CK_BYTE_PTR data() { return memory_.data(); }

    /// Everything up to the last byte that has changed.
    ByteVector written() const
    {
        const auto end = std::find_if(memory_.rbegin(), memory_.rend(), [](CK_BYTE byte) { return byte != UNTOUCHED; });
        return {memory_.begin(), end.base()};
    }

    CK_ULONG length;

private:
    static constexpr CK_BYTE UNTOUCHED = 0xEE;
    std::array<CK_BYTE, 2048> memory_{};
};

struct SignRequest {
    std::uint32_t keyId = 2;
    std::string pin = {};
    ByteVector hash = {};
    bool isPss = false;
};

struct VerifyRequest {
    unsigned int keyKind = KEY_KIND_RSA_2048;
    ByteVector hash = {};
    ByteVector publicKey = {};
    ByteVector signature = {};
    bool isPss = false;
};

MATCHER_P(IsKeyIdentifierOf, keyPair, "")
{
    return std::equal(std::begin(keyPair.keyIdentifier), std::end(keyPair.keyIdentifier), arg);
}

class ScriptedDeviceTest : public OperationInProgressTest
{
protected:
    void SetUp() override
    {
        OperationInProgressTest::SetUp();
        device_->defaults.velkor_createInstance(&instance_);
        for (VelkorKeyPair& each : first().keyPairs)
            std::iota(std::begin(each.keyIdentifier), std::end(each.keyIdentifier),
                      static_cast<unsigned char>(0x20 * each.id));
        EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
        EXPECT_CALL(*device_, velkor_initHash).Times(0);
        EXPECT_CALL(*device_, velkor_updateHash).Times(0);
        EXPECT_CALL(*device_, velkor_finalHash).Times(0);
        EXPECT_CALL(*device_, velkor_signHash).Times(0);
        EXPECT_CALL(*device_, velkor_verifySignatureHash).Times(0);
        EXPECT_CALL(*device_, velkor_encrypt).Times(0);
        EXPECT_CALL(*device_, velkor_decrypt).Times(0);
    }

    void expectKeyLookup()
    {
        EXPECT_CALL(*device_, velkor_getKeyPairList(testing::StrEq(deviceId_), instance_)).InSequence(script_);
    }

    /// Begins a hash whose context the calls scripted next are to be given, unless it fails.
    void expectInitHash(int hashCode, int status = 0)
    {
        if (status == 0)
            context_ = &contexts_.at(nextContext_++);
        EXPECT_CALL(*device_,
                    velkor_initHash(testing::StrEq(deviceId_), hashCode, testing::Pointee(testing::_), instance_))
            .InSequence(script_)
            .WillOnce([given = context_, status](const char*, int, void** hashContext, void*) {
                if (status == 0)
                    *hashContext = given;
                return status;
            });
    }

    void expectUpdateHash(const ByteVector& data, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_updateHash(context_, testing::_, testing::_, instance_))
            .With(testing::Args<1, 2>(testing::ElementsAreArray(data)))
            .InSequence(script_)
            .WillOnce(testing::Return(status));
    }

    /// For lengths that no data has.
    void expectUpdateHash(const unsigned char* data, int count)
    {
        EXPECT_CALL(*device_, velkor_updateHash(context_, data, count, instance_))
            .InSequence(script_)
            .WillOnce(testing::Return(0));
    }

    void expectFinalHash(int lengthOnEntry, const ByteVector& hash, int status = 0)
    {
        EXPECT_CALL(*device_,
                    velkor_finalHash(context_, testing::NotNull(), testing::Pointee(lengthOnEntry), instance_))
            .InSequence(script_)
            .WillOnce([hash, status](void*, unsigned char* out, int* length, void*) {
                std::copy(hash.begin(), hash.end(), out);
                *length = static_cast<int>(hash.size());
                return status;
            });
    }

    /// A final step that fills the whole room and tells a length of its own choice.
    void expectFinalHashOfLength(int lengthOnEntry, int lengthTold)
    {
        EXPECT_CALL(*device_,
                    velkor_finalHash(context_, testing::NotNull(), testing::Pointee(lengthOnEntry), instance_))
            .InSequence(script_)
            .WillOnce([lengthTold](void*, unsigned char* out, int* length, void*) {
                const ByteVector whole = digestOf(5);
                std::copy(whole.begin(), whole.end(), out);
                *length = lengthTold;
                return 0;
            });
    }

    /// A whole hash, made in one go by a mechanism that has one.
    void expectHash(int hashCode, const ByteVector& data, const ByteVector& hash)
    {
        expectInitHash(hashCode);
        expectUpdateHash(data);
        expectFinalHash(64, hash);
    }

    void expectSignHash(const SignRequest& request, const ByteVector& signature, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_signHash(testing::StrEq(deviceId_), IsKeyIdentifierOf(keyPair(request.keyId)),
                                              testing::StrEq(request.pin), testing::_, testing::_, testing::NotNull(),
                                              testing::Pointee(1024), false, instance_, request.isPss))
            .With(testing::Args<3, 4>(testing::ElementsAreArray(request.hash)))
            .InSequence(script_)
            .WillOnce(
                [signature, status](auto, auto, auto, auto, auto, unsigned char* out, int* length, auto, auto, auto) {
                    EXPECT_TRUE(std::all_of(out, out + 1024, [](unsigned char byte) { return byte == 0; }));
                    std::copy(signature.begin(), signature.end(), out);
                    *length = static_cast<int>(signature.size());
                    return status;
                });
    }

    void expectVerifySignatureHash(const VerifyRequest& request, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_verifySignatureHash(request.keyKind, testing::StrEq(deviceId_), testing::_,
                                                         testing::_, testing::_, testing::_, testing::_, testing::_,
                                                         instance_, request.isPss))
            .With(testing::AllOf(testing::Args<2, 3>(testing::ElementsAreArray(request.hash)),
                                 testing::Args<4, 5>(testing::ElementsAreArray(request.publicKey)),
                                 testing::Args<6, 7>(testing::ElementsAreArray(request.signature))))
            .InSequence(script_)
            .WillOnce(testing::Return(status));
    }

    VelkorKeyPair& keyPair(std::uint32_t id) const
    {
        return device_->defaults.devices.at(deviceId_).keyPairs.at(id - 1);
    }

    ByteVector storedPublicKey(std::uint32_t id) const
    {
        const VelkorKeyPair& found = keyPair(id);
        return {found.publicKey, found.publicKey + found.publicKeyLength};
    }

    Answer digestInit(CK_MECHANISM_TYPE type) const
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return answer(C_DigestInit, hSession_, &mechanism);
    }

    Answer signInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE hKey) const
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return answer(C_SignInit, hSession_, &mechanism, hKey);
    }

    Answer verifyInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE hKey) const
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return answer(C_VerifyInit, hSession_, &mechanism, hKey);
    }

    void startDigest(CK_MECHANISM_TYPE type = CKM_SHA256, int hashCode = 3)
    {
        expectInitHash(hashCode);
        ASSERT_EQ(digestInit(type).code, CKR_OK);
    }

    void startSigning(CK_MECHANISM_TYPE type, std::uint32_t keyId = 2)
    {
        expectKeyLookup();
        ASSERT_EQ(signInit(type, privateKey(keyId)).code, CKR_OK);
    }

    void startVerification(CK_MECHANISM_TYPE type, std::uint32_t keyId = 2)
    {
        expectKeyLookup();
        ASSERT_EQ(verifyInit(type, publicKey(keyId)).code, CKR_OK);
    }

    void startSearch()
    {
        expectKeyLookup();
        ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
    }

    /// A search ends every operation, but not what the operation leaves behind.
    void abandonOperation()
    {
        startSearch();
        ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    }

    void setModel(const std::string& model)
    {
        reopenWithToken([&](TokenInfo& token) { token.model = model; });
    }

    std::string deviceId_ = FIRST_DEVICE; ///< Whom the session's calls are scripted for.
    void* instance_ = nullptr;
    void* context_ = nullptr; ///< What the hash calls that are scripted next are to be given.
    testing::Sequence script_;

private:
    std::array<char, 100> contexts_{}; ///< Their addresses serve as hash contexts.
    std::size_t nextContext_ = 0;
};

/// A successful call: its entry line and what else it wrote.
inline Answer success(const std::string& function, const std::vector<std::string>& debugLines = {})
{
    Answer answer = {CKR_OK, {"DEBUG " + function}};
    for (const std::string& line : debugLines)
        answer.lines.push_back("DEBUG " + line);
    return answer;
}

/// A continuing call without its operation.
inline Answer notStarted(const std::string& function, int activeOperation)
{
    return refusal(CKR_OPERATION_NOT_INITIALIZED, function,
                   function + ": operation not initialized, activeOperation=" + std::to_string(activeOperation));
}
