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

}  // namespace
}  // namespace tarsel::daemon
