// Which pushes the daemon reports in its log without --verbose: changes of
// discretes and of strings, which are rare and meaningful, but not of numbers.
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"

namespace tarsel::daemon {
namespace {

using testing::TestDaemon;

char const* const kMap = R"({"entries": [
  {"name": "on-battery", "table": "discrete-inputs", "address": 0, "encoder": "boolean",
   "source": {"device": 2, "channel": "OnBattery"}},
  {"name": "location", "table": "holding-registers", "address": 0, "encoder": "string", "size": 4,
   "source": {"device": 2, "channel": "Location"}},
  {"name": "load", "table": "input-registers", "address": 0, "encoder": "uint16",
   "source": {"device": 2, "channel": "Load"}}
]})";

char const* const kUps = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16},
  "OnBattery": false, "Location": {"string": "Rack 1"}, "Load": {"uint32": 30}}}]})";

std::size_t occurrences(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(PushLogTest, DiscreteChangeIsLoggedWithoutVerbose) {
    TestDaemon daemon(kMap, kUps, false);
    TestDaemon::setChannel(2, "OnBattery", kq::CValue(true));
    EXPECT_NE(daemon.logText().find("discrete-inputs 0 \"on-battery\": 0 -> 1"), std::string::npos)
        << daemon.logText();
}

TEST(PushLogTest, StringChangeIsLoggedAsTextWithoutVerbose) {
    TestDaemon daemon(kMap, kUps, false);
    TestDaemon::setChannel(2, "Location", kq::CValue("Rack 7"));
    EXPECT_NE(daemon.logText().find("holding-registers 0 \"location\": \"Rack 1\" -> \"Rack 7\""),
              std::string::npos)
        << daemon.logText();
}

TEST(PushLogTest, NumberChangeIsLoggedOnlyInVerboseMode) {
    TestDaemon quiet(kMap, kUps, false);
    TestDaemon::setChannel(2, "Load", kq::CValue(45u));
    EXPECT_EQ(quiet.logText().find("\"load\""), std::string::npos) << quiet.logText();
}

TEST(PushLogTest, PushOfAnUnchangedStateIsNotLogged) {
    TestDaemon daemon(kMap, kUps, false);
    TestDaemon::setChannel(2, "OnBattery", kq::CValue(false));
    EXPECT_EQ(occurrences(daemon.logText(), "\"on-battery\""), 0u) << daemon.logText();
}

}  // namespace
}  // namespace tarsel::daemon
