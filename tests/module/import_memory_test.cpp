// What the import of a private key leaves in released memory.
#include <stdexcept>
#include <string_view>

#include "object_change_fixture.h"
#include "watched_memory.h"

namespace
{

using testing::Return;

const std::string LABEL = "The label, which everybody may see.";
const std::string PRIVATE_EXPONENT = "The private exponent, which nobody else may see.";
const std::string PRIME = "The first prime, which nobody else may see.";

/// The device keeps nothing and copies nothing, so that every block that is found is the module's.
class KeyImportMemoryTest : public OpenSessionTest
{
protected:
    KeyImportMemoryTest()
    {
        entries_.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, LABEL).add(CKA_MODULUS, ByteVector(256, 1));
        entries_.add(CKA_PRIVATE_EXPONENT, PRIVATE_EXPONENT).add(CKA_PRIME_1, PRIME);
        ON_CALL(*device_, velkor_importPfx).WillByDefault(Return(0));
    }

    /// Blocks that an import releases with the bytes in them.
    int leftBlocks(std::string_view bytes, CK_RV expected)
    {
        CK_RV code = CKR_OK;
        const int blocks = releasedBlocksWith(
            bytes, [&] { code = C_CreateObject(hSession_, entries_.data(), entries_.size(), &hObject_); });
        EXPECT_EQ(code, expected);
        return blocks;
    }

    void expectNoPrivatePartLeft(CK_RV expected)
    {
        EXPECT_EQ(leftBlocks(PRIVATE_EXPONENT, expected), 0);
        EXPECT_EQ(leftBlocks(PRIME, expected), 0);
    }

private:
    Template entries_;
    CK_OBJECT_HANDLE hObject_ = 0;
};

TEST_F(KeyImportMemoryTest, PartThatIsNotPrivateIsSeen)
{
    EXPECT_GE(leftBlocks(LABEL, CKR_OK), 1);
}

TEST_F(KeyImportMemoryTest, LeavesNoPrivatePartInReleasedMemory)
{
    expectNoPrivatePartLeft(CKR_OK);
    ON_CALL(*device_, velkor_importPfx).WillByDefault(Return(1));
    expectNoPrivatePartLeft(CKR_FUNCTION_FAILED);
    ON_CALL(*device_, velkor_importPfx).WillByDefault(testing::Throw(std::runtime_error("broken")));
    expectNoPrivatePartLeft(CKR_GENERAL_ERROR);
}

} // namespace
