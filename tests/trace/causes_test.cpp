// Causes that a summary names, by lines alone.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "summary.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

using Lines = std::vector<std::string>;

Summary summaryOf(const Lines& lines)
{
    MergedCalls merged({test::writtenFile(test::freshFolder() / "host" / "2026-11-15.LOG", test::logOf(lines))});
    Summary summary;
    for (Call call; merged.next(call);)
        summary.add(call);
    return summary;
}

std::vector<std::string> titlesOf(const Lines& lines)
{
    std::vector<std::string> titles;
    for (const Cause& cause : summaryOf(lines).causes())
        titles.push_back(cause.title);
    return titles;
}

TEST(TraceCausesTest, NothingIsWrongWithAGoodRun)
{
    EXPECT_EQ(titlesOf({"D C_GetFunctionList", "D C_Initialize", "D C_GetInfo", "D C_Finalize"}), Lines{});
}

TEST(TraceCausesTest, ALogThatBeginsInTheMiddleIsIncomplete)
{
    EXPECT_EQ(titlesOf({"D C_GetSlotList", "D C_Finalize"}), Lines{"Log incomplete: its first lines are lost"});
}

TEST(TraceCausesTest, ASessionOfBeforeTheEndIsNamed)
{
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_OpenSession", "D C_Finalize", "D C_Initialize", "D C_Login",
                        "E C_Login: invalid hSession=1610612737"}),
              Lines{"Session handle invalid after C_Finalize"});
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_Login", "E C_Login: invalid hSession=1610612737"}),
              Lines{"Session handle invalid"});
}

TEST(TraceCausesTest, CallsBehindTheEndAreNamed)
{
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_Finalize", "D C_GetInfo", "E C_GetInfo: not initialized"}),
              Lines{"Calls after C_Finalize"});
}

TEST(TraceCausesTest, AHostThatNeverStartsTheModuleIsNamed)
{
    EXPECT_EQ(titlesOf({"D C_GetInfo", "E C_GetInfo: not initialized"}),
              Lines{"C_Initialize was not called: the host forgot it"});
}

TEST(TraceCausesTest, AChildWhoseLibraryKnowsItNotIsNamed)
{
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_Sign", "E Sign hash failed : 302"}),
              Lines{"C_Initialize was not called: a child process of the host forgot it"});
}

TEST(TraceCausesTest, AWrongPinThatWasPutRightIsLess)
{
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_Login", "E Token password validation failed : 312",
                        "E Token password validation failed, retry count : 2", "D C_Login", "D Login end result : 0"}),
              Lines{"A wrong PIN, followed by the right one"});
}

TEST(TraceCausesTest, LinesOfErrorsAloneAreEnough)
{
    EXPECT_EQ(titlesOf({"E Token password validation failed : 312",
                        "E Token password validation failed, retry count : 0"})[0],
              "The PIN is locked");
    EXPECT_EQ(titlesOf({"E C_SignInit: CKM_RSA_PKCS_PSS not supported on firmware 1.4.2"}),
              Lines{"Old firmware: the token does not do this mechanism"});
}

TEST(TraceCausesTest, APackedModuleInANaturalHostIsNamed)
{
    EXPECT_EQ(titlesOf({"E C_FindObjectsInit: wrong size for CKA_CLASS at index=0 ulValueLen=32765"}),
              Lines{"Mixed-up structure layouts: host and module were built for different ones"});
}

TEST(TraceCausesTest, ABufferOfAnotherKeyIsNamed)
{
    EXPECT_EQ(titlesOf({"E C_Sign: buffer too small, provided=256 required=512"}),
              Lines{"The data or the buffer belongs to another key"});
}

TEST(TraceCausesTest, WhatIsRefusedMostIsNamedWhereNothingElseIs)
{
    EXPECT_EQ(
        titlesOf({"D C_Initialize", "D C_SignInit", "E C_SignInit: unsupported mechanism=4225"}),
        Lines{"C_SignInit: CKR_MECHANISM_INVALID. The module does not sign with this mechanism. Use a mechanism of "
              "C_GetMechanismList that signs."});
}

TEST(TraceRecordedHostTest, TheLogOfARealHostIsReadWhole)
{
    MergedCalls merged({std::filesystem::path(SOURCES) / "tests/trace/recorded/pkcs11-tool/2026-11-22.LOG"});
    Summary summary;
    for (Call call; merged.next(call);) {
        EXPECT_FALSE(call.isMixed) << call.function;
        summary.add(call);
    }
    EXPECT_EQ(notesInWords(*merged.sources().front()), Lines{});
    ASSERT_FALSE(summary.causes().empty());
    EXPECT_EQ(summary.causes().front().title, "Wrong PIN");
    EXPECT_EQ(summary.json()["programs"]["pkcs11-tool"]["loginsAccepted"], 2);
}

TEST(TraceSummaryTest, CountsCallsLoginsAndRefusals)
{
    const auto document =
        summaryOf({"D C_Initialize", "D Session monitor thread started.",
                   "D Slot event: device count changed from 0 to 2", "D C_Login",
                   "E Token password validation failed : 312", "E Token password validation failed, retry count : 2",
                   "D C_Login", "D Login end result : 0", "D C_WaitForSlotEvent",
                   "D C_WaitForSlotEvent: blocking, returning slot 1342177281", "D C_Finalize"})
            .json();
    EXPECT_EQ(document["programs"]["host"]["calls"], 5);
    EXPECT_EQ(document["programs"]["host"]["loginsAccepted"], 1);
    EXPECT_EQ(document["programs"]["host"]["loginsRefused"]["refused CKR_PIN_INCORRECT"], 1);
    EXPECT_EQ(document["functions"]["C_Login"]["refused"], 1);
    EXPECT_EQ(document["slots"], nlohmann::json::array({"slot 1"}));
    EXPECT_EQ(document["slowest"][0]["call"], "C_Login");
}

} // namespace
} // namespace velkor::trace
