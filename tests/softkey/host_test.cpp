// The key inside hosts that use OpenSSL themselves, fork, or end in an awkward order.
#include "world.h"

#include <sstream>

namespace softkey::test
{
namespace
{

class HostTest : public SoftkeyTest
{
protected:
    HostTest()
    {
        generate(KEY_KIND_RSA_2048);
        generate(KEY_KIND_EC_P256);
    }
    /// Exit code of a host, or 124 when it hangs.
    static int host(const std::string& mode, const std::string& environment = {})
    {
        const Outcome outcome =
            run("ulimit -c 0; " + environment + " timeout 60 " + SOFTKEY_HOST + " " + mode + " KEY1 " + PIN);
        EXPECT_EQ(outcome.error, "");
        return outcome.exitCode;
    }
};

#ifdef SOFTKEY_BUNDLED_LIBCRYPTO // A shared one lets the host's default engines take part.
TEST_F(HostTest, AnEngineThatTheHostMadeTheDefaultIsNotUsed)
{
    EXPECT_EQ(host("engine"), 0);
}
#endif

TEST_F(HostTest, AConfigurationThatSpoilsTheHostsOpensslIsNotRead)
{
    const std::string file = scratch.file("openssl.cnf", bytesOf("openssl_conf = o\n[o]\nproviders = p\n"
                                                                 "alg_section = a\n[p]\nnull = n\n[n]\nactivate = 1\n"
                                                                 "[a]\ndefault_properties = fips=yes\n"));
    EXPECT_EQ(host("configuration", "OPENSSL_CONF=" + file), 0);
}

TEST_F(HostTest, TheHostsErrorQueueStaysAsItWas)
{
    EXPECT_EQ(host("errors"), 0);
}

TEST_F(HostTest, CallsDuringStaticDestructionDoNotCrash)
{
    EXPECT_EQ(host("late"), 0);
}

TEST_F(HostTest, CallsAfterTheHostCleanedUpOpensslDoNotCrash)
{
    EXPECT_EQ(host("cleaned-up"), 0);
}

TEST_F(HostTest, AProcessMayEndWhileThreadsAreInside)
{
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(host("busy"), 0);
}

#if !SANITIZED // Their allocator stays locked in a child that is forked while another thread allocates.
TEST_F(HostTest, AForkedChildUsesTheKeyWhileTheParentIsBusy)
{
    EXPECT_EQ(host("fork"), 0);
    EXPECT_EQ(keyPairs().size(), 2U) << "nothing was left behind or lost";
}
#endif

TEST_F(HostTest, LoadingAndUnloadingWhileAThreadHoldsAListDoesNotCrash)
{
    const Outcome outcome = run("timeout 60 " + std::string(SOFTKEY_LOADER) + " " + SOFTKEY_LIBRARY + " KEY1");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
}

#ifdef SOFTKEY_BUNDLED_SQLITE
TEST_F(HostTest, AnSqliteThatTheHostBringsIsNotUsed)
{
    const std::string arguments = std::string(" check ") + SERIAL + " " + PIN;
    const Outcome outcome = run("ulimit -c 0; timeout 60 " + std::string(SOFTKEY_CHILD_WITH_SQLITE) + arguments);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
}

#if defined(SOFTKEY_BUNDLED_LIBCRYPTO) && !SANITIZED // A sanitizer's runtime stands in for the system's functions.
TEST_F(HostTest, TheLibraryLeavesNoSymbolOfABundledLibraryOpen)
{
    const Outcome outcome = run("nm -D --undefined-only " + std::string(SOFTKEY_LIBRARY));
    ASSERT_EQ(outcome.exitCode, 0) << outcome.error;
    std::istringstream lines(outcome.out);
    int symbols = 0;
    for (std::string kind, symbol; lines >> kind >> symbol; ++symbols) {
        const std::string version = symbol.substr(std::min(symbol.find('@'), symbol.size()));
        const bool isOfTheSystem = version.starts_with("@GLIBC") || version.starts_with("@CXXABI") ||
                                   version.starts_with("@GCC") || kind == "w";
        EXPECT_TRUE(isOfTheSystem) << kind << ' ' << symbol;
    }
    EXPECT_GT(symbols, 10);
}
#endif
#endif

TEST_F(HostTest, TheLibraryExportsTheOperationsAndNothingElse)
{
    const Outcome outcome = run("nm -D --defined-only " + std::string(SOFTKEY_LIBRARY) + " | c++filt");
    int operations = 0;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(line.find(" T velkor_"), std::string::npos) << line;
        ++operations;
    }
    EXPECT_EQ(operations, 29);
}

} // namespace
} // namespace softkey::test
