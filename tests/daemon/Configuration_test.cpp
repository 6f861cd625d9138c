// The configuration of UPSes behind upsd: each UPS's map, and whether writes
// go back to it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "Configuration.h"
#include "MapLoader.h"

namespace tarsel::daemon {
namespace {

char const* const kShared = R"({"entries": [
  {"name": "charge", "table": "input-registers", "address": 60, "encoder": "uint16",
   "source": {"device": 2, "channel": "battery.charge"}}]})";
char const* const kOwn = R"({"entries": [
  {"name": "charge", "table": "input-registers", "address": 0, "encoder": "uint16",
   "source": {"device": 2, "channel": "battery.charge"}}]})";

class ConfigurationFilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tarsel-configuration-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_dir = pattern;
    }
    void TearDown() override {
        for (auto const& file : m_files) {
            ::unlink(file.c_str());
        }
        ::rmdir(m_dir.c_str());
    }

    std::string file(std::string const& name, std::string const& text) {
        std::string const path = m_dir + "/" + name;
        std::ofstream(path) << text;
        m_files.push_back(path);
        return path;
    }

    std::string m_dir;
    std::vector<std::string> m_files;
};

TEST_F(ConfigurationFilesTest, EachUpsHasItsOwnMapOrTheSharedOneMovedOntoItsDevice) {
    std::string const shared = file("shared.json", kShared);
    std::string const own = file("own.json", kOwn);
    ServedConfig const served = servedConfig(loadConfiguration(
        {"--map", shared, "--nut", "a", "--nut", "b", "--nut-map", own, "--nut", "c"}));
    EXPECT_EQ(served.map.entries.at(0).address, 60);
    EXPECT_EQ(served.map.entries.at(0).sources.at(0).device.id, 2u);
    ASSERT_EQ(served.moreUnits.size(), 2u);
    EXPECT_EQ(served.moreUnits[0].unitId, 2);
    EXPECT_EQ(served.moreUnits[0].map.entries.at(0).address, 0);
    EXPECT_EQ(served.moreUnits[0].map.entries.at(0).sources.at(0).device.id, 3u);
    EXPECT_EQ(served.moreUnits[1].map.entries.at(0).address, 60);
    EXPECT_EQ(served.moreUnits[1].map.entries.at(0).sources.at(0).device.id, 4u);
}

TEST_F(ConfigurationFilesTest, TheFirstUpsMayHaveItsOwnMapToo) {
    std::string const own = file("own.json", kOwn);
    ServedConfig const served = servedConfig(
        loadConfiguration({"--map", file("shared.json", kShared), "--nut", "a", "--nut-map", own}));
    EXPECT_EQ(served.map.entries.at(0).address, 0);
}

TEST_F(ConfigurationFilesTest, ABadUpsMapIsRefusedNamingItsFile) {
    std::string const bad = file("bad.json", R"({"entries": [{"table": "coils"}]})");
    try {
        loadConfiguration({"--nut", "a", "--nut-map", bad});
        FAIL() << "a bad map was taken";
    } catch (ConfigurationError const& error) {
        EXPECT_NE(std::string(error.what()).find(bad), std::string::npos) << error.what();
        ASSERT_EQ(error.refusals().size(), 1u);
        EXPECT_FALSE(error.refusals().front().errors.empty());
    }
}

TEST_F(ConfigurationFilesTest, ABadMapIsRefusedNamingItsFile) {
    std::string const bad = file("bad-map.json", R"({"entries": [{"table": "coils"}]})");
    try {
        loadConfiguration({"--map", bad, "--scenario", "none"});
        FAIL() << "a bad map was taken";
    } catch (ConfigurationError const& error) {
        EXPECT_EQ(std::string(error.what()), "the register map \"" + bad + "\" cannot be served:");
        ASSERT_EQ(error.refusals().size(), 1u);
        EXPECT_FALSE(error.refusals().front().errors.empty());
    }
}

TEST_F(ConfigurationFilesTest, ABadScenarioIsRefusedNamingItsFile) {
    std::string const bad = file("bad-scenario.json", R"({"devices": 5})");
    try {
        loadConfiguration({"--map", file("map.json", kOwn), "--scenario", bad});
        FAIL() << "a bad scenario was taken";
    } catch (ConfigurationError const& error) {
        EXPECT_EQ(std::string(error.what()), "the scenario \"" + bad + "\" cannot be played:");
        ASSERT_EQ(error.refusals().size(), 1u);
        EXPECT_FALSE(error.refusals().front().errors.empty());
    }
}

TEST_F(ConfigurationFilesTest, EveryBadFileIsRefusedAtOnceABadMapHidesNoOther) {
    std::string const map = file("bad-map.json", R"({"entries": [{"table": "coils"}]})");
    std::string const upsMap = file("bad-ups.json", R"({"entries": 3})");
    std::string const scenario = file("bad-scenario.json", R"({"devices": 5})");
    try {
        loadConfiguration({"--map", map, "--scenario", scenario});
        FAIL() << "bad files were taken";
    } catch (ConfigurationError const& error) {
        ASSERT_EQ(error.refusals().size(), 2u);
        EXPECT_EQ(error.refusals()[0].heading,
                  "the register map \"" + map + "\" cannot be served:");
        EXPECT_EQ(error.refusals()[1].heading,
                  "the scenario \"" + scenario + "\" cannot be played:");
        EXPECT_FALSE(error.refusals()[1].errors.empty());
        EXPECT_EQ(std::string(error.what()), error.refusals()[0].heading);
    }
    try {
        loadConfiguration({"--map", map, "--nut", "a", "--nut-map", upsMap});
        FAIL() << "bad files were taken";
    } catch (ConfigurationError const& error) {
        ASSERT_EQ(error.refusals().size(), 2u);
        EXPECT_EQ(error.refusals()[1].heading,
                  "the register map \"" + upsMap + "\" cannot be served:");
    }
}

TEST_F(ConfigurationFilesTest, RefusalLinesAreEachHeadingThenItsErrorsIndented) {
    EXPECT_EQ(refusalLines({{"the map:", {"a", "b"}}, {"--tls-port: no module", {}}}),
              (std::vector<std::string>{"the map:", "  a", "  b", "--tls-port: no module"}));
}

/* The one error loadConfiguration() refuses args with, under its heading. */
std::string refusal(std::vector<std::string> const& args) {
    try {
        loadConfiguration(args);
    } catch (ConfigurationError const& error) {
        std::string text;
        for (auto const& refusal : error.refusals()) {
            text += (text.empty() ? "" : "\n") + refusal.heading;
            for (auto const& line : refusal.errors) {
                text += "\n" + line;
            }
        }
        return text;
    }
    return "taken";
}

TEST_F(ConfigurationFilesTest, AFileThatCannotBeReadIsABadConfigurationNamingOptionFileAndReason) {
    // Refused as a ConfigurationError, as a file with errors is, so that
    // the daemon stops with exit status 2 (not restarted by its unit) and
    // --check finds it, rather than with a bare "cannot read FILE" and 1.
    std::string const missing = m_dir + "/missing.json";
    EXPECT_EQ(refusal({"--map", missing}), "the register map \"" + missing +
                                               "\" cannot be served:\n--map: cannot read \"" +
                                               missing + "\": No such file or directory");
    EXPECT_EQ(refusal({"--map", m_dir}), "the register map \"" + m_dir +
                                             "\" cannot be served:\n--map: cannot read \"" + m_dir +
                                             "\": Is a directory");
    EXPECT_EQ(refusal({"--scenario", missing}),
              "the scenario \"" + missing + "\" cannot be played:\n--scenario: cannot read \"" +
                  missing + "\": No such file or directory");
    EXPECT_EQ(refusal({"--nut", "a", "--nut-map", missing}),
              "the register map \"" + missing + "\" cannot be served:\n--nut-map: cannot read \"" +
                  missing + "\": No such file or directory");
}

/* The names of a map's entries, in order. */
std::vector<std::string> entryNames(RegisterMapDefinition const& map) {
    std::vector<std::string> names;
    for (auto const& entry : map.entries) {
        names.push_back(entry.name);
    }
    return names;
}

std::vector<std::string> shippedMapNames(std::string const& file) {
    return entryNames(
        parseRegisterMap(readTextFile(std::string(TARSEL_DAEMON_MAPS_DIR) + "/" + file)));
}

TEST(ConfigurationTest, WithoutAMapTheBuiltInMapIsThatOfTheDataSource) {
    // The simulated UPS's map names channels no NUT UPS has: served over
    // --nut, every entry read as unavailable while the gate stood open.
    EXPECT_EQ(entryNames(loadConfiguration({}).map), shippedMapNames("ups-map.json"));
    EXPECT_EQ(entryNames(loadConfiguration({"--nut", "ups@127.0.0.1"}).map),
              shippedMapNames("nut-ups-map.json"));
}

TEST(ConfigurationTest, WritesToAUpsAreRefusedUnlessNutWritesIsGiven) {
    Configuration configuration;
    configuration.options = parseOptions({"--nut", "a"});
    EXPECT_TRUE(servedConfig(configuration).readOnly);
    configuration.options =
        parseOptions({"--nut", "a", "--nut-writes", "--nut-credentials", "/etc/x"});
    EXPECT_FALSE(servedConfig(configuration).readOnly);
    configuration.options = parseOptions({});
    EXPECT_FALSE(servedConfig(configuration).readOnly) << "the simulated UPS takes writes";
}

TEST(ConfigurationTest, TurningNutWritesOnOrChangingTheCredentialsNeedsARestart) {
    Options const running = parseOptions({"--nut", "a"});
    EXPECT_EQ(settingsNeedingRestart(running, parseOptions({"--nut", "a", "--nut-writes",
                                                            "--nut-credentials", "/etc/x"})),
              std::vector<std::string>{"--nut-writes/--nut-credentials"});
    EXPECT_TRUE(settingsNeedingRestart(running, parseOptions({"--nut", "a", "--nut-map", "m.json"}))
                    .empty());
}

}  // namespace
}  // namespace tarsel::daemon
