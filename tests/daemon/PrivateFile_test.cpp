// Secret files are read only when no one but their owner may read them.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "PrivateFile.h"

namespace tarsel::daemon {
namespace {

class PrivateFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tarsel-private-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_dir = pattern;
        m_path = m_dir + "/secret";
        std::ofstream(m_path) << "password = hunter2\n";
    }
    void TearDown() override {
        ::unlink(m_path.c_str());
        ::rmdir(m_dir.c_str());
    }

    /* The error readPrivateFile() throws for the file in this mode. */
    std::string refusal(mode_t mode) {
        ::chmod(m_path.c_str(), mode);
        try {
            readPrivateFile(m_path);
        } catch (PrivateFileError const& error) {
            return error.what();
        }
        return "";
    }

    std::string m_dir;
    std::string m_path;
};

TEST_F(PrivateFileTest, AFileOnlyItsOwnerMayReadIsReadWhole) {
    ::chmod(m_path.c_str(), 0600);
    EXPECT_EQ(readPrivateFile(m_path), "password = hunter2\n");
    ::chmod(m_path.c_str(), 0400);
    EXPECT_EQ(readPrivateFile(m_path), "password = hunter2\n");
}

TEST_F(PrivateFileTest, AFileItsGroupMayReadIsRefusedWithItsModeAndTheRemedy) {
    std::string const why = refusal(0640);
    EXPECT_NE(why.find("\"" + m_path + "\" is open to its group or others (mode 0640)"),
              std::string::npos)
        << why;
    EXPECT_NE(why.find("chmod 600"), std::string::npos) << why;
}

TEST_F(PrivateFileTest, AFileOthersMayReadOrWriteIsRefused) {
    EXPECT_NE(refusal(0604), "");
    EXPECT_NE(refusal(0602), "");
    EXPECT_NE(refusal(0610), "");
}

TEST_F(PrivateFileTest, TheRefusalNeverShowsTheSecret) {
    EXPECT_EQ(refusal(0644).find("hunter2"), std::string::npos);
}

TEST_F(PrivateFileTest, AMissingFileOrADirectoryIsRefused) {
    EXPECT_THROW(readPrivateFile(m_dir + "/missing"), PrivateFileError);
    ::chmod(m_dir.c_str(), 0700);
    EXPECT_THROW(readPrivateFile(m_dir), PrivateFileError);
}

}  // namespace
}  // namespace tarsel::daemon
