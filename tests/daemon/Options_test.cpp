// The command line, and the settings and secrets files under it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "OptionTable.h"
#include "Options.h"

namespace tarsel::daemon {
namespace {

/* A file of this test's own (tests run in parallel processes). */
std::string writeFile(std::string const& suffix, std::string const& contents, mode_t mode = 0644) {
    std::string const path = ::testing::TempDir() + "options-test-" + std::to_string(::getpid()) +
                             "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() +
                             suffix;
    std::ofstream(path, std::ios::trunc) << contents;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
}

/* Every error loadOptions() lists, one a line. */
std::string errorsOf(std::vector<std::string> const& args) {
    std::string text;
    for (auto const& error : loadOptions(args).errors) {
        text += error + "\n";
    }
    return text;
}

TEST(OptionsTest, DefaultsListenOnLoopbackPort1502AsUnit1) {
    Options const options = parseOptions({});
    EXPECT_EQ(options.listen, "127.0.0.1");
    EXPECT_EQ(options.port, 1502);
    EXPECT_EQ(options.unitId, 1);
    EXPECT_EQ(options.runSeconds, 0.0);
    EXPECT_FALSE(options.describe);
}

TEST(OptionsTest, ValuesComeAfterTheOptionOrAfterAnEqualsSign) {
    Options const options = parseOptions(
        {"--map", "m.json", "--scenario=none", "--port=0", "--unit-id", "7", "--run-seconds", "2.5",
         "-v", "--describe=csv", "--describe-at", "9", "--listen", "0.0.0.0"});
    EXPECT_EQ(options.mapFile, "m.json");
    EXPECT_EQ(options.scenarioFile, "none");
    EXPECT_EQ(options.port, 0);
    EXPECT_EQ(options.unitId, 7);
    EXPECT_EQ(options.runSeconds, 2.5);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.describe, DescribeFormat::Csv);
    EXPECT_EQ(options.describeAt, 9.0);
    EXPECT_EQ(options.listen, "0.0.0.0");
}

TEST(OptionsTest, DescribeWithoutAFormatIsMarkdown) {
    EXPECT_EQ(parseOptions({"--describe"}).describe, DescribeFormat::Markdown);
}

TEST(OptionsTest, BadValuesAreRefusedWithAMessage) {
    EXPECT_THROW(parseOptions({"--port", "70000"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--unit-id", "0"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--run-seconds", "-1"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--describe=xml"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--map"}), std::invalid_argument);
    try {
        parseOptions({"--frobnicate"});
        FAIL();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "unknown option \"--frobnicate\" (see --help)");
    }
}

TEST(OptionsTest, EveryBadArgumentIsListedAtOnce) {
    EXPECT_EQ(errorsOf({"--frobnicate", "stray", "--port=1"}),
              "unknown option \"--frobnicate\" (see --help)\n"
              "unexpected argument \"stray\" (see --help)\n");
    EXPECT_EQ(errorsOf({"--port", "70000", "--unit-id=0", "--describe=xml"}),
              "--port expects an integer from 0 to 65535, got \"70000\"\n"
              "--unit-id expects an integer from 1 to 247, got \"0\"\n"
              "--describe expects markdown, csv or json, got \"xml\"\n");
}

TEST(OptionsTest, AMisspeltOptionIsNamedWithTheOneItIsClosestTo) {
    EXPECT_EQ(errorsOf({"--prot", "--nut-credential=f", "--mpa", "x", "---"}),
              "unknown option \"--prot\"; did you mean --port? (see --help)\n"
              "unknown option \"--nut-credential=f\"; did you mean --nut-credentials? (see "
              "--help)\n"
              "unknown option \"--mpa\"; did you mean --map? (see --help)\n"
              "unexpected argument \"x\" (see --help)\n"
              "unknown option \"---\" (see --help)\n");
    // Nothing is suggested for a name no option is close to.
    EXPECT_FALSE(closestOptionName("frobnicate"));
    EXPECT_FALSE(closestOptionName("ab"));
    EXPECT_FALSE(closestOptionName(""));
}

TEST(OptionsTest, AMissingValueNamesTheOption) {
    EXPECT_EQ(errorsOf({"--map"}), "--map: 1 required FILE missing (see --help)\n");
}

TEST(OptionsTest, DescribeTakesItsFormatOnlyAfterAnEqualsSign) {
    EXPECT_EQ(errorsOf({"--describe", "csv"}), "unexpected argument \"csv\" (see --help)\n");
}

TEST(OptionsTest, GivenTwiceTheLastValueCounts) {
    EXPECT_EQ(parseOptions({"--port", "5", "--port=6"}).port, 6);
}

TEST(OptionsTest, HelpIsAskedForWithoutReadingAnyFile) {
    LoadedOptions const loaded = loadOptions({"--config", "/nonexistent.json", "-h"});
    EXPECT_TRUE(loaded.options.help);
    EXPECT_TRUE(loaded.errors.empty());
}

TEST(OptionsTest, VersionIsAskedForWithoutReadingAnyFile) {
    LoadedOptions const loaded = loadOptions({"--config", "/nonexistent.json", "--version"});
    EXPECT_TRUE(loaded.options.version);
    EXPECT_FALSE(loaded.options.help);
    EXPECT_TRUE(loaded.errors.empty());
    EXPECT_EQ(versionText(), std::string("tarsel-modbusd ") + TARSEL_DAEMON_VERSION + "\n");
    EXPECT_NE(usage().find("--version"), std::string::npos);
}

TEST(OptionsTest, ListenAddressesAreIpv4AddressesAsTheListenersBindThem) {
    // The listeners are IPv4 sockets: a host name or an IPv6 address used
    // to pass here and stop the daemon only once its map was built, with
    // exit status 1, after --check had called it valid.
    EXPECT_EQ(errorsOf({"--listen", "localhost", "--tls-listen", "::1", "--http-listen",
                        "localhost:9502"}),
              "--listen expects an IPv4 address (such as 0.0.0.0 or 127.0.0.1), got "
              "\"localhost\"\n"
              "--tls-listen expects an IPv4 address (such as 0.0.0.0 or 127.0.0.1), got \"::1\"\n"
              "--http-listen expects an IPv4 address (such as 0.0.0.0 or 127.0.0.1), got "
              "\"localhost\"\n");
    Options const options = parseOptions(
        {"--listen", "0.0.0.0", "--tls-listen", "192.168.1.7", "--http-listen", "127.0.0.2:0"});
    EXPECT_EQ(options.listen, "0.0.0.0");
    EXPECT_EQ(options.tlsListen, "192.168.1.7");
    EXPECT_EQ(options.httpAddress, "127.0.0.2");
}

TEST(OptionsTest, ABadNutIsNamedAloneWithoutBlamingANutMapNobodyGave) {
    EXPECT_EQ(errorsOf({"--nut", "@host"}), "--nut expects UPS[@HOST[:PORT]], got \"@host\"\n");
}

TEST(OptionsTest, UsageListsEveryOptionWithItsValue) {
    std::string const text = usage();
    for (char const* option : {"--config FILE", "--secrets FILE", "--map FILE", "--port N",
                               "--nut UPS[@HOST[:PORT]]", "--allow-write [TABLE=]LIST",
                               "--log-format auto|plain|journal", "-v,--verbose", "--check"}) {
        EXPECT_NE(text.find(option), std::string::npos) << option;
    }
    EXPECT_NE(text.find("Exit status: 0 after a clean stop"), std::string::npos);
}

TEST(OptionsTest, NutUpsesAreCollectedInOrderWithTheirPollInterval) {
    Options const options =
        parseOptions({"--nut", "first@127.0.0.1:3493", "--nut=second", "--nut-interval", "0.5"});
    EXPECT_EQ(options.nutUpses, (std::vector<std::string>{"first@127.0.0.1:3493", "second"}));
    EXPECT_EQ(options.nutInterval, 0.5);
    EXPECT_EQ(parseOptions({}).nutInterval, 1.0);
    EXPECT_THROW(parseOptions({"--nut", "@host"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--nut-interval", "0.01"}), std::invalid_argument);
}

TEST(OptionsTest, NutMapBelongsToTheNutBeforeIt) {
    Options const options = parseOptions(
        {"--nut", "first", "--nut", "second", "--nut-map", "second.json", "--nut", "third"});
    EXPECT_EQ(options.nutMaps, (std::vector<std::string>{"", "second.json", ""}));
    EXPECT_THROW(parseOptions({"--nut-map", "a.json", "--nut", "first"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--nut", "first", "--nut-map", "a.json", "--nut-map", "b.json"}),
                 std::invalid_argument);
}

TEST(OptionsTest, NutWritesAreOffByDefaultAndNeedACredentialsFile) {
    EXPECT_FALSE(parseOptions({"--nut", "ups"}).nutWrites);
    EXPECT_THROW(parseOptions({"--nut", "ups", "--nut-writes"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--nut-writes", "--nut-credentials", "f"}), std::invalid_argument);
    Options const options =
        parseOptions({"--nut", "ups", "--nut-writes", "--nut-credentials", "/etc/x"});
    EXPECT_TRUE(options.nutWrites);
    EXPECT_EQ(options.nutCredentials, "/etc/x");
}

TEST(OptionsTest, ClientLimitsDefaultToSixtyFourClientsTenMinutesIdleAndTenSecondsPerFrame) {
    ClientLimits const limits = parseOptions({}).limits;
    EXPECT_EQ(limits.maxClients, 64u);
    EXPECT_EQ(limits.idleTimeout, std::chrono::seconds(600));
    EXPECT_EQ(limits.partialFrameTimeout, std::chrono::seconds(10));
}

TEST(OptionsTest, ClientLimitsTakeFractionsOfSecondsAndZeroForNever) {
    ClientLimits const limits =
        parseOptions({"--max-clients", "3", "--idle-timeout=0", "--frame-timeout", "0.25"}).limits;
    EXPECT_EQ(limits.maxClients, 3u);
    EXPECT_EQ(limits.idleTimeout.count(), 0);
    EXPECT_EQ(limits.partialFrameTimeout, std::chrono::milliseconds(250));
    EXPECT_THROW(parseOptions({"--max-clients", "0"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--idle-timeout", "-1"}), std::invalid_argument);
}

TEST(OptionsTest, AllowOptionsSetTheListenersAccessRules) {
    Options const options = parseOptions({"--allow-write", "127.0.0.2", "--allow-read=coils=none"});
    EXPECT_TRUE(options.access.mayWrite(Table::HoldingRegisters, 0x7F000002));
    EXPECT_FALSE(options.access.mayWrite(Table::HoldingRegisters, 0x7F000001));
    EXPECT_FALSE(options.access.mayRead(Table::Coils, 0x7F000001));
    try {
        parseOptions({"--allow-write", "10.0.0.1/8"});
        FAIL();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(),
                     "--allow-write 10.0.0.1/8: \"10.0.0.1/8\" is no IPv4 address "
                     "or network (such as 10.1.0.0/16)");
    }
}

TEST(OptionsTest, TlsListenerTakesItsFilesRolesAndRules) {
    Options const options =
        parseOptions({"--tls-port", "802", "--tls-cert", "s.pem", "--tls-key", "s.key", "--tls-ca",
                      "ca.pem", "--tls-role", "operator=read-write", "--tls-role=viewer=read-only",
                      "--tls-allow-write", "10.0.0.0/8"});
    EXPECT_EQ(options.tlsPort, 802);
    EXPECT_EQ(options.tls.certificateFile, "s.pem");
    EXPECT_EQ(options.tls.keyFile, "s.key");
    EXPECT_EQ(options.tls.caFile, "ca.pem");
    EXPECT_EQ(options.tls.roles.at("operator"), RoleAccess::ReadWrite);
    EXPECT_EQ(options.tls.roles.at("viewer"), RoleAccess::ReadOnly);
    EXPECT_TRUE(options.tlsAccess.mayWrite(Table::Coils, 0x0A000001));
    EXPECT_FALSE(options.tlsAccess.mayWrite(Table::Coils, 0x7F000001));
    EXPECT_FALSE(options.access.mayWrite(Table::Coils, 0x0A000001));  // the plain listener's
}

TEST(OptionsTest, TlsListenerWritesFromAnyAddressByDefaultTheRoleDecides) {
    Options const options = parseOptions({});
    EXPECT_FALSE(options.tlsPort);
    EXPECT_TRUE(options.tlsAccess.mayWrite(Table::HoldingRegisters, 0x0A000001));
}

TEST(OptionsTest, TlsListenerNeedsItsFilesAndARole) {
    EXPECT_THROW(parseOptions({"--tls-port", "802", "--tls-role", "a=read-only"}),
                 std::invalid_argument);
    EXPECT_THROW(
        parseOptions({"--tls-port", "802", "--tls-cert", "s", "--tls-key", "k", "--tls-ca", "c"}),
        std::invalid_argument);
    EXPECT_THROW(parseOptions({"--tls-role", "viewer=admin"}), std::invalid_argument);
    EXPECT_THROW(parseOptions({"--tls-role", "=read-only"}), std::invalid_argument);
}

TEST(OptionsTest, LogFormatIsAutoUnlessPlainOrJournalIsAskedFor) {
    EXPECT_EQ(parseOptions({}).logFormat, LogFormat::Auto);
    EXPECT_EQ(parseOptions({"--log-format=journal"}).logFormat, LogFormat::Journal);
    EXPECT_EQ(parseOptions({"--log-format", "plain"}).logFormat, LogFormat::Plain);
    EXPECT_EQ(errorsOf({"--log-format", "syslog"}),
              "--log-format expects auto, plain or journal, got \"syslog\"\n");
}

TEST(SettingsFileTest, KeysAreTheLongOptionNamesWithJsonValues) {
    std::string const path = writeFile(".json", R"({
        "comment": "for the reader",
        "map": "/usr/share/tarsel-modbusd/ups-map.json",
        "listen": "0.0.0.0", "port": 502, "unit-id": 3,
        "allow-read": ["10.0.0.0/8", "coils=none"], "allow-write": "127.0.0.2",
        "nut": ["a@127.0.0.1:3493", "b"], "nut-interval": 0.5,
        "idle-timeout": 0, "frame-timeout": 2.5, "max-clients": 3,
        "verbose": true, "log-format": "journal"
    })");
    Options const options = parseOptions({"--config", path});
    EXPECT_EQ(options.configFile, path);
    EXPECT_EQ(options.mapFile, "/usr/share/tarsel-modbusd/ups-map.json");
    EXPECT_EQ(options.listen, "0.0.0.0");
    EXPECT_EQ(options.port, 502);
    EXPECT_EQ(options.unitId, 3);
    EXPECT_TRUE(options.access.mayRead(Table::HoldingRegisters, 0x0A000001));
    EXPECT_FALSE(options.access.mayRead(Table::HoldingRegisters, 0x7F000001));
    EXPECT_FALSE(options.access.mayRead(Table::Coils, 0x0A000001));
    EXPECT_TRUE(options.access.mayWrite(Table::Coils, 0x7F000002));
    EXPECT_FALSE(options.access.mayWrite(Table::Coils, 0x7F000001));
    EXPECT_EQ(options.nutUpses, (std::vector<std::string>{"a@127.0.0.1:3493", "b"}));
    EXPECT_EQ(options.nutInterval, 0.5);
    EXPECT_EQ(options.limits.idleTimeout.count(), 0);
    EXPECT_EQ(options.limits.partialFrameTimeout, std::chrono::milliseconds(2500));
    EXPECT_EQ(options.limits.maxClients, 3u);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.logFormat, LogFormat::Journal);
}

TEST(SettingsFileTest, TheCommandLineOverridesTheFileOptionByOption) {
    std::string const path =
        writeFile(".json", R"({"port": 502, "listen": "0.0.0.0", "allow-write": ["10.0.0.0/8"]})");
    Options const options =
        parseOptions({"--port", "1502", "--config", path, "--allow-write", "127.0.0.2"});
    EXPECT_EQ(options.port, 1502);
    EXPECT_EQ(options.listen, "0.0.0.0");
    // The command line's rules replace the file's, they do not add to them.
    EXPECT_TRUE(options.access.mayWrite(Table::Coils, 0x7F000002));
    EXPECT_FALSE(options.access.mayWrite(Table::Coils, 0x0A000001));
}

TEST(SettingsFileTest, EveryErrorOfTheFileIsListedAtOnceWithTheFileAndKey) {
    std::string const path = writeFile(".json", R"({
        "prot": 502, "port": "502", "unit-id": 300, "verbose": "yes",
        "allow-write": ["10.0.0.1/8"], "nut": [1], "nut-interval": 0.01,
        "describe": "csv", "config": "other.json"
    })");
    // Keys in the order of the file's JSON object (sorted), then the values
    // that have the right type but mean nothing, in the order of --help.
    EXPECT_EQ(errorsOf({"--config", path}),
              path + ": config: a command-line option, not a setting\n" +  //
                  path + ": describe: a command-line option, not a setting\n" + path +
                  ": nut: expected a text or an array of texts, got [1]\n" + path +
                  ": port: expected an integer from 0 to 65535, got \"502\"\n" + path +
                  ": prot: unknown setting; did you mean port?\n" + path +
                  ": unit-id: expected an integer from 1 to 247, got 300\n" + path +
                  ": verbose: expected true or false, got \"yes\"\n" + path +
                  ": nut-interval expects at least 0.05 seconds\n" + path +
                  ": allow-write 10.0.0.1/8: \"10.0.0.1/8\" is no IPv4 address or network " +
                  "(such as 10.1.0.0/16)\n");
}

TEST(SettingsFileTest, NutMapsAreAnArrayBesideTheUpsesAndGiveWayWithThem) {
    std::string const path =
        writeFile(".json", R"({"nut": ["a", "b", "c"], "nut-map": ["", "b.json"]})");
    EXPECT_EQ(parseOptions({"--config", path}).nutMaps,
              (std::vector<std::string>{"", "b.json", ""}));
    // UPSes from the command line come with the command line's maps.
    Options const options = parseOptions({"--config", path, "--nut", "x", "--nut-map", "x.json"});
    EXPECT_EQ(options.nutUpses, (std::vector<std::string>{"x"}));
    EXPECT_EQ(options.nutMaps, (std::vector<std::string>{"x.json"}));
    EXPECT_EQ(parseOptions({"--config", path, "--nut", "y"}).nutMaps,
              (std::vector<std::string>{""}));
    std::string const tooMany = writeFile("-many.json", R"({"nut": ["a"], "nut-map": ["1", "2"]})");
    EXPECT_EQ(errorsOf({"--config", tooMany}), "nut-map names 2 maps for 1 UPSes of --nut\n");
}

TEST(SettingsFileTest, AFileThatIsNoJsonObjectIsRefused) {
    std::string const broken = writeFile(".json", "{\"port\": 502,");
    std::string const errors = errorsOf({"--config", broken});
    EXPECT_EQ(errors.rfind(broken + ": not valid JSON: ", 0), 0u) << errors;
    std::string const array = writeFile("-array.json", "[1]");
    EXPECT_EQ(errorsOf({"--config", array}), array + ": settings: expected an object, got [1]\n");
}

TEST(SettingsFileTest, AFileNestedWithoutEndIsRefusedNotACrash) {
    std::string const deep = writeFile(
        "-deep.json", R"({"port": )" + std::string(200000, '[') + std::string(200000, ']') + "}");
    EXPECT_EQ(errorsOf({"--config", deep}),
              deep + ": not read: arrays and objects nested more than 1024 levels deep\n");
}

TEST(SettingsFileTest, AMissingFileIsAnError) {
    EXPECT_EQ(errorsOf({"--config", "/nonexistent/tarsel-modbusd.json"}),
              "settings file: cannot read /nonexistent/tarsel-modbusd.json\n");
}

TEST(SecretsFileTest, TheSecretsFileNamedInTheSettingsOverridesThemAndTheCommandLineBoth) {
    std::string const secrets =
        writeFile("-secrets.json", R"({"tls-key": "/etc/private/server.key", "port": 503})", 0600);
    std::string const settings = writeFile(
        ".json", R"({"secrets": ")" + secrets + R"(", "port": 502, "tls-key": "in-settings.key"})");
    Options const options = parseOptions({"--config", settings});
    EXPECT_EQ(options.secretsFile, secrets);
    EXPECT_EQ(options.tls.keyFile, "/etc/private/server.key");
    EXPECT_EQ(options.port, 503);
    EXPECT_EQ(parseOptions({"--config", settings, "--port", "504"}).port, 504);
}

TEST(SecretsFileTest, ASecretsFileOthersMayReadIsRefused) {
    std::string const secrets = writeFile("-secrets.json", R"({"tls-key": "k"})", 0644);
    EXPECT_EQ(errorsOf({"--secrets", secrets}),
              "secrets file: \"" + secrets +
                  "\" is open to its group or others (mode 0644); it holds a secret: chmod 600 it "
                  "and try again\n");
}

TEST(SecretsFileTest, TheSecretsFileCannotNameAnotherOne) {
    std::string const secrets = writeFile("-secrets.json", R"({"secrets": "/x"})", 0400);
    EXPECT_EQ(errorsOf({"--secrets", secrets}), secrets + ": secrets: not allowed in this file\n");
}

}  // namespace
}  // namespace tarsel::daemon
