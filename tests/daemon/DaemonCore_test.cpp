// The daemon core as a whole: teardown, the push image, the availability log.
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"
#include "EmbeddedDefaults.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon {
namespace {

using testing::HeldWrites;
using testing::TestDaemon;

char const* const kMap = R"({"entries": [
  {"name": "t", "table": "holding-registers", "address": 0, "encoder": "int32",
   "source": {"device": 2, "channel": "T"}},
  {"name": "label", "table": "input-registers", "address": 0, "encoder": "string", "size": 2,
   "source": {"device": 2, "channel": "Label"}},
  {"name": "status", "table": "input-registers", "address": 2, "encoder": "uint16",
   "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}}
]})";

char const* const kScenario = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 2}, "T": 5, "Label": "AB"}}]})";

ServedEntry const& entryNamed(DaemonCore& core, std::string const& name) {
    for (auto const& entry : core.map().entries()) {
        if (entry->definition.name == name) {
            return *entry;
        }
    }
    throw std::out_of_range(name);
}

TEST(DaemonCoreTest, TearingDownTheCoreClosesEveryDataStoreSubscription) {
    TestDaemon daemon(embeddedMap(), embeddedScenario());
    daemon.core().scenario()->playFirst(10.0);  // the UPS, an extra outlet, alarms
    auto& store = cdshost::Store::instance();
    ASSERT_GT(store.subscriptionCount(), 0u);
    daemon.stop();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST(DaemonCoreTest, TearingDownAfterAPendingEntryWasBuiltClosesEverySubscription) {
    TestDaemon daemon(embeddedMap(), embeddedScenario());
    ASSERT_TRUE(daemon.core().hasPendingEntries());  // the UPS model, found by name
    daemon.core().scenario()->playFirst(10.0);
    ASSERT_EQ(daemon.core().buildPendingEntries(), 1u);
    auto& store = cdshost::Store::instance();
    ASSERT_GT(store.subscriptionCount(), 0u);
    daemon.stop();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST(DaemonCoreTest, StartupReadFillsTheImageWithoutCountingAPush) {
    TestDaemon daemon(kMap, kScenario);
    ServedEntry const& t = entryNamed(daemon.core(), "t");
    EXPECT_TRUE(t.image.known());
    EXPECT_EQ(t.image.words, (std::vector<uint16_t>{0, 5}));
    EXPECT_EQ(t.image.pushes, 0u);
}

TEST(DaemonCoreTest, PushesUpdateTheImageAndCountChanges) {
    TestDaemon daemon(kMap, kScenario);
    TestDaemon::setChannel(2, "T", kq::CValue(0x12345));
    TestDaemon::setChannel(2, "T", kq::CValue(-1));
    ServedEntry const& t = entryNamed(daemon.core(), "t");
    EXPECT_EQ(t.image.words, (std::vector<uint16_t>{0xFFFF, 0xFFFF}));
    EXPECT_EQ(t.image.pushes, 2u);
    EXPECT_EQ(daemon.core().map().totalPushes(), 2u);
    EXPECT_NE(daemon.logText().find("push holding-registers 0 \"t\" [0xFFFF 0xFFFF] (#2)"),
              std::string::npos);
}

TEST(DaemonCoreTest, StringEntriesArePushedToo) {
    TestDaemon daemon(kMap, kScenario);
    TestDaemon::setChannel(2, "Label", kq::CValue("XYZ"));
    ServedEntry const& label = entryNamed(daemon.core(), "label");
    EXPECT_EQ(label.image.words, (std::vector<uint16_t>{0x5859, 0x5A00}));
    EXPECT_GE(label.image.pushes, 1u);
}

TEST(DaemonCoreTest, NotAvailableMessageIsLoggedOnceAndTheOpeningToo) {
    TestDaemon daemon(kMap, kScenario);
    daemon.core().watchAvailability();
    daemon.core().watchAvailability();
    std::string message = daemon.core().availability().notAvailableMessage();
    message.replace(message.find('\n'), 1, "\ntarsel-modbusd: warning: ");  // a line each
    std::string log = daemon.logText();
    auto const first = log.find(message);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find(message, first + 1), std::string::npos);
    TestDaemon::setChannel(2, "PowerDistribution.Status.OperatingStatus", kq::CValue(16u));
    daemon.core().watchAvailability();
    EXPECT_NE(daemon.logText().find("UPS map is available; serving it"), std::string::npos);
}

TEST(DaemonCoreTest, FloatLayoutIsLoggedAtStart) {
    TestDaemon daemon(kMap, kScenario);
    EXPECT_NE(daemon.logText().find("byte order 0 (dcba helpers): 12.5 is served as"),
              std::string::npos);
    EXPECT_NE(daemon.logText().find("byte order 1 (badc helpers): 12.5 is served as"),
              std::string::npos);
}

TEST(DaemonCoreTest, FurtherUnitsAreServedFromTheirOwnMaps) {
    cdshost::Store::instance().reset();
    std::ostringstream logText;
    Log log(logText);
    CoreConfig config = testing::twoUpsConfig(kMap);
    DaemonCore core(std::move(config), log);
    auto ask = [&](std::uint8_t unit) {
        auto const bytes = testing::request(3, 0, 2, unit);
        return core.handler().handle(bytes.data(), bytes.size());
    };
    EXPECT_EQ(ask(1).registers, (std::vector<std::uint16_t>{0, 5}));
    EXPECT_EQ(ask(9).registers, (std::vector<std::uint16_t>{0, 7}));
    EXPECT_EQ(ask(4).exception, exception_code::kGatewayTargetFailed);
}

TEST(DaemonCoreTest, AReadOnlyCoreRefusesWritesWithIllegalFunction) {
    cdshost::Store::instance().reset();
    std::ostringstream logText;
    Log log(logText);
    CoreConfig config;
    config.map = parseRegisterMap(kMap);
    config.scenario = parseScenario(R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})");
    config.readOnly = true;
    DaemonCore core(std::move(config), log);
    auto const write = testing::writeRegisters(0, {0, 9});
    EXPECT_EQ(core.handler().handle(write.data(), write.size()).exception,
              exception_code::kIllegalFunction);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(5));
    auto const read = testing::request(3, 0, 2);
    EXPECT_EQ(core.handler().handle(read.data(), read.size()).registers,
              (std::vector<std::uint16_t>{0, 5}));
}

TEST(DaemonCoreTest, FurtherUnitsKeepTheClientsOriginAndItsAccessRules) {
    cdshost::Store::instance().reset();
    std::ostringstream logText;
    Log log(logText);
    CoreConfig config = testing::twoUpsConfig(kMap);
    DaemonCore core(std::move(config), log);
    AccessRules rules;
    applyAllowOption(rules, true, "127.0.0.1");
    RequestOrigin const stranger{"127.0.0.2:5020", 0x7F000002, &rules, true};
    auto const write = testing::writeRegisters(0, {0, 9});
    std::vector<std::uint8_t> toUnit9 = write;
    toUnit9[6] = 9;
    EXPECT_EQ(core.handler().handle(toUnit9.data(), toUnit9.size(), stranger).exception,
              exception_code::kIllegalFunction);
    EXPECT_EQ(TestDaemon::channel(3, "T"), kq::CValue(7));
    EXPECT_NE(logText.str().find("client=127.0.0.2:5020 unit=9"), std::string::npos)
        << logText.str();
}

/* Hands over the writes of the entries named "own" only, as a UPS behind
 * upsd takes those over its variables and commands and refuses the rest. */
class WritesOfOwnEntries : public testing::HeldWrites {
  public:
    bool owns(ServedEntry const& entry) const override { return entry.definition.name == "own"; }
};

TEST(DaemonCoreTest, TheDescriptionShowsEntriesWhoseWritesAreNotHandedOverAsReadOnly) {
    cdshost::Store::instance().reset();
    std::ostringstream logText;
    Log log(logText);
    WritesOfOwnEntries writes;
    CoreConfig config;
    config.map = parseRegisterMap(R"({"entries": [
      {"name": "own", "table": "holding-registers", "address": 0, "encoder": "uint16",
       "source": {"device": 2, "channel": "T"}},
      {"name": "derived", "table": "holding-registers", "address": 1, "encoder": "uint16",
       "source": {"device": 2, "channel": "T"}}]})");
    config.scenario = parseScenario(R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})");
    config.remoteWrites = &writes;
    DaemonCore core(std::move(config), log);
    // What a write to each gets: handed over, or refused.
    auto const own = testing::writeRegisters(0, {7});
    EXPECT_TRUE(core.handler().handle(own.data(), own.size()).deferred);
    auto const derived = testing::writeRegisters(1, {7});
    EXPECT_EQ(core.handler().handle(derived.data(), derived.size()).exception, 1);
    // And what the description says of them.
    std::string const csv = core.describe(DescribeFormat::Csv);
    EXPECT_NE(csv.find(",own,uint16,,1,0,RW,"), std::string::npos) << csv;
    EXPECT_NE(csv.find(",derived,uint16,,1,0,R,"), std::string::npos) << csv;
}

TEST(DaemonCoreTest, AWriteWaitingForItsOutcomeOutlivesAReloadOfTheMaps) {
    cdshost::Store::instance().reset();
    std::ostringstream logText;
    Log log(logText);
    HeldWrites writes;
    CoreConfig config;
    config.map = parseRegisterMap(kMap);
    config.scenario = parseScenario(R"({"devices": [{"id": 2, "name": "UPS", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})");
    config.remoteWrites = &writes;
    ServedConfig const served = config;
    DaemonCore core(std::move(config), log);
    auto const write = testing::writeRegisters(0, {0, 9});
    Answer const answer = core.handler().handle(write.data(), write.size());
    ASSERT_TRUE(answer.deferred);
    core.replaceMaps(served);
    ASSERT_EQ(writes.pending.size(), 1u);
    writes.pending.front()(RemoteOutcome{0, "done"});
    EXPECT_TRUE(core.deferredReplies().settled(*answer.deferred));
    EXPECT_NE(logText.str().find(": done; client=local"), std::string::npos) << logText.str();
    // The new maps hand writes over too.
    EXPECT_TRUE(core.handler().handle(write.data(), write.size()).deferred);
}

}  // namespace
}  // namespace tarsel::daemon
