// The command line.
#include <gtest/gtest.h>

#include "Options.h"

namespace tarsel::daemon {
namespace {

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
         "-v", "--describe=csv", "--describe-at", "9", "--listen", "::1"});
    EXPECT_EQ(options.mapFile, "m.json");
    EXPECT_EQ(options.scenarioFile, "none");
    EXPECT_EQ(options.port, 0);
    EXPECT_EQ(options.unitId, 7);
    EXPECT_EQ(options.runSeconds, 2.5);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.describe, DescribeFormat::Csv);
    EXPECT_EQ(options.describeAt, 9.0);
    EXPECT_EQ(options.listen, "::1");
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

}  // namespace
}  // namespace tarsel::daemon
