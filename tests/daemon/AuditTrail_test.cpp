#include "AuditTrail.h"

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Log.h"

namespace tarsel::daemon {
namespace {

class AuditTrailTest : public ::testing::Test {
  protected:
    std::string const path = ::testing::TempDir() + "audit-trail-test.log";
    // 2026-11-23 19:41:07 UTC
    std::chrono::system_clock::time_point const when =
        std::chrono::system_clock::from_time_t(1795462867);

    std::ostringstream logged;
    Log log{logged};

    void SetUp() override {
        std::remove(path.c_str());
        std::remove((path + ".1").c_str());
    }
    void TearDown() override {
        std::remove(path.c_str());
        std::remove((path + ".1").c_str());
    }

    std::string contents() const { return contentsOf(path); }
    static std::string contentsOf(std::string const& file) {
        std::ifstream in(file);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    AuditTrail::Clock fixedClock() const {
        return [this] { return when; };
    }
};

TEST_F(AuditTrailTest, EachRecordIsOneLineStartingWithItsUtcTime) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("write \"ups.location\": written");
    trail.record("write \"ups.contact\": refused");
    EXPECT_EQ(contents(),
              "2026-11-23T19:41:07Z write \"ups.location\": written\n"
              "2026-11-23T19:41:07Z write \"ups.contact\": refused\n");
}

TEST_F(AuditTrailTest, ControlCharactersCannotStartALineOfTheirOwn) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("write \"x\": \nforged\x1b[31m");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z write \"x\": \\nforged\\x1B[31m\n");
}

TEST_F(AuditTrailTest, RecordsAreWrittenThroughAtOnce) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("first");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z first\n");  // while the trail is still open
}

TEST_F(AuditTrailTest, AnExistingTrailIsAppendedTo) {
    AuditTrail(path, log, fixedClock()).record("before a restart");
    AuditTrail(path, log, fixedClock()).record("after it");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z before a restart\n2026-11-23T19:41:07Z after it\n");
}

TEST_F(AuditTrailTest, AFileThatCannotBeOpenedThrowsNamingItAndTheReason) {
    try {
        AuditTrail trail("/nonexistent-directory/audit.log", log);
        FAIL() << "opened a file in a missing directory";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(),
                     "cannot open the audit trail \"/nonexistent-directory/audit.log\": No such "
                     "file or directory");
    }
}

TEST_F(AuditTrailTest, WhyNotOpenableSaysWhatOpeningWouldThrowWithoutCreatingTheFile) {
    EXPECT_EQ(AuditTrail::whyNotOpenable(path), std::nullopt);
    EXPECT_FALSE(std::ifstream(path).good()) << "the check created the trail";
    AuditTrail(path, log, fixedClock()).record("kept");
    EXPECT_EQ(AuditTrail::whyNotOpenable(path), std::nullopt);
    EXPECT_EQ(AuditTrail::whyNotOpenable("/nonexistent-directory/audit.log"),
              "cannot open the audit trail \"/nonexistent-directory/audit.log\": No such file or "
              "directory");
    std::string const directory = ::testing::TempDir();
    EXPECT_EQ(AuditTrail::whyNotOpenable(directory),
              "cannot open the audit trail \"" + directory + "\": Is a directory");
    try {
        AuditTrail trail(directory, log);
        FAIL() << "opened a directory";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(), *AuditTrail::whyNotOpenable(directory));
    }
    // A file under a file: opening fails as the check says.
    std::string const under = path + "/audit.log";
    ASSERT_TRUE(AuditTrail::whyNotOpenable(under).has_value());
    try {
        AuditTrail trail(under, log);
        FAIL() << "opened a file under a file";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(), *AuditTrail::whyNotOpenable(under));
    }
}

/* Lowers the file size limit of this process (each test has its own) to
 * `bytes` while it lives: writes past it fail with EFBIG, as they would with
 * ENOSPC on a full disk, and work again once the limit is back. */
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);  // a failed write, not a signal that ends the test
        ::getrlimit(RLIMIT_FSIZE, &m_saved);
        rlimit lowered = m_saved;
        lowered.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &m_saved); }
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;

  private:
    rlimit m_saved{};
};

TEST_F(AuditTrailTest, ARecordThatCannotBeWrittenIsLoggedAsAnErrorWithItsText) {
    AuditTrail trail("/dev/full", log, fixedClock());
    trail.record("write \"ups.location\": written");
    EXPECT_EQ(logged.str(),
              "tarsel-modbusd: error: cannot write to the audit trail \"/dev/full\": No space left "
              "on device; not recorded there: write \"ups.location\": written\n");
}

TEST_F(AuditTrailTest, RecordingResumesOnceTheFileCanGrowAgain) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("first");
    {
        FileSizeLimit const full(contents().size());
        trail.record("second");
        trail.record("third");
    }
    trail.record("fourth");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z first\n2026-11-23T19:41:07Z fourth\n");
    EXPECT_NE(logged.str().find("not recorded there: third\n"), std::string::npos) << logged.str();
    EXPECT_NE(logged.str().find("tarsel-modbusd: the audit trail \"" + path +
                                "\" is written again; 2 records could not be written to it\n"),
              std::string::npos)
        << logged.str();
}

TEST_F(AuditTrailTest, ARecordWrittenInPartDoesNotRunIntoTheNextOne) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("first");
    {
        FileSizeLimit const nearlyFull(contents().size() + 10);
        trail.record("second");
    }
    trail.record("third");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z first\n2026-11-23\n2026-11-23T19:41:07Z third\n");
}

TEST_F(AuditTrailTest, ATrailRenamedAwayIsCreatedAfreshAtTheNextRecord) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("before the rotation");
    ASSERT_EQ(std::rename(path.c_str(), (path + ".1").c_str()), 0);
    trail.record("after it");
    EXPECT_EQ(contentsOf(path + ".1"), "2026-11-23T19:41:07Z before the rotation\n");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z after it\n");
    EXPECT_NE(logged.str().find("was moved or removed; recording in a new one"), std::string::npos)
        << logged.str();
}

TEST_F(AuditTrailTest, ATrailRemovedIsCreatedAfreshAtTheNextRecord) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("before the removal");
    ASSERT_EQ(std::remove(path.c_str()), 0);
    trail.record("after it");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z after it\n");
}

TEST_F(AuditTrailTest, ATrailTruncatedUnderItIsWrittenFromItsNewStart) {
    AuditTrail trail(path, log, fixedClock());
    trail.record("copied away");
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    trail.record("after the truncation");
    // No hole of NUL bytes as long as what was copied away.
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z after the truncation\n");
}

}  // namespace
}  // namespace tarsel::daemon
