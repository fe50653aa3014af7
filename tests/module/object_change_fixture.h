// A session on a device that is called as the test expects and not otherwise.
#pragma once

#include <numeric>
#include <string>
#include <vector>

#include "operation_in_progress.h"
#include "template.h"

class ObjectChangeTest : public OperationInProgressTest
{
protected:
    void SetUp() override
    {
        OperationInProgressTest::SetUp();
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

    static ByteVector identifierOf(const VelkorKeyPair& record)
    {
        return {std::begin(record.keyIdentifier), std::end(record.keyIdentifier)};
    }

    static ByteVector identifierOf(const VelkorCertificate& record)
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
        for (const int operation : {NO_OPERATION, FIND, ENCRYPT, DECRYPT, DIGEST, SIGN, VERIFY}) {
            SCOPED_TRACE(operation);
            hSession_ = openSession(READ_WRITE);
            start(operation, 3);
            call();
            EXPECT_EQ(activeOperation(), operation);
        }
    }

    testing::Sequence script_; ///< The device calls in the order in which the test expects them.

private:
    static void numberBytes(unsigned char (&field)[KEY_IDENTIFIER_SIZE], std::uint32_t firstByte)
    {
        std::iota(std::begin(field), std::end(field), static_cast<unsigned char>(firstByte));
    }
};
