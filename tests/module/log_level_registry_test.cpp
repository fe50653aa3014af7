// The registry value in each of its types: only the first byte of its data counts.
#include <cstdint>

#include "log_fixture.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace
{

class RegistryValueTest : public LogLinesTest
{
protected:
    /// The lines that a value of these bytes lets through.
    std::vector<std::string> linesOf(DWORD type, const std::string& bytes) const
    {
        EXPECT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Brenmoor\\Velkor", "logLevel", type, bytes.data(),
                                  static_cast<DWORD>(bytes.size())),
                  ERROR_SUCCESS);
        writeBothKinds();
        return wholeLog();
    }

    const std::vector<std::string> errors_ = {ERROR_LINE};
    const std::vector<std::string> all_ = {DEBUG_LINE, ERROR_LINE};
};

TEST_F(RegistryValueTest, MayBeANumber)
{
    EXPECT_EQ(linesOf(REG_DWORD, {3, 0, 0, 0}), all_);
}

TEST_F(RegistryValueTest, MayBeALongNumber)
{
    EXPECT_EQ(linesOf(REG_QWORD, {3, 0, 0, 0, 0, 0, 0, 1}), all_);
}

TEST_F(RegistryValueTest, MayBeBytes)
{
    EXPECT_EQ(linesOf(REG_BINARY, {3}), all_);
    EXPECT_EQ(linesOf(REG_BINARY, {0, 3}), all_);
}

TEST_F(RegistryValueTest, OfATextCountsAsItsFirstCharacter)
{
    EXPECT_EQ(linesOf(REG_SZ, "3"), errors_);
}

TEST_F(RegistryValueTest, MayBeATextWithVariablesOrSeveralTexts)
{
    EXPECT_EQ(linesOf(REG_EXPAND_SZ, std::string("3%PATHS%\0", 9)), errors_);
    EXPECT_EQ(linesOf(REG_MULTI_SZ, std::string("\3\0\0", 3)), (std::vector{ERROR_LINE, DEBUG_LINE, ERROR_LINE}));
}

TEST_F(RegistryValueTest, OfNoBytesCountsAsZero)
{
    EXPECT_EQ(linesOf(REG_BINARY, ""), std::vector<std::string>());
}

TEST_F(RegistryValueTest, WithoutItsKeyCountsAsAbsent)
{
    ASSERT_EQ(RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\Brenmoor"), ERROR_SUCCESS);
    writeBothKinds();
    EXPECT_EQ(wholeLog(), errors_);
}

TEST_F(RegistryValueTest, FitsWith32Bytes)
{
    EXPECT_EQ(linesOf(REG_BINARY, std::string(32, '\0')), std::vector<std::string>());
}

TEST_F(RegistryValueTest, ThatDoesNotFitCountsAsAbsent)
{
    EXPECT_EQ(linesOf(REG_BINARY, std::string(33, '\0')), errors_);
    EXPECT_EQ(linesOf(REG_SZ, std::string(40, '\3')), (std::vector{ERROR_LINE, ERROR_LINE}));
}

TEST_F(RegistryValueTest, OfAUserDoesNotCount)
{
    logLevel_->remove();
    const DWORD level = 0;
    ASSERT_EQ(
        RegSetKeyValueA(HKEY_CURRENT_USER, "Software\\Brenmoor\\Velkor", "logLevel", REG_DWORD, &level, sizeof level),
        ERROR_SUCCESS);
    writeBothKinds();
    RegDeleteKeyValueA(HKEY_CURRENT_USER, "Software\\Brenmoor\\Velkor", "logLevel");
    EXPECT_EQ(wholeLog(), errors_);
}

TEST_F(LogLinesTest, AFileThatAnotherReadsAndWritesIsWrittenTo)
{
    writeBothKinds();
    const HANDLE other =
        CreateFileW(logFiles().front().c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    writeBothKinds();
    CloseHandle(other);
    EXPECT_EQ(wholeLog().size(), 4U);
}

} // namespace
