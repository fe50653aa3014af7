// Causes that a summary names, by lines alone.
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "filter.h"
#include "summary.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

using Lines = std::vector<std::string>;

Summary summaryOf(const Lines& lines, Filter filter = {})
{
    MergedCalls merged({test::writtenFile(test::freshFolder() / "host" / "2026-11-15.LOG", test::logOf(lines))});
    Summary summary;
    for (Call call; merged.next(call);)
        filter.wants(call) ? summary.add(call) : summary.follow(call);
    return summary;
}

std::vector<std::string> titlesOf(const Lines& lines, Filter filter = {})
{
    std::vector<std::string> titles;
    for (const Cause& cause : summaryOf(lines, filter).causes())
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

const Lines WRONG_PIN = {"D C_Login", "E Token password validation failed : 312",
                         "E Token password validation failed, retry count : 2"};
const Lines LAST_WRONG_PIN = {"D C_Login", "E Token password validation failed : 313",
                              "E Token password validation failed, retry count : 0"};
const Lines RIGHT_PIN = {"D C_Login", "D Login state : 2", "D Login end result : 0"};

Lines joined(std::initializer_list<Lines> parts)
{
    Lines lines = {"D C_Initialize"};
    for (const Lines& part : parts)
        lines.insert(lines.end(), part.begin(), part.end());
    return lines;
}

TEST(TraceCausesTest, ALockedPinThatTakesALoginIsLess)
{
    EXPECT_EQ(titlesOf(joined({WRONG_PIN, LAST_WRONG_PIN, RIGHT_PIN})),
              Lines{"The PIN was locked, and a login was accepted since"});
}

TEST(TraceCausesTest, AWrongPinAfterAnUnlockIsNoLockedOne)
{
    const auto causes = summaryOf(joined({LAST_WRONG_PIN, WRONG_PIN})).causes();
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].title, "Wrong PIN");
    EXPECT_EQ(causes[0].details, "host: refused twice, 2 tries left; it was locked before, and unlocked.");
}

TEST(TraceCausesTest, ALoginOfTheSecurityOfficerPutsNoWrongPinRight)
{
    const Lines signing = {"D C_Sign", "D Sign: password empty=1 hashLen=32 session state=4"};
    EXPECT_EQ(titlesOf(joined({WRONG_PIN, RIGHT_PIN, signing})), Lines{"Wrong PIN"});
    EXPECT_EQ(titlesOf(joined({WRONG_PIN, RIGHT_PIN})), Lines{"A wrong PIN, followed by the right one"});
}

TEST(TraceCausesTest, AKeyThatIsUnpluggedInTheEndIsTheCauseOfNothing)
{
    EXPECT_EQ(titlesOf({"D C_Initialize", "D Slot event: device count changed from 1 to 0", "D C_Finalize"}),
              Lines{"A device was removed, and no call failed for it"});
    EXPECT_EQ(titlesOf({"D C_Initialize", "D Slot event: device count changed from 1 to 0", "D C_Logout",
                        "E C_Logout: user not logged in, session state=2"})[0],
              "The device was removed");
}

TEST(TraceCausesTest, WhatIsNotAskedForIsTakenIntoAccount)
{
    const Filter errors = {.errors = true};
    EXPECT_EQ(titlesOf(joined({WRONG_PIN, RIGHT_PIN}), errors), Lines{"A wrong PIN, followed by the right one"});
    EXPECT_EQ(titlesOf({"D C_Initialize", "D C_OpenSession", "D C_Finalize", "D C_Initialize", "D C_Login",
                        "E C_Login: invalid hSession=1610612737"},
                       errors),
              Lines{"Session handle invalid after C_Finalize"});
    EXPECT_EQ(titlesOf({"D C_Initialize", "E Init pkcs11 library failed failed", "D C_GetInfo",
                        "E C_GetInfo: not initialized"},
                       {.function = "C_GetInfo"}),
              Lines{"No device library: it did not start"});
    EXPECT_EQ(titlesOf(joined({WRONG_PIN}), {.function = "C_Sign"}), Lines{}) << "nothing of what is asked for";
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

/// What a host did that had nothing to complain of.
struct ContentHost {
    const char* name;
    std::uint64_t calls;
    std::uint64_t logins;
    std::uint64_t signatures;
    std::set<CK_RV> refusals;
};

void PrintTo(const ContentHost& host, std::ostream* stream)
{
    *stream << host.name;
}

class TraceContentHostTest : public testing::TestWithParam<ContentHost>
{
};

TEST_P(TraceContentHostTest, EachOfItsCallsIsUnderstood)
{
    const ContentHost& host = GetParam();
    MergedCalls merged({std::filesystem::path(SOURCES) / "tests/trace/recorded" / host.name / "2026-11-22.LOG"});
    Summary summary;
    std::set<CK_RV> refusals;
    for (Call call; merged.next(call);) {
        for (const CallLine& line : call.lines)
            EXPECT_TRUE(line.row != nullptr || isFunction(line.text)) << line.number << ": " << line.text;
        EXPECT_FALSE(call.isMixed) << call.lines.front().number << ": " << call.function;
        if (call.outcome != Outcome::NoRefusalSeen)
            refusals.insert(call.code);
        summary.add(call);
    }
    EXPECT_EQ(notesInWords(*merged.sources().front()), Lines{});
    EXPECT_EQ(refusals, host.refusals);
    EXPECT_TRUE(summary.causes().empty()) << summary.causes().front().title;
    const nlohmann::json all = summary.json();
    EXPECT_EQ(all["programs"][host.name]["calls"], host.calls);
    EXPECT_EQ(all["programs"][host.name]["loginsAccepted"], host.logins);
    EXPECT_EQ(all["functions"].value("C_Sign", nlohmann::json{{"calls", 0}})["calls"], host.signatures);
}

INSTANTIATE_TEST_SUITE_P(Recorded, TraceContentHostTest,
                         testing::Values(ContentHost{"certutil", 122, 2, 0, {CKR_FUNCTION_NOT_SUPPORTED}},
                                         ContentHost{"keytool", 68, 1, 0, {}},
                                         ContentHost{"modutil", 49, 0, 0, {CKR_FUNCTION_NOT_SUPPORTED}},
                                         ContentHost{"openssl", 105, 3, 3, {}}, ContentHost{"p11tool", 323, 2, 2, {}},
                                         ContentHost{"ssh-keygen", 27, 0, 0, {}}),
                         [](const auto& each) {
                             std::string name = each.param.name;
                             std::erase(name, '-');
                             return name;
                         });

TEST(TraceRecordedHostTest, ALogOfWindowsIsReadWhole)
{
    MergedCalls merged({std::filesystem::path(SOURCES) / "tests/trace/recorded/windows_host/2026-11-22.LOG"});
    std::map<CK_RV, int> codes;
    for (Call call; merged.next(call);)
        ++codes[call.code];
    EXPECT_EQ(codes, (std::map<CK_RV, int>{{CKR_KEY_SIZE_RANGE, 7}, {CKR_SIGNATURE_INVALID, 7}}));
    EXPECT_EQ(notesInWords(*merged.sources().front()), Lines{});
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
