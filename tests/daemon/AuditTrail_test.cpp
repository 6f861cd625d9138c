#include "AuditTrail.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace tarsel::daemon {
namespace {

class AuditTrailTest : public ::testing::Test {
  protected:
    std::string const path = ::testing::TempDir() + "audit-trail-test.log";
    // 2026-11-23 19:41:07 UTC
    std::chrono::system_clock::time_point const when =
        std::chrono::system_clock::from_time_t(1795462867);

    void SetUp() override { std::remove(path.c_str()); }
    void TearDown() override { std::remove(path.c_str()); }

    std::string contents() const {
        std::ifstream in(path);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    AuditTrail::Clock fixedClock() const {
        return [this] { return when; };
    }
};

TEST_F(AuditTrailTest, EachRecordIsOneLineStartingWithItsUtcTime) {
    AuditTrail trail(path, fixedClock());
    trail.record("write \"ups.location\": written");
    trail.record("write \"ups.contact\": refused");
    EXPECT_EQ(contents(),
              "2026-11-23T19:41:07Z write \"ups.location\": written\n"
              "2026-11-23T19:41:07Z write \"ups.contact\": refused\n");
}

TEST_F(AuditTrailTest, ControlCharactersCannotStartALineOfTheirOwn) {
    AuditTrail trail(path, fixedClock());
    trail.record("write \"x\": \nforged\x1b[31m");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z write \"x\": \\nforged\\x1B[31m\n");
}

TEST_F(AuditTrailTest, RecordsAreWrittenThroughAtOnce) {
    AuditTrail trail(path, fixedClock());
    trail.record("first");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z first\n");  // while the trail is still open
}

TEST_F(AuditTrailTest, AnExistingTrailIsAppendedTo) {
    AuditTrail(path, fixedClock()).record("before a restart");
    AuditTrail(path, fixedClock()).record("after it");
    EXPECT_EQ(contents(), "2026-11-23T19:41:07Z before a restart\n2026-11-23T19:41:07Z after it\n");
}

TEST_F(AuditTrailTest, AFileThatCannotBeOpenedThrowsNamingItAndTheReason) {
    try {
        AuditTrail trail("/nonexistent-directory/audit.log");
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
    AuditTrail(path, fixedClock()).record("kept");
    EXPECT_EQ(AuditTrail::whyNotOpenable(path), std::nullopt);
    EXPECT_EQ(AuditTrail::whyNotOpenable("/nonexistent-directory/audit.log"),
              "cannot open the audit trail \"/nonexistent-directory/audit.log\": No such file or "
              "directory");
    std::string const directory = ::testing::TempDir();
    EXPECT_EQ(AuditTrail::whyNotOpenable(directory),
              "cannot open the audit trail \"" + directory + "\": Is a directory");
    try {
        AuditTrail trail(directory);
        FAIL() << "opened a directory";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(), *AuditTrail::whyNotOpenable(directory));
    }
    // A file under a file: opening fails as the check says.
    std::string const under = path + "/audit.log";
    ASSERT_TRUE(AuditTrail::whyNotOpenable(under).has_value());
    try {
        AuditTrail trail(under);
        FAIL() << "opened a file under a file";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(), *AuditTrail::whyNotOpenable(under));
    }
}

}  // namespace
}  // namespace tarsel::daemon
