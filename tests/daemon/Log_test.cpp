// The daemon's log lines: one line per event whatever the text holds, and
// repeated events limited with a summary, on a clock the test moves.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "Log.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;

struct ClockedLog {
    std::ostringstream out;
    std::chrono::steady_clock::time_point now{};
    Log log{out, false, [this] { return now; }};
};

TEST(LogTest, ALineBreakInTheTextCannotStartAForgedLine) {
    std::ostringstream out;
    Log log(out);
    log.info("wrote \"x\ntarsel-modbusd: error: FORGED\"");
    EXPECT_EQ(out.str(), "tarsel-modbusd: wrote \"x\\ntarsel-modbusd: error: FORGED\"\n");
}

/* Takes nothing while `full` is set, as a file on a full disk. */
class FillingBuffer : public std::stringbuf {
  public:
    bool full = false;

  protected:
    std::streamsize xsputn(char const* text, std::streamsize count) override {
        return full ? 0 : std::stringbuf::xsputn(text, count);
    }
    int_type overflow(int_type c) override {
        return full ? traits_type::eof() : std::stringbuf::overflow(c);
    }
};

TEST(LogTest, LoggingResumesOnceTheStreamTakesLinesAgain) {
    FillingBuffer buffer;
    std::ostream out(&buffer);
    Log log(out);
    log.info("before");
    buffer.full = true;
    log.info("lost");
    buffer.full = false;
    log.info("after");
    EXPECT_EQ(buffer.str(), "tarsel-modbusd: before\ntarsel-modbusd: after\n");
}

TEST(LogTest, LinesWritesMultiLineTextOfTheDaemonsOwnLineByLine) {
    std::ostringstream out;
    Log log(out);
    log.lines(Log::Level::Info, "register map:\n| a |\n| b |\n");
    EXPECT_EQ(out.str(),
              "tarsel-modbusd: register map:\ntarsel-modbusd: | a |\ntarsel-modbusd: | b |\n");
}

TEST(LogTest, RepeatedEventsAreCutToTheBurstAndSummarisedAfterTheMinute) {
    ClockedLog clocked;
    for (int i = 0; i < 1210; ++i) {
        clocked.log.limited(Log::Level::Warning, "clients refused",
                            i < 1209 ? "client refused" : "client 10.0.0.9:5 refused");
    }
    clocked.now += 30s;
    clocked.log.summarise();
    std::string const before = clocked.out.str();
    clocked.now += 30s;
    clocked.log.summarise();
    std::string const after = clocked.out.str();
    std::string const line = "tarsel-modbusd: warning: client refused\n";
    std::string burst;
    for (std::size_t i = 0; i < Log::kBurstPerMinute; ++i) {
        burst += line;
    }
    EXPECT_EQ(before, burst);
    EXPECT_EQ(after, burst +
                         "tarsel-modbusd: warning: ... 1,200 more \"clients refused\" in the last "
                         "minute; the last: client 10.0.0.9:5 refused\n");
}

TEST(LogTest, DebugLinesAreNeverLimitedAndOnlyWrittenWhenVerbose) {
    std::ostringstream quietOut;
    Log quiet(quietOut);
    quiet.limited(Log::Level::Debug, "k", "hidden");
    EXPECT_EQ(quietOut.str(), "");
    std::ostringstream verboseOut;
    Log verbose(verboseOut, true);
    for (int i = 0; i < 20; ++i) {
        verbose.limited(Log::Level::Debug, "k", "shown");
    }
    std::string const text = verboseOut.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20);
}

TEST(LogTest, JournalLinesCarryTheirPriorityAndNeitherNameNorTimestamp) {
    std::ostringstream out;
    Log log(out, true);
    log.setFormat(Log::Format::Journal);
    log.error("e");
    log.warning("w");
    log.info("i");
    log.debug("d");
    EXPECT_EQ(out.str(), "<3>error: e\n<4>warning: w\n<6>i\n<7>debug: d\n");
}

TEST(LogTest, AJournalLineCannotForgeAPriority) {
    std::ostringstream out;
    Log log(out);
    log.setFormat(Log::Format::Journal);
    log.info("x\n<3>FORGED");
    EXPECT_EQ(out.str(), "<6>x\\n<3>FORGED\n");
}

TEST(LogTest, RepeatedJournalEventsAreSummarisedWithTheirPriority) {
    ClockedLog clocked;
    clocked.log.setFormat(Log::Format::Journal);
    for (std::size_t i = 0; i <= Log::kBurstPerMinute; ++i) {
        clocked.log.limited(Log::Level::Warning, "k", "refused");
    }
    clocked.now += 61s;
    clocked.log.summarise();
    std::string const text = clocked.out.str();
    EXPECT_NE(text.find("\n<4>warning: ... 1 more \"k\" in the last minute; the last: refused\n"),
              std::string::npos)
        << text;
}

TEST(LogTest, JournalStreamMustNameTheDescriptorsFile) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    int const fd = fileno(file);
    struct stat status {};
    ASSERT_EQ(::fstat(fd, &status), 0);
    std::string const mine = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    std::string const other =
        std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + 1);
    EXPECT_TRUE(isJournalStream(mine.c_str(), fd));
    EXPECT_FALSE(isJournalStream(other.c_str(), fd));
    EXPECT_FALSE(isJournalStream((mine + "x").c_str(), fd));
    EXPECT_FALSE(isJournalStream("", fd));
    EXPECT_FALSE(isJournalStream(nullptr, fd));
    std::fclose(file);
}

}  // namespace
}  // namespace tarsel::daemon
