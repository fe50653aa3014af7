// The programs that the tests of the software key run.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "test_system.h"

namespace softkey::test
{

#ifdef _WIN32
/// Ends a test that needs a program where that program is not.
#define REQUIRE_OPENSSL_PROGRAM() GTEST_SKIP() << "there is no openssl program"
inline constexpr const char* NULL_DEVICE = "NUL";

/// Ends a test where the tool names a path in an exception, or reads a negative number, and the emulated Wine runs it:
/// that forgets the register by which exceptions find their thread, x18, when it converts texts.
#define REQUIRE_PATHS_IN_EXCEPTIONS()                                                                                  \
    if (test_system::isEmulatedArm64())                                                                                \
    GTEST_SKIP() << "the emulated Wine loses register x18 when it converts texts"

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
#define REQUIRE_PATHS_IN_EXCEPTIONS() static_cast<void>(0)
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
