// The programs that the tests of the software key run.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "test_system.h"

namespace softkey::test
{

#ifdef _WIN32
/// Ends a test that compares with a program where that program is not.
#define REQUIRE_OPENSSL_PROGRAM() GTEST_SKIP() << "there is no openssl program"
inline constexpr const char* NULL_DEVICE = "NUL";

/// Ends a test of the tool where the emulated Wine runs it: it loses a register that Windows on ARM64 keeps for itself
/// while the tool handles an exception.
#define REQUIRE_EXCEPTIONS_IN_PROGRAMS()                                                                               \
    if (test_system::isEmulatedArm64())                                                                                \
    GTEST_SKIP() << "the emulated Wine breaks exceptions of the tool"

/// By the name that the system running this has for it, which the build does not know.
inline std::string softkeyTool()
{
    return (test_system::program().parent_path() / "velkor-softkey.exe").string();
}

/// A copy lies beside it, too.
inline std::filesystem::path softkeyManual()
{
    return test_system::program().parent_path() / "velkor-softkey.1";
}
#else
#define REQUIRE_OPENSSL_PROGRAM() static_cast<void>(0)
#define REQUIRE_EXCEPTIONS_IN_PROGRAMS() static_cast<void>(0)
inline constexpr const char* NULL_DEVICE = "/dev/null";

inline std::string softkeyTool()
{
    return SOFTKEY_TOOL;
}

#ifdef SOFTKEY_MANUAL
inline std::filesystem::path softkeyManual()
{
    return SOFTKEY_MANUAL;
}
#endif
#endif

} // namespace softkey::test
