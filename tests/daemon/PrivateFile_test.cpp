// Files holding secrets are read only when their group and others have no
// access to them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "PrivateFile.h"

namespace tarsel::daemon {
namespace {

/* A file of its own for each test (tests run in parallel processes). */
std::string fileWithMode(std::string const& contents, mode_t mode) {
    std::string const path = ::testing::TempDir() + "private-file-test-" +
                             std::to_string(::getpid()) + "-" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::ofstream(path, std::ios::trunc) << contents;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
}

std::string refusal(std::string const& path) {
    try {
        readPrivateFile(path);
    } catch (PrivateFileError const& error) {
        return error.what();
    }
    return "read";
}

TEST(PrivateFileTest, AFileOnlyItsOwnerMayReadIsRead) {
    EXPECT_EQ(readPrivateFile(fileWithMode("{\"a\": 1}\n", 0600)), "{\"a\": 1}\n");
}

TEST(PrivateFileTest, AReadOnlyFileOfItsOwnerIsRead) {
    EXPECT_EQ(readPrivateFile(fileWithMode("secret", 0400)), "secret");
}

TEST(PrivateFileTest, AFileItsGroupMayReadIsRefusedWithItsModeAndTheFix) {
    std::string const path = fileWithMode("secret", 0640);
    EXPECT_EQ(refusal(path), path +
                                 " has mode 0640: it holds secrets, so its group and others must "
                                 "have no access (chmod 600 " +
                                 path + ")");
}

TEST(PrivateFileTest, AFileOthersMayReadOrWriteIsRefused) {
    EXPECT_NE(refusal(fileWithMode("secret", 0604)).find("has mode 0604"), std::string::npos);
    EXPECT_NE(refusal(fileWithMode("secret", 0602)).find("has mode 0602"), std::string::npos);
}

TEST(PrivateFileTest, AMissingFileIsNamedWithTheReason) {
    EXPECT_EQ(refusal("/nonexistent/secrets.json"),
              "cannot read /nonexistent/secrets.json: No such file or directory");
}

TEST(PrivateFileTest, ADirectoryIsNoPrivateFile) {
    std::string const path =
        ::testing::TempDir() + "private-file-dir-" + std::to_string(::getpid());
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(refusal(path), path + " is not a regular file");
    ::rmdir(path.c_str());
}

}  // namespace
}  // namespace tarsel::daemon
