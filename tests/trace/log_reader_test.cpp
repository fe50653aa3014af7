// Lines as they come from files, whole or not.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "describe.h"
#include "output.h"
#include "redaction.h"
#include "summary.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

using test::freshFolder;
using test::logLine;
using test::writtenFile;

struct ReadLog {
    std::vector<std::string> texts;
    ReadingNotes notes;
};

ReadLog readLog(const std::filesystem::path& path, std::size_t bufferSize = LARGE_BUFFER)
{
    LogReader reader(path, bufferSize);
    ReadLog read;
    LogLine line;
    while (reader.next(line))
        read.texts.emplace_back(line.text);
    if (reader.last(line))
        read.texts.emplace_back(line.text);
    read.notes = reader.notes();
    return read;
}

ReadLog readText(const std::string& content)
{
    return readLog(writtenFile(freshFolder() / "a.LOG", content));
}

using Texts = std::vector<std::string>;

TEST(TraceReaderTest, LinesAreTakenApart)
{
    LogLine line;
    ASSERT_TRUE(parseLine("15/11::13:46:27:123-> ->ERROR ::=>C_GetSlotInfo: invalid slotID=12", line));
    EXPECT_EQ(clockText(line.time), "13:46:27.123");
    EXPECT_EQ(dateText(line.time), "11-15");
    EXPECT_EQ(dateText(line.time + timeOfYear(2026)), "2026-11-15");
    EXPECT_EQ(line.day, 15);
    EXPECT_EQ(line.month, 11);
    EXPECT_EQ(line.level, Level::Error);
    EXPECT_EQ(line.text, "C_GetSlotInfo: invalid slotID=12");
}

TEST(TraceReaderTest, EveryDayOfAYearHasItsDate)
{
    LogLine line;
    ASSERT_TRUE(parseLine("31/12::23:59:59:999-> ->DEBUG ::=>C_Login", line));
    EXPECT_EQ(dateText(line.time + timeOfYear(2025)), "2025-12-31");
    const Milliseconds last = line.time + timeOfYear(2025);
    ASSERT_TRUE(parseLine("01/01::00:00:00:000-> ->DEBUG ::=>C_Login", line));
    EXPECT_EQ(dateText(line.time + timeOfYear(2026)), "2026-01-01");
    EXPECT_LT(last, line.time + timeOfYear(2026));
}

TEST(TraceReaderTest, LineEndsOfWindowsAreTakenToo)
{
    const ReadLog read = readText("15/11::13:46:27:123-> ->DEBUG ::=>C_Login\r\n");
    EXPECT_EQ(read.texts, Texts{"C_Login"});
    EXPECT_TRUE(read.notes.carriageReturns);
}

TEST(TraceReaderTest, ForeignLinesAreCountedAndPassedOver)
{
    const ReadLog read = readText("hello\n" + logLine("10:00:00:000", "DEBUG", "C_Login") + "\nSegmentation fault\n");
    EXPECT_EQ(read.texts, Texts{"C_Login"});
    EXPECT_EQ(read.notes.foreign, 2U);
    EXPECT_EQ(read.notes.cut, 0U);
}

TEST(TraceReaderTest, CutLinesAreCounted)
{
    const std::string whole = logLine("10:00:00:000", "DEBUG", "C_Login");
    const ReadLog read = readText("15/11::10:00:0\n" + whole.substr(0, 28) + whole + whole.substr(0, 40));
    EXPECT_EQ(read.texts, (Texts{"C_Login", "C_Logi"}));
    EXPECT_EQ(read.notes.cut, 3U);
}

TEST(TraceReaderTest, WrongBytesAreCountedAndNotShown)
{
    const ReadLog read = readText(logLine("10:00:00:000", "DEBUG", "Label not provided, using: \xFF\x1B[2J"));
    EXPECT_EQ(read.notes.wrongBytes, 1U);
    EXPECT_EQ(printable(read.texts.at(0)), "Label not provided, using: ??[2J");
}

TEST(TraceReaderTest, ControlsOfTerminalsAreNotShownHoweverTheyAreWritten)
{
    EXPECT_EQ(printable("\xC2\x9B"
                        "2J"),
              "??2J")
        << "one that terminals obey";
    EXPECT_EQ(printable("\xE0\x80\x9B"), "???") << "in too many bytes";
    EXPECT_EQ(printable("\xED\xA0\x80"), "???") << "half of a pair";
    EXPECT_EQ(printable("\xC2\xA0\xF0\x9F\x94\x91"), "\xC2\xA0\xF0\x9F\x94\x91");
}

TEST(TraceReaderTest, TextInUtf8IsNoWrongByte)
{
    EXPECT_EQ(readText(logLine("10:00:00:000", "DEBUG", "VELKOR_HOME not set \xE2\x80\x94 Using Windows defaults"))
                  .notes.wrongBytes,
              0U);
}

TEST(TraceReaderTest, AnOverlongLineIsCutAndTheNextOneRead)
{
    const ReadLog read = readText(logLine("10:00:00:000", "DEBUG", std::string(3'000'000, 'x')) +
                                  logLine("10:00:00:001", "DEBUG", "C_Login"));
    ASSERT_EQ(read.texts.size(), 2U);
    EXPECT_LT(read.texts[0].size(), 100'000U);
    EXPECT_EQ(read.texts[1], "C_Login");
    EXPECT_EQ(read.notes.overlong, 1U);
}

TEST(TraceReaderTest, LinesLongerThanTheBufferAreReadWhole)
{
    const std::string longer(3 * SMALL_BUFFER, 'x');
    const auto path =
        writtenFile(freshFolder() / "a.LOG", logLine("10:00:00:000", "DEBUG", longer) +
                                                 logLine("10:00:00:001", "DEBUG", "C_Login") +
                                                 logLine("10:00:00:002", "DEBUG", std::string(3'000'000, 'y')) +
                                                 logLine("10:00:00:003", "DEBUG", "C_Logout"));
    const ReadLog read = readLog(path, SMALL_BUFFER);
    EXPECT_EQ(read.texts, readLog(path).texts);
    ASSERT_EQ(read.texts.size(), 4U);
    EXPECT_EQ(read.texts[0], longer);
    EXPECT_EQ(read.notes.overlong, 1U);
}

TEST(TraceReaderTest, LineEndsOfWindowsAreTold)
{
    Source source(writtenFile(freshFolder() / "a.LOG", "15/11::13:46:27:123-> ->DEBUG ::=>C_Login\r\n"));
    Call call;
    ASSERT_TRUE(source.next(call, false));
    EXPECT_EQ(notesInWords(source), Texts{"its lines end as on Windows"});
}

TEST(TraceReaderTest, AFileThatIsMissingOrAFolderIsTold)
{
    EXPECT_NE(readLog(freshFolder() / "missing.LOG").notes.error, "");
    EXPECT_NE(readLog(freshFolder()).notes.error, "");
}

TEST(TraceReaderTest, AFileThatGrowsHasMoreLines)
{
    const auto path = writtenFile(freshFolder() / "a.LOG", logLine("10:00:00:000", "DEBUG", "C_Login"));
    LogReader reader(path);
    LogLine line;
    ASSERT_TRUE(reader.next(line));
    EXPECT_FALSE(reader.next(line));
    std::ofstream(path, std::ios::app | std::ios::binary) << logLine("10:00:00:001", "DEBUG", "C_Logout");
    EXPECT_TRUE(reader.refresh());
    ASSERT_TRUE(reader.next(line));
    EXPECT_EQ(line.text, "C_Logout");
}

TEST(TraceReaderTest, AFileThatShrinksIsReadAnew)
{
    const auto path = writtenFile(freshFolder() / "a.LOG", logLine("10:00:00:000", "DEBUG", "C_Login") +
                                                               logLine("10:00:00:001", "DEBUG", "C_Sign"));
    LogReader reader(path);
    LogLine line;
    while (reader.next(line)) {
    }
    writtenFile(path, logLine("10:00:02:000", "DEBUG", "C_Logout"));
    EXPECT_TRUE(reader.refresh());
    ASSERT_TRUE(reader.next(line));
    EXPECT_EQ(line.text, "C_Logout");
    EXPECT_EQ(reader.notes().shrunk, 1U);
}

TEST(TraceReaderTest, AFileThatShrankWhileItWasReadIsTold)
{
    const auto path = writtenFile(freshFolder() / "a.LOG", logLine("10:00:00:000", "DEBUG", "C_GetInfo"));
    LogReader reader(path);
    LogLine line;
    while (reader.next(line)) {
    }
    std::filesystem::resize_file(path, 5);
    EXPECT_FALSE(reader.last(line));
    EXPECT_EQ(reader.notes().shrunk, 1U);
}

TEST(TraceReaderTest, AFolderInPlaceOfALogIsTold)
{
    const auto folder = freshFolder();
    std::filesystem::create_directory(folder / "folder.LOG");
    EXPECT_EQ(whyUnwritable(folder / "folder.LOG"), "a folder stands in its place");
    EXPECT_EQ(whyUnwritable(writtenFile(folder / "good.LOG", "")), "");
}

// ---- Damaged logs ----

std::string soundLog()
{
    std::string log;
    for (int round = 0; round < 20; ++round) {
        for (const TextRow& row : textRows()) {
            const bool isError = row.kind == TextKind::Refusal || row.kind == TextKind::Warning;
            log += logLine("10:00:00:000", isError ? "ERROR" : "DEBUG", std::string(row.pattern));
        }
        log += logLine("10:00:00:000", "DEBUG", "C_Login") + logLine("10:00:00:000", "DEBUG", "Sign input hash : 00FF");
    }
    return log.substr(0, 60'000);
}

TEST(TraceReaderTest, DamagedLogsDoNoHarm)
{
    const std::string sound = soundLog();
    const auto folder = freshFolder();
    std::mt19937 random(20'261'115); // NOLINT(cert-msc51-cpp): every run is to meet the same logs.
    for (int round = 0; round < DAMAGED_LOGS; ++round) {
        const std::size_t start = static_cast<std::size_t>(random()) % (sound.size() - 3000);
        const auto path = writtenFile(folder / "a.LOG", test::damaged(sound.substr(start, 3000), random));
        MergedCalls merged({path});
        Summary summary;
        for (Call call; merged.next(call);) {
            summary.add(call);
            if (round % 2 == 0)
                redact(call);
            tableRow(call, {.width = 80, .colours = true, .programs = true});
            const std::string line = jsonLine(call);
            EXPECT_EQ(jsonLine(nlohmann::json::parse(line)), line);
        }
        EXPECT_FALSE(summary.text().empty());
        EXPECT_FALSE(jsonLine(summary.json()).empty());
    }
}

} // namespace
} // namespace velkor::trace
