// NUT's client library is loaded by file name at its first use, not linked:
// its functions resolve, a test program that never uses it does not map it,
// and a library that cannot be loaded is a failure that says why.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "sources/nut/UpsClientLibrary.h"

namespace tarsel::daemon::nut {
namespace {

/* Whether a file of this name is mapped into this process. */
bool mapped(std::string const& name) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(UpsClientLibraryTest, NeitherTheLibraryNorItsNssIsMappedBeforeFirstUse) {
    EXPECT_FALSE(mapped("libupsclient.so"));
    EXPECT_FALSE(mapped("libnss3.so"));
}

TEST(UpsClientLibraryTest, TheFirstUseLoadsTheLibraryAndResolvesEveryFunction) {
    UpsClientLibrary const& library = UpsClientLibrary::instance();
    ASSERT_TRUE(library.loaded()) << library.failure();
    EXPECT_TRUE(mapped("libupsclient.so"));
    EXPECT_NE(library.tryconnect, nullptr);
    EXPECT_NE(library.disconnect, nullptr);
    EXPECT_NE(library.list_start, nullptr);
    EXPECT_NE(library.list_next, nullptr);
    EXPECT_NE(library.sendline_timeout, nullptr);
    EXPECT_NE(library.readline_timeout, nullptr);
    EXPECT_NE(library.upserror, nullptr);
    EXPECT_NE(library.strerror, nullptr);
    EXPECT_EQ(&UpsClientLibrary::instance(), &library);
}

TEST(UpsClientLibraryTest, TheFirstUseDoesNotStartNssForTheSslTheDaemonNeverUses) {
    // upscli_init would start NSS, which loads its soft token (and with it
    // its crypto library), about 2.5 MiB resident, and write a line on
    // stderr; plain connections need none of it.
    ASSERT_TRUE(UpsClientLibrary::instance().loaded()) << UpsClientLibrary::instance().failure();
    EXPECT_TRUE(mapped("libnss3.so"));
    EXPECT_FALSE(mapped("libsoftokn3.so"));
    EXPECT_FALSE(mapped("libfreebl3.so"));
}

TEST(UpsClientLibraryTest, ResolvedFunctionsWorkAConnectionRefusedIsAFailureOfTheLibrary) {
    UpsClientLibrary const& library = UpsClientLibrary::instance();
    ASSERT_TRUE(library.loaded()) << library.failure();
    UPSCONN_t connection{};
    timeval timeout{};
    timeout.tv_sec = 2;
    // Port 1 of the loopback: nothing listens there.
    EXPECT_LT(library.tryconnect(&connection, "127.0.0.1", 1, 0, &timeout), 0);
    EXPECT_EQ(library.upserror(&connection), UPSCLI_ERR_CONNFAILURE);
    EXPECT_NE(std::string(library.strerror(&connection)).find("Connection failure"),
              std::string::npos)
        << library.strerror(&connection);
    library.disconnect(&connection);
}

TEST(UpsClientLibraryTest, AFileThatCannotBeLoadedIsAFailureNamingIt) {
    UpsClientLibrary const library("libtarsel-no-such-client.so.0");
    EXPECT_FALSE(library.loaded());
    EXPECT_EQ(library.failure().rfind("cannot load NUT's client library: ", 0), 0u)
        << library.failure();
    EXPECT_NE(library.failure().find("libtarsel-no-such-client.so.0"), std::string::npos)
        << library.failure();
    EXPECT_EQ(library.tryconnect, nullptr);
}

TEST(UpsClientLibraryTest, ALibraryWithoutTheClientsFunctionsIsAFailureNamingTheFirstMissing) {
    // Any library this process has mapped anyway; it has no upscli_* at all.
    UpsClientLibrary const library("libm.so.6");
    EXPECT_FALSE(library.loaded());
    EXPECT_EQ(library.failure(), "cannot load NUT's client library: upscli_tryconnect is missing");
}

}  // namespace
}  // namespace tarsel::daemon::nut
