// The TLS module is loaded from a file rather than linked: this build's
// module loads and brings OpenSSL with it, the build lays it out where its
// program looks, and a file that is not the module is a failure that names
// it and says why.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "TlsModule.h"

namespace tarsel::daemon {
namespace {

/* Whether a file whose name starts with this is mapped into this process. */
bool mapped(std::string const& name) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find("/" + name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string const kPrefix = "cannot load the TLS module \"";

TEST(TlsModuleTest, NeitherLibsslNorLibcryptoIsMappedBeforeTheModuleIsLoaded) {
    // This program links everything of the daemon but its main.
    EXPECT_FALSE(mapped("libssl.so"));
    EXPECT_FALSE(mapped("libcrypto.so"));
}

TEST(TlsModuleTest, ThisBuildsModuleLoadsAndBringsOpenSslWithIt) {
    TlsModule const module(TARSEL_TLS_MODULE_FILE);
    ASSERT_TRUE(module.loaded()) << module.failure();
    EXPECT_EQ(module.path(), TARSEL_TLS_MODULE_FILE);
    EXPECT_TRUE(mapped("libssl.so"));
    EXPECT_TRUE(mapped("libcrypto.so"));
}

TEST(TlsModuleTest, ThisBuildsProgramLooksForThisBuildsModule) {
    namespace fs = std::filesystem;
    std::string const path = TlsModule::pathBeside(TARSEL_DAEMON_FILE);
    ASSERT_TRUE(fs::exists(path)) << path;
    EXPECT_TRUE(fs::equivalent(path, TARSEL_TLS_MODULE_FILE)) << path;
    EXPECT_EQ(path, fs::path(path).lexically_normal().string());
}

TEST(TlsModuleTest, AProgramLooksForItsModuleBesideItselfWhereverItIs) {
    std::string const here = TlsModule::pathBeside("/opt/a/bin/tarsel-modbusd");
    std::string const there = TlsModule::pathBeside("/srv/b/bin/tarsel-modbusd");
    EXPECT_EQ(here.rfind("/opt/a/", 0), 0u) << here;
    EXPECT_EQ(there.rfind("/srv/b/", 0), 0u) << there;
    EXPECT_EQ(here.substr(6), there.substr(6));
}

TEST(TlsModuleTest, ThisProgramLooksBesideItsOwnFile) {
    std::optional<std::string> const path(TlsModule::pathBesideProgram());
    ASSERT_TRUE(path);
    EXPECT_EQ(*path, TlsModule::pathBeside(std::filesystem::read_symlink("/proc/self/exe")));
}

TEST(TlsModuleTest, AProgramThatCannotReadItsOwnFileLooksForNoModuleAtAll) {
    // Without /proc a path relative to the working directory would name
    // whatever file is there, anyone's.
    std::optional<std::string> const path(TlsModule::pathBesideProgram("/nonexistent/self/exe"));
    EXPECT_FALSE(path) << *path;
}

TEST(TlsModuleTest, AContextFromTheModuleThrowsNamingACertificateItCannotLoad) {
    TlsModule const module(TARSEL_TLS_MODULE_FILE);
    ASSERT_TRUE(module.loaded()) << module.failure();
    TlsConfig config;
    config.certificateFile = "/nonexistent/tarsel-server.pem";
    config.keyFile = "/nonexistent/tarsel-server.key";
    config.caFile = "/nonexistent/tarsel-ca.pem";
    try {
        module.makeContext(config);
        FAIL() << "a context without its certificate";
    } catch (std::runtime_error const& error) {
        EXPECT_NE(std::string(error.what())
                      .find("TLS: cannot load the certificate /nonexistent/tarsel-server.pem: "),
                  std::string::npos)
            << error.what();
    }
}

TEST(TlsModuleTest, AFileThatIsNotThereIsAFailureNamingItAndTheLoadersReason) {
    TlsModule const module("/nonexistent/tarsel-modbusd-tls.so");
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix +
                                    "/nonexistent/tarsel-modbusd-tls.so\": cannot open shared "
                                    "object file: No such file or directory");
    EXPECT_THROW(module.makeContext(TlsConfig{}), std::logic_error);
}

TEST(TlsModuleTest, AFileThatIsNoLibraryIsAFailureWithTheLoadersReason) {
    std::string const path =
        (std::filesystem::temp_directory_path() / ("tarsel-tls-" + std::to_string(::getpid())))
            .string();
    {
        std::ofstream file(path);
        for (int line = 0; line < 20; ++line) {
            file << "not a shared object\n";
        }
    }
    TlsModule const module(path);
    std::filesystem::remove(path);
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix + path + "\": invalid ELF header");
}

TEST(TlsModuleTest, AModuleOfAnotherInterfaceIsRefused) {
    TlsModule const module(TARSEL_TLS_MODULE_OTHER_INTERFACE);
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix + TARSEL_TLS_MODULE_OTHER_INTERFACE +
                                    "\": it was built for another interface");
    EXPECT_THROW(module.makeContext(TlsConfig{}), std::logic_error);
}

TEST(TlsModuleTest, AModuleOfAnotherVersionIsRefusedNamingBothVersions) {
    TlsModule const module(TARSEL_TLS_MODULE_OTHER_VERSION);
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix + TARSEL_TLS_MODULE_OTHER_VERSION +
                                    "\": it was built for version 0.0.1, this program is " +
                                    TARSEL_DAEMON_VERSION);
}

TEST(TlsModuleTest, AModuleOfThisVersionBuiltFromOtherSourcesIsRefusedNamingBothDigests) {
    ASSERT_STRNE(TARSEL_TLS_INTERFACE_DIGEST, "0123456789abcdef");
    TlsModule const module(TARSEL_TLS_MODULE_OTHER_SOURCES);
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix + TARSEL_TLS_MODULE_OTHER_SOURCES +
                                    "\": it was built from other sources of version " +
                                    TARSEL_DAEMON_VERSION + " (interface 0123456789abcdef, " +
                                    "this program's " + TARSEL_TLS_INTERFACE_DIGEST + ")");
    EXPECT_THROW(module.makeContext(TlsConfig{}), std::logic_error);
}

TEST(TlsModuleTest, AModuleWhoseEntryGivesNoTableIsRefused) {
    TlsModule const module(TARSEL_TLS_MODULE_NULL);
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(),
              kPrefix + TARSEL_TLS_MODULE_NULL + "\": it was built for another interface");
    EXPECT_THROW(module.makeContext(TlsConfig{}), std::logic_error);
}

TEST(TlsModuleTest, AModuleWhoseEntryThrowsIsAFailureNamingWhatItThrew) {
    // The daemon stops with its status for a module it cannot load (2), not
    // with a run-time failure's (1).
    std::optional<TlsModule> module;
    ASSERT_NO_THROW(module.emplace(TARSEL_TLS_MODULE_THROWING));
    EXPECT_FALSE(module->loaded());
    EXPECT_EQ(module->failure(),
              kPrefix + TARSEL_TLS_MODULE_THROWING + "\": its entry failed: no table here");
    EXPECT_THROW(module->makeContext(TlsConfig{}), std::logic_error);
}

TEST(TlsModuleTest, ALibraryWithoutTheModulesTableIsAFailureNamingTheMissingSymbol) {
    // Any library this process has mapped anyway; it has no table.
    TlsModule const module("libm.so.6");
    EXPECT_FALSE(module.loaded());
    EXPECT_EQ(module.failure(), kPrefix + "libm.so.6\": tarsel_modbusd_tls_module is missing");
}

}  // namespace
}  // namespace tarsel::daemon
