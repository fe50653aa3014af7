// Lines put together to calls, and said in words.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "describe.h"
#include "filter.h"
#include "redaction.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

using test::callsOf;

/// "function: outcome", with " mixed" and " (no entry)" where that is so.
std::vector<std::string> shortly(const std::vector<Call>& calls)
{
    std::vector<std::string> texts;
    for (const Call& call : calls)
        texts.push_back((call.isMonitor ? "monitor" : std::string(call.function)) + ": " + outcomeText(call) +
                        (call.isMixed ? " mixed" : "") + (call.hasEntry || call.isMonitor ? "" : " (no entry)"));
    return texts;
}

using Texts = std::vector<std::string>;

TEST(TraceCallsTest, EachEntryLineBeginsACall)
{
    const auto calls = callsOf(Texts{"D C_Initialize", "D C_GetSlotList", "E C_GetSlotList: pulCount is NULL",
                                     "D C_Finalize", "D C_Finalize completed successfully."});
    EXPECT_EQ(shortly(calls), (Texts{"C_Initialize: no refusal seen", "C_GetSlotList: refused CKR_ARGUMENTS_BAD",
                                     "C_Finalize: no refusal seen"}));
    EXPECT_EQ(calls[0].duration(), 1);
    EXPECT_EQ(calls[1].duration(), 1);
    EXPECT_EQ(calls[2].lines.size(), 2U);
}

TEST(TraceCallsTest, BothLinesOfARefusedPinAreOneRefusal)
{
    const auto calls = callsOf(Texts{"D C_Login", "E Token password validation failed : 312",
                                     "E Token password validation failed, retry count : 0", "D C_Logout"});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(outcomeText(calls[0]), "refused CKR_PIN_LOCKED");
    EXPECT_NE(explanationOf(calls[0]).find("status 312 (PinIncorrect)"), std::string::npos);
    EXPECT_NE(explanationOf(calls[0]).find("0 tries left"), std::string::npos);
}

TEST(TraceCallsTest, APinThatCouldNotBeCheckedIsAFailure)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_Login", "E Token password validation failed : 48", "D C_Logout"}))[0],
              "C_Login: refused CKR_FUNCTION_FAILED");
}

TEST(TraceCallsTest, ErrorLinesAloneAreCallsWithoutEntry)
{
    EXPECT_EQ(
        shortly(callsOf(Texts{"E C_GetInfo: pInfo is NULL", "E Token password validation failed : 312",
                              "E Token password validation failed, retry count : 2", "E C_GetInfo: pInfo is NULL"})),
        (Texts{"C_GetInfo: refused CKR_ARGUMENTS_BAD (no entry)", "C_Login: refused CKR_PIN_INCORRECT (no entry)",
               "C_GetInfo: refused CKR_ARGUMENTS_BAD (no entry)"}));
}

TEST(TraceCallsTest, BothLinesOfARefusedPinMayBeFarApart)
{
    const auto log = test::logLine("10:00:00:000", "ERROR", "Token password validation failed : 312") +
                     test::logLine("10:00:00:400", "ERROR", "Token password validation failed, retry count : 2");
    EXPECT_EQ(shortly(test::callsOfLogs({test::writtenFile(test::freshFolder() / "a.LOG", log)})),
              Texts{"C_Login: refused CKR_PIN_INCORRECT (no entry)"});
}

TEST(TraceCallsTest, DebugLinesOfARefusalAreRefusals)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_Login", "D C_Login: User already logged in", "D C_DestroyObject",
                                    "D Delete key pair id : 1879048192", "D Delete session state invalid : 1"})),
              (Texts{"C_Login: refused CKR_USER_ALREADY_LOGGED_IN", "C_DestroyObject: refused CKR_SESSION_READ_ONLY"}));
}

TEST(TraceCallsTest, FunctionsThatAreNotSupportedAreRefused)
{
    EXPECT_EQ(
        shortly(callsOf(Texts{"D C_InitToken", "D C_EjectToken"})),
        (Texts{"C_InitToken: refused CKR_FUNCTION_NOT_SUPPORTED", "C_EjectToken: refused CKR_FUNCTION_NOT_SUPPORTED"}));
}

TEST(TraceCallsTest, ADerivationThatSaysNothingWasRefused)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_DeriveKey", "D C_DeriveKey", "D C_DeriveKey: done, handle=1879060480"})),
              (Texts{"C_DeriveKey: refused, its code is not logged", "C_DeriveKey: no refusal seen"}));
}

TEST(TraceCallsTest, LinesOfTheMonitorBelongToNoCall)
{
    const auto calls = callsOf(Texts{"D C_Login", "D Slot event: device count changed from 1 to 0",
                                     "E Token password validation failed : 40",
                                     "E Token password validation failed, retry count : 3"});
    EXPECT_EQ(shortly(calls), (Texts{"C_Login: refused CKR_PIN_INCORRECT", "monitor: "}));
}

TEST(TraceCallsTest, ALineThatCannotBeTheCallsIsToldAsMixed)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_Sign", "D C_FindObjects find object count : 3", "D sign echanism : 1"})),
              (Texts{"C_Sign: no refusal seen mixed", "C_FindObjects: no refusal seen mixed (no entry)"}));
}

TEST(TraceCallsTest, TheSameLineTwiceInACallIsToldAsMixed)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_Sign", "D C_Sign", "D sign echanism : 1", "D sign echanism : 1"})).back(),
              "C_Sign: no refusal seen mixed");
}

TEST(TraceCallsTest, LinesOfTheStrictFrontAreNoMixture)
{
    EXPECT_EQ(shortly(callsOf(Texts{"D C_SignInit", "E C_Sign: the key does not do this", "D C_Logout"})),
              (Texts{"C_SignInit: no refusal seen", "C_Sign: refused CKR_KEY_FUNCTION_NOT_PERMITTED (no entry)",
                     "C_Logout: no refusal seen"}));
}

TEST(TraceCallsTest, ACallKeepsAFewOfVeryManyLines)
{
    Texts lines = {"D C_GetAttributeValue"};
    lines.resize(5000, "D C_GetAttributeValue type : 3");
    const auto calls = callsOf(lines);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_LT(calls[0].lines.size(), 1000U);
    EXPECT_EQ(calls[0].lines.size() + calls[0].linesLeftOut, 5000U);
}

TEST(TraceCallsTest, CallsOfSeveralLogsComeInTheOrderOfTime)
{
    const auto folder = test::freshFolder();
    const auto one =
        test::writtenFile(folder / "one" / "2026-11-15.LOG", test::logLine("10:00:00:000", "DEBUG", "C_GetInfo") +
                                                                 test::logLine("10:00:02:000", "DEBUG", "C_Login"));
    const auto two =
        test::writtenFile(folder / "two" / "2026-11-15.LOG", test::logLine("10:00:01:000", "DEBUG", "C_Logout"));
    const auto old = test::writtenFile(folder / "old" / "2025-12-31.LOG", "31/12::23:59:59:999-> ->DEBUG ::=>C_Sign\n");
    EXPECT_EQ(shortly(test::callsOfLogs({one, two, old})),
              (Texts{"C_Sign: no refusal seen", "C_GetInfo: no refusal seen", "C_Logout: no refusal seen",
                     "C_Login: no refusal seen"}));
}

TEST(TraceCallsTest, ALogIsOpenOnlyInItsOwnTime)
{
    const auto folder = test::freshFolder();
    std::vector<std::filesystem::path> logs;
    for (int each = 30; each > 0; --each) {
        const std::string clock = "10:" + std::to_string(10 + each) + ":00:000";
        logs.push_back(test::writtenFile(folder / std::to_string(each) / "2026-11-15.LOG",
                                         test::logLine(clock, "DEBUG", "C_GetInfo")));
    }
    MergedCalls merged(logs);
    Call call;
    ASSERT_TRUE(merged.next(call));
    ASSERT_TRUE(merged.next(call));
    EXPECT_EQ(clockText(call.start), "10:12:00.000");
    std::ofstream(logs.front(), std::ios::app | std::ios::binary) << test::logLine("10:50:00:000", "DEBUG", "C_Logout");
    int count = 2;
    while (merged.next(call))
        ++count;
    EXPECT_EQ(count, 31) << "the last log is read when the others have ended";
    EXPECT_EQ(call.function, "C_Logout");
}

TEST(TraceCallsTest, ACallKeepsFewBytesOfVeryLongLines)
{
    Texts lines = {"D C_Sign"};
    lines.resize(50, "D Sign input hash : " + std::string(20'000, 'A'));
    const auto calls = callsOf(lines);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_LT(calls[0].bytes, 200'000U);
    EXPECT_EQ(calls[0].lines.size() + calls[0].linesLeftOut, 50U);
}

TEST(TraceWordsTest, NumbersHaveTheirNames)
{
    const auto calls =
        callsOf(Texts{"D C_FindObjects", "D Find object return : 1879048197 1879052293 1879056385 1879060480"});
    EXPECT_EQ(explanationOf(calls[0]), "private key 5, public key 5, certificate 1, derived key 1");
    EXPECT_EQ(explanationOf(callsOf(Texts{"E C_SignInit: unsupported mechanism=4164"})[0]),
              "CKM_ECDSA_SHA256 (4164). The module does not sign with this mechanism.");
    EXPECT_EQ(explanationOf(callsOf(Texts{"E C_SetAttributeValue: invalid hObject=5"})[0]),
              "no such handle: 5. Only key pairs can be changed.");
}

TEST(TraceWordsTest, RedactionHidesHashesLabelsAndUnknownTexts)
{
    auto calls = callsOf(Texts{"D C_Sign", "D Sign input hash : 0123456789ABCDEF", "D somebody's own words",
                               "D C_CreateObject", "D Label not provided, using: Jane_CA", "D CA Folder: /home/jane"});
    std::string all;
    for (Call& call : calls) {
        redact(call);
        for (const CallLine& line : call.lines)
            all += line.text + "\n";
    }
    EXPECT_EQ(all, "C_Sign\nSign input hash : [hidden]\n[hidden]\nC_CreateObject\nLabel not provided, using: [hidden]\n"
                   "CA Folder: [hidden]\n");
}

TEST(TraceExplainTest, KnowsLinesCodesNumbersStatusesAndFunctions)
{
    EXPECT_NE(explain("15/11::10:00:00:000-> ->ERROR ::=>C_Login: pPin is NULL").find("CKR_ARGUMENTS_BAD"),
              std::string::npos);
    EXPECT_NE(explain("CKR_PIN_LOCKED").find("unlocked with the SO PIN"), std::string::npos);
    EXPECT_NE(explain("CKR_DEVICE_REMOVED")
                  .find("lines that go with it with status 40 and 242:\n    Leaf import failed: {status}"),
              std::string::npos);
    EXPECT_NE(explain("CKR_FUNCTION_FAILED").find("with another than status 40 and 242:"), std::string::npos);
    EXPECT_NE(explain("CKR_KEY_NEEDED").find("Neither the module nor the strict front gives this code."),
              std::string::npos);
    EXPECT_NE(explain("0x50000001").find("slot 1"), std::string::npos);
    EXPECT_NE(explain("1879048197").find("private key 5"), std::string::npos);
    EXPECT_NE(explain("status 313").find("the PIN is locked"), std::string::npos);
    EXPECT_NE(explain("status 313").find("CKR_PIN_LOCKED"), std::string::npos);
    EXPECT_NE(explain("status 12345").find("makers"), std::string::npos);
    EXPECT_NE(explain("C_Login").find("C_Login: pPin is NULL"), std::string::npos);
    EXPECT_EQ(explain("what is this"), "");
    EXPECT_EQ(explain("0x"), "");
}

TEST(TraceFilterTest, TimesAndDurationsAreRead)
{
    EXPECT_EQ(timeOfDay("10:30"), (10 * 60 + 30) * 60 * 1000);
    EXPECT_EQ(timeOfDay("10:30:15"), ((10 * 60 + 30) * 60 + 15) * 1000);
    for (const char* wrong : {"", "10", "24:00", "10:60", "10:30:", "10:30:15:1", "x", "-1:00", "10:30x"})
        EXPECT_EQ(timeOfDay(wrong), std::nullopt) << wrong;
    EXPECT_EQ(durationOf("200ms"), 200);
    EXPECT_EQ(durationOf("1.5s"), 1500);
    EXPECT_EQ(durationOf("200"), 200);
    for (const char* wrong : {"", "ms", "-1", "1h", "nan"})
        EXPECT_EQ(durationOf(wrong), std::nullopt) << wrong;
}

TEST(TraceFilterTest, CallsAreChosenByWhatIsAskedFor)
{
    const auto calls =
        callsOf(Texts{"D C_OpenSession", "D Opensession  : 1610612738", "D C_Sign", "E Sign hash failed : 311"});
    EXPECT_TRUE(Filter{.session = 2}.wants(calls[0]));
    EXPECT_TRUE(Filter{.session = 0x60000002}.wants(calls[0]));
    EXPECT_FALSE(Filter{.session = 1}.wants(calls[0]));
    EXPECT_FALSE(Filter{.errors = true}.wants(calls[0]));
    EXPECT_TRUE(Filter{.errors = true}.wants(calls[1]));
    EXPECT_TRUE(Filter{.function = "Sign"}.wants(calls[1]));
    EXPECT_TRUE(Filter{.function = "C_Sign"}.wants(calls[1]));
    EXPECT_FALSE(Filter{.function = "C_Sign"}.wants(calls[0]));
    EXPECT_TRUE(Filter{.slow = 1}.wants(calls[1]));
    EXPECT_FALSE(Filter{.slow = 100}.wants(calls[1]));
    EXPECT_TRUE(Filter{.since = timeOfDay("10:00")}.wants(calls[1]));
    EXPECT_FALSE(Filter{.since = timeOfDay("10:01")}.wants(calls[1]));
}

TEST(TraceFilterTest, ATimeOfTheDayIsOneOfTheFirstDay)
{
    Filter sinceEvening{.since = timeOfDay("22:00")};
    Call call;
    for (const auto& [time, isWanted] : {std::pair{*timeOfDay("21:59"), false},
                                         {*timeOfDay("22:00"), true},
                                         {DAY + *timeOfDay("00:10"), true},
                                         {DAY + *timeOfDay("21:59"), true}}) {
        call.start = 5 * DAY + time;
        EXPECT_EQ(sinceEvening.wants(call), isWanted) << clockText(time);
    }
}

TEST(TraceCallsTest, AnErrorLineThatNobodyKnowsIsARefusal)
{
    const auto calls = callsOf(Texts{"D C_GetInfo", "E C_GetInfo: the moon is full", "D C_GetInfo"});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].outcome, Outcome::Refused);
    EXPECT_EQ(outcomeText(calls[0]), "refused");
    EXPECT_TRUE(Filter{.errors = true}.wants(calls[0]));
    EXPECT_EQ(explanationOf(calls[0]), "A text that this version does not know: C_GetInfo: the moon is full");
    EXPECT_EQ(calls[1].outcome, Outcome::NoRefusalSeen);
}

} // namespace
} // namespace velkor::trace
