// A session on a device that is called as the test expects and not otherwise, and templates for new objects.
#pragma once

#include <cstddef>
#include <deque>
#include <numeric>
#include <string>
#include <vector>

#include "session_fixture.h"

using Bytes = std::vector<unsigned char>;

/// A template and the memory behind it.
class Template
{
public:
    Template& add(CK_ATTRIBUTE_TYPE type, const Bytes& value)
    {
        Bytes& kept = values_.emplace_back(value);
        return addMemory(type, kept.data(), static_cast<CK_ULONG>(kept.size()));
    }

    Template& add(CK_ATTRIBUTE_TYPE type, const std::string& text)
    {
        return add(type, Bytes(text.begin(), text.end()));
    }

    Template& add(CK_ATTRIBUTE_TYPE type, CK_ULONG number)
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&number);
        return add(type, Bytes(bytes, bytes + sizeof number));
    }

    Template& addMemory(CK_ATTRIBUTE_TYPE type, void* memory, CK_ULONG size)
    {
        attributes_.push_back({type, memory, size});
        return *this;
    }

    CK_ATTRIBUTE_PTR data() const { return const_cast<CK_ATTRIBUTE_PTR>(attributes_.data()); }
    CK_ULONG size() const { return static_cast<CK_ULONG>(attributes_.size()); }

private:
    std::deque<Bytes> values_; ///< They stay where they are when others are added.
    std::vector<CK_ATTRIBUTE> attributes_;
};

MATCHER_P(PointsTo, bytes, "")
{
    return std::equal(bytes.begin(), bytes.end(), arg);
}

class ObjectTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        for (VelkorKeyPair& each : first().keyPairs)
            numberBytes(each.keyIdentifier, 0x20 * each.id);
        for (VelkorCertificate& each : first().certificates)
            numberBytes(each.certificateIdentifier, 0x20 * each.id + 0x10);
        EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
        EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
        EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
        EXPECT_CALL(*device_, velkor_deleteKeyPair).Times(0);
        EXPECT_CALL(*device_, velkor_deleteCertificate).Times(0);
        EXPECT_CALL(*device_, velkor_importCertificate).Times(0);
        EXPECT_CALL(*device_, velkor_importPfx).Times(0);
        EXPECT_CALL(*device_, velkor_getFilesWithExtensionsAndConvertDER).Times(0);
    }

    void expectKeyPairList(const char* deviceId = FIRST_DEVICE)
    {
        EXPECT_CALL(*device_, velkor_getKeyPairList(testing::StrEq(deviceId), instance())).InSequence(script_);
    }

    void expectCertificateList(const char* deviceId = FIRST_DEVICE)
    {
        EXPECT_CALL(*device_, velkor_getCertificateList(testing::StrEq(deviceId), instance())).InSequence(script_);
    }

    VelkorKeyPair& keyPair(std::uint32_t id) const { return first().keyPairs.at(id - 1); }

    static Bytes identifierOf(const VelkorKeyPair& record)
    {
        return {std::begin(record.keyIdentifier), std::end(record.keyIdentifier)};
    }

    static Bytes identifierOf(const VelkorCertificate& record)
    {
        return {std::begin(record.certificateIdentifier), std::end(record.certificateIdentifier)};
    }

    /// A call's answer with its entry line, then debug lines, then an error line if there is one.
    static Answer answerOf(const std::string& function, CK_RV code, const std::vector<std::string>& debugLines,
                           const std::string& error = "")
    {
        Answer answer = {code, {"DEBUG " + function}};
        for (const std::string& line : debugLines)
            answer.lines.push_back("DEBUG " + line);
        if (!error.empty())
            answer.lines.push_back("ERROR " + error);
        return answer;
    }

    /// Makes the call during each kind of operation, in a session of its own, and looks at the operation again.
    template <typename Call>
    void expectOperationsGoOn(const Call& call)
    {
        EXPECT_CALL(*device_, velkor_getKeyPairList).WillRepeatedly(testing::DoDefault());
        EXPECT_CALL(*device_, velkor_getCertificateList).WillRepeatedly(testing::DoDefault());
        for (const Operation& operation : OPERATIONS) {
            SCOPED_TRACE(operation.number);
            hSession_ = openSession(READ_WRITE);
            ASSERT_EQ(operation.begin(hSession_), CKR_OK);
            call();
            EXPECT_EQ(operationInProgress(), operation.number);
        }
    }

    /// The number of the operation in progress, asked for by a call that changes nothing.
    std::string operationInProgress() const
    {
        const Answer probe = answer(C_DigestFinal, hSession_, nullptr, nullptr);
        const std::string& line = probe.lines.back();
        return probe.code == CKR_ARGUMENTS_BAD ? "4" : line.substr(line.rfind('=') + 1);
    }

    testing::Sequence script_; ///< The device calls in the order in which the test expects them.

private:
    struct Operation {
        std::string number;
        CK_RV (*begin)(CK_SESSION_HANDLE hSession);
    };

    static inline CK_MECHANISM rsa_ = {CKM_RSA_PKCS, nullptr, 0};
    static inline CK_MECHANISM sha256_ = {CKM_SHA256, nullptr, 0};
    static inline const Operation OPERATIONS[] = {
        {"0", [](CK_SESSION_HANDLE) { return CKR_OK; }},
        {"1", [](CK_SESSION_HANDLE hSession) { return C_FindObjectsInit(hSession, nullptr, 0); }},
        {"2", [](CK_SESSION_HANDLE hSession) { return C_EncryptInit(hSession, &rsa_, publicKey(3)); }},
        {"3", [](CK_SESSION_HANDLE hSession) { return C_DecryptInit(hSession, &rsa_, privateKey(3)); }},
        {"4", [](CK_SESSION_HANDLE hSession) { return C_DigestInit(hSession, &sha256_); }},
        {"5", [](CK_SESSION_HANDLE hSession) { return C_SignInit(hSession, &rsa_, privateKey(3)); }},
        {"7", [](CK_SESSION_HANDLE hSession) { return C_VerifyInit(hSession, &rsa_, publicKey(3)); }}};

    static void numberBytes(unsigned char (&field)[KEY_IDENTIFIER_SIZE], std::uint32_t firstByte)
    {
        std::iota(std::begin(field), std::end(field), static_cast<unsigned char>(firstByte));
    }
};
