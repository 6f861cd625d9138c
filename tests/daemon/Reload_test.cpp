// Reloading the map: the old encoders leave the data store whole, the new
// maps answer the next request, a bad configuration changes nothing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>

#include "Configuration.h"
#include "DaemonTestSupport.h"
#include "Reloader.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon {
namespace {

using testing::TestDaemon;

// Map A: T at holding 0, Label at input 0; map B: U at holding 10. Both
// keep the operating status, as any map of the UPS would.
char const* const kMapA = R"({"entries": [
  {"name": "t", "table": "holding-registers", "address": 0, "encoder": "int32",
   "source": {"device": 2, "channel": "T"}},
  {"name": "label", "table": "input-registers", "address": 0, "encoder": "string", "size": 2,
   "source": {"device": 2, "channel": "Label"}},
  {"name": "status", "table": "input-registers", "address": 2, "encoder": "uint16",
   "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}}
]})";
char const* const kMapB = R"({"entries": [
  {"name": "u", "table": "holding-registers", "address": 10, "encoder": "int32",
   "source": {"device": 2, "channel": "U"}},
  {"name": "status", "table": "input-registers", "address": 2, "encoder": "uint16",
   "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}}
]})";
char const* const kScenario = R"({"devices": [{"id": 2, "name": "UPS", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5, "Label": "AB", "U": 7}}],
  "events": [{"at": 1, "do": "set-channel", "device": 2, "channel": "U", "value": 8},
             {"at": 2, "do": "set-channel", "device": 2, "channel": "U", "value": 9}]})";

ServedConfig served(char const* map) {
    ServedConfig config;
    config.map = parseRegisterMap(map);
    return config;
}

cdshost::Id channelId(std::string const& name) {
    return cdshost::Store::instance().channelId(2, name);
}

/* The open subscriptions whose target is one of these channels. */
std::size_t subscriptionsOn(std::vector<std::string> const& channels) {
    std::set<cdshost::Id> targets;
    for (auto const& name : channels) {
        targets.insert(channelId(name));
    }
    auto const open = cdshost::Store::instance().subscriptions();
    return static_cast<std::size_t>(
        std::count_if(open.begin(), open.end(),
                      [&](cdshost::SubscriptionInfo const& s) { return targets.count(s.target); }));
}

std::set<cdshost::Id> openIds() {
    std::set<cdshost::Id> ids;
    for (auto const& s : cdshost::Store::instance().subscriptions()) {
        ids.insert(s.subscriptionId);
    }
    return ids;
}

/* Read Holding Registers, written out whole (GCC 12 at -O2 warns falsely
 * about the inserts of testing::frame() when inlined here). */
std::vector<std::uint8_t> readRequest(std::uint16_t address, std::uint16_t count,
                                      std::uint8_t unit = 1) {
    auto const byte = [](unsigned value) { return static_cast<std::uint8_t>(value & 0xFF); };
    return {
        0,          1, 0, 0, 0, 6, unit, 3, byte(address >> 8u), byte(address), byte(count >> 8u),
        byte(count)};
}

std::vector<std::uint16_t> readHolding(DaemonCore& core, std::uint16_t address,
                                       std::uint16_t count) {
    auto const bytes = readRequest(address, count);
    Answer const answer = core.handler().handle(bytes.data(), bytes.size());
    EXPECT_EQ(answer.exception, 0) << "read of holding " << address;
    return answer.registers;
}

TEST(ReloadTest, ReplacingTheMapsClosesEverySubscriptionOfTheOldEncoders) {
    TestDaemon daemon(kMapA, kScenario);
    ASSERT_GT(subscriptionsOn({"T", "Label"}), 0u);
    // The ids open before the reload that belong to the old map's channels.
    std::set<cdshost::Id> oldMapIds;
    for (auto const& s : cdshost::Store::instance().subscriptions()) {
        if (s.target == channelId("T") || s.target == channelId("Label")) {
            oldMapIds.insert(s.subscriptionId);
        }
    }
    daemon.core().replaceMaps(served(kMapB));
    EXPECT_EQ(subscriptionsOn({"T", "Label"}), 0u);
    for (cdshost::Id const id : openIds()) {
        EXPECT_EQ(oldMapIds.count(id), 0u) << "subscription " << id << " of the old map is open";
    }
    EXPECT_GT(subscriptionsOn({"U"}), 0u);
    EXPECT_EQ(readHolding(daemon.core(), 10, 2), (std::vector<std::uint16_t>{0, 7}));
    daemon.stop();
    EXPECT_EQ(cdshost::Store::instance().subscriptionCount(), 0u);
}

TEST(ReloadTest, ReloadsLeaveNoCountPerIdInTheStoreThatWouldGrowWithEveryOne) {
    TestDaemon daemon(kMapA, kScenario);
    auto& store = cdshost::Store::instance();
    std::set<cdshost::Id> const oldMapIds = openIds();
    ASSERT_FALSE(oldMapIds.empty());
    std::size_t const unsubscribesBefore = store.calls("unsubscribe");
    daemon.core().replaceMaps(served(kMapB));
    ASSERT_GT(store.calls("unsubscribe"), unsubscribesBefore);  // the totals are still counted
    for (cdshost::Id const id : oldMapIds) {
        EXPECT_EQ(store.calls("unsubscribe", id), 0u) << "subscription " << id;
    }
    daemon.stop();
}

TEST(ReloadTest, SeveralReloadsInARowLeaveExactlyTheSubscriptionsOfTheMapServed) {
    TestDaemon daemon(kMapA, kScenario);
    auto& store = cdshost::Store::instance();
    std::size_t const withA = store.subscriptionCount();
    daemon.core().replaceMaps(served(kMapB));
    std::size_t const withB = store.subscriptionCount();
    ASSERT_NE(withA, withB);  // else the counts below would prove nothing
    for (int round = 0; round < 5; ++round) {
        daemon.core().replaceMaps(served(kMapA));
        EXPECT_EQ(store.subscriptionCount(), withA) << "round " << round;
        EXPECT_EQ(subscriptionsOn({"U"}), 0u);
        daemon.core().replaceMaps(served(kMapB));
        EXPECT_EQ(store.subscriptionCount(), withB) << "round " << round;
        EXPECT_EQ(subscriptionsOn({"T", "Label"}), 0u);
    }
    daemon.stop();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST(ReloadTest, TheScenarioPlaysOnIntoTheNewMap) {
    TestDaemon daemon(kMapA, kScenario);
    DataSource* const source = daemon.core().source();
    daemon.core().scenario()->playFirst(1.5);  // U: 8
    daemon.core().replaceMaps(served(kMapB));
    EXPECT_EQ(daemon.core().source(), source);  // the same source plays on
    EXPECT_EQ(readHolding(daemon.core(), 10, 2), (std::vector<std::uint16_t>{0, 8}));
    daemon.core().scenario()->playFirst(2.5);  // U: 9, pushed to the new encoder
    EXPECT_EQ(readHolding(daemon.core(), 10, 2), (std::vector<std::uint16_t>{0, 9}));
    EXPECT_EQ(daemon.core().map().entries().front()->image.words,
              (std::vector<std::uint16_t>{0, 9}));
    EXPECT_GE(daemon.core().totalPushes(), 1u);
    daemon.stop();
    EXPECT_EQ(cdshost::Store::instance().subscriptionCount(), 0u);
}

TEST(ReloadTest, PushesOfAReplacedMapStayCountedInTheMetrics) {
    TestDaemon daemon(kMapA, kScenario);
    Metrics metrics;
    daemon.core().setMetrics(&metrics);
    TestDaemon::setChannel(2, "T", kq::CValue(6));
    TestDaemon::setChannel(2, "T", kq::CValue(7));
    std::uint64_t const before = daemon.core().totalPushes();
    ASSERT_EQ(before, 2u);
    daemon.core().replaceMaps(served(kMapA));
    EXPECT_EQ(metrics.retiredPushes(), before);
    EXPECT_EQ(daemon.core().totalPushes(), 0u);
}

TEST(ReloadTest, TheNewFrontHandlerCountsRequestsInTheSameMetrics) {
    TestDaemon daemon(kMapA, kScenario);
    Metrics metrics;
    daemon.core().setMetrics(&metrics);
    readHolding(daemon.core(), 0, 2);
    daemon.core().replaceMaps(served(kMapB));
    readHolding(daemon.core(), 10, 2);
    EXPECT_EQ(metrics.requests(3), 2u);
}

TEST(ReloadAttributeTest, TheNewMapsAttributeEntriesAreKeptServedAfterADeviceChange) {
    char const* const ups = R"({"devices": [{"id": 2, "name": "UPS",
      "attributes": {"manufacturer": "Maker"},
      "channels": {"PowerDistribution.Status.OperatingStatus": {"uint32": 16}}}]})";
    auto makerAt = [](int address) {
        return R"({"entries": [{"name": "maker", "table": "holding-registers", "address": )" +
               std::to_string(address) + R"(, "encoder": "string", "size": 2,
               "source": {"device": 2, "attribute": "manufacturer"}}]})";
    };
    TestDaemon daemon(makerAt(0), ups);
    ServedConfig next;
    next.map = parseRegisterMap(makerAt(20));
    daemon.core().replaceMaps(next);
    cdshost::Store::instance().setDeviceAttribute(2, cdsapi::AttributeManufacturer, "New");
    // Only the new map's entry is watched and rebuilt: the old one is gone.
    EXPECT_EQ(daemon.core().refreshAttributeEntries(std::chrono::steady_clock::now()), 1u);
    EXPECT_EQ(readHolding(daemon.core(), 20, 2), (std::vector<std::uint16_t>{0x4E65, 0x7700}));
}

/* A NUT source over a fake upsd that always answers one fresh UPS. */
class FixedFetcher : public nut::Fetcher {
  public:
    nut::Reading fetch() override {
        nut::Reading reading;
        reading.state = nut::Reading::State::Fresh;
        reading.variables = {{"ups.status", "OL"}, {"battery.charge", "87"}};
        return reading;
    }
};

TEST(ReloadTest, AReloadWhileTheNutSourcePollsLeavesNoSubscriptionBehind) {
    cdshost::Store::instance().reset();
    std::ostringstream text;
    Log log(text);
    char const* const nutMap = R"({"entries": [
      {"name": "charge", "table": "holding-registers", "address": 0, "encoder": "int32",
       "source": {"device": 2, "channel": "battery.charge"}}]})";
    nut::SourceConfig nutConfig;
    nutConfig.upses.push_back(nut::parseEndpoint("ups@127.0.0.1:1"));
    nutConfig.interval = std::chrono::milliseconds(10);
    CoreConfig config;
    config.map = parseRegisterMap(nutMap);
    config.readOnly = true;
    config.source = std::make_unique<nut::Source>(
        nutConfig, cdshost::Store::instance(), log,
        [](nut::Endpoint const&) { return std::make_unique<FixedFetcher>(); });
    auto core = std::make_unique<DaemonCore>(std::move(config), log);
    DataSource& source = *core->source();
    source.start(DataSource::Clock::now());
    for (int i = 0; i < 200 && !core->availability().isAvailable(); ++i) {
        pollfd fd{source.wakeDescriptor(), POLLIN, 0};
        ::poll(&fd, 1, 50);
        source.update(DataSource::Clock::now());
        core->buildPendingEntries();
    }
    ASSERT_TRUE(core->availability().isAvailable());
    core->buildPendingEntries();
    ASSERT_EQ(core->pendingEntries(), 0u);
    auto& store = cdshost::Store::instance();
    std::size_t const before = store.subscriptionCount();
    for (int round = 0; round < 3; ++round) {
        ServedConfig next;
        next.map = parseRegisterMap(nutMap);
        next.readOnly = true;
        core->replaceMaps(next);
        source.update(DataSource::Clock::now());  // polls go on between reloads
        EXPECT_EQ(store.subscriptionCount(), before) << "round " << round;
    }
    EXPECT_EQ(readHolding(*core, 0, 2), (std::vector<std::uint16_t>{0, 87}));
    EXPECT_TRUE(source.status(DataSource::Clock::now()).fresh);
    core.reset();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

/* A file of the test's own, removed at the end. */
class TempFile {
  public:
    explicit TempFile(std::string const& text) {
        char name[] = "/tmp/tarsel-reload-XXXXXX";
        int const fd = ::mkstemp(name);
        ::close(fd);
        m_path = name;
        write(text);
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    void write(std::string const& text) const { std::ofstream(m_path) << text; }
    std::string const& path() const { return m_path; }

  private:
    std::string m_path;
};

class ReloaderTest : public ::testing::Test {
  protected:
    ReloaderTest() : m_mapFile(kMapA) {
        m_daemon.core().setMetrics(&m_metrics);
        m_args = {"--map", m_mapFile.path(), "--scenario", "none"};
    }

    Reloader reloader(std::vector<std::string> const& nextArgs) {
        return Reloader([nextArgs] { return loadConfiguration(nextArgs); }, parseOptions(m_args),
                        m_daemon.core(), {}, &m_metrics, m_daemon.log());
    }

    TempFile m_mapFile;
    TestDaemon m_daemon{kMapA, kScenario};
    Metrics m_metrics;
    std::vector<std::string> m_args;
};

TEST_F(ReloaderTest, AGoodMapReplacesTheRunningOneAndTheOutcomeIsLogged) {
    m_mapFile.write(kMapB);
    EXPECT_TRUE(reloader(m_args).reload());
    EXPECT_EQ(readHolding(m_daemon.core(), 10, 2), (std::vector<std::uint16_t>{0, 7}));
    EXPECT_EQ(m_metrics.reloads(ReloadOutcome::Applied), 1u);
    EXPECT_NE(m_daemon.logText().find("reload applied: \"" + m_mapFile.path() +
                                      "\", 2 entries, unit id 1; data-store subscriptions open: "),
              std::string::npos);
    EXPECT_EQ(subscriptionsOn({"T", "Label"}), 0u);
}

TEST_F(ReloaderTest, WhatAReloadFreedIsHandedBackAfterItWhetherAppliedOrRefused) {
    // The daemon hands the freed heap back to the system here, as it does
    // once the map is built at start: by the time it runs, the outcome is
    // counted and the replaced map's encoders are gone.
    std::vector<std::string> handedBack;
    auto const afterReload = [&] {
        handedBack.push_back(
            std::to_string(m_metrics.reloads(ReloadOutcome::Applied)) + " applied, " +
            std::to_string(m_metrics.reloads(ReloadOutcome::Refused)) + " refused, " +
            std::to_string(subscriptionsOn({"T", "Label"})) + " subscriptions of map A");
    };
    Reloader reload([this] { return loadConfiguration(m_args); }, parseOptions(m_args),
                    m_daemon.core(), {}, &m_metrics, m_daemon.log(), afterReload);
    ASSERT_GT(subscriptionsOn({"T", "Label"}), 0u);
    m_mapFile.write(kMapB);
    EXPECT_TRUE(reload.reload());
    m_mapFile.write("{");
    EXPECT_FALSE(reload.reload());
    EXPECT_EQ(handedBack,
              (std::vector<std::string>{"1 applied, 0 refused, 0 subscriptions of map A",
                                        "1 applied, 1 refused, 0 subscriptions of map A"}));
}

TEST_F(ReloaderTest, ABadMapIsRefusedWithEveryErrorLoggedAndTheRunningMapKept) {
    RequestHandler* const running = &m_daemon.core().handler();
    std::size_t const subscriptions = cdshost::Store::instance().subscriptionCount();
    m_mapFile.write(R"({"entries": [
      {"name": "x", "table": "holding-registers", "address": 0, "encoder": "no-such-encoder",
       "source": {"device": 2, "channel": "T"}},
      {"name": "y", "table": "no-such-table", "address": 5, "encoder": "int32",
       "source": {"device": 2, "channel": "T"}}]})");
    EXPECT_FALSE(reloader(m_args).reload());
    std::string const log = m_daemon.logText();
    EXPECT_NE(
        log.find("error: reload: the register map \"" + m_mapFile.path() + "\" cannot be served:"),
        std::string::npos);
    EXPECT_NE(log.find("no-such-encoder"), std::string::npos);
    EXPECT_NE(log.find("no-such-table"), std::string::npos);
    EXPECT_NE(log.find("error: reload refused; still serving the running map"), std::string::npos);
    EXPECT_EQ(&m_daemon.core().handler(), running);
    EXPECT_EQ(readHolding(m_daemon.core(), 0, 2), (std::vector<std::uint16_t>{0, 5}));
    EXPECT_EQ(cdshost::Store::instance().subscriptionCount(), subscriptions);
    EXPECT_EQ(m_metrics.reloads(ReloadOutcome::Refused), 1u);
    EXPECT_EQ(m_metrics.reloads(ReloadOutcome::Applied), 0u);
}

TEST_F(ReloaderTest, AMissingMapFileIsRefused) {
    std::vector<std::string> args = {"--map", "/nonexistent/map.json", "--scenario", "none"};
    Reloader reload = Reloader([args] { return loadConfiguration(args); }, parseOptions(args),
                               m_daemon.core(), {}, &m_metrics, m_daemon.log());
    EXPECT_FALSE(reload.reload());
    // Refused as a map with errors is, the option, the file and the reason
    // named.
    EXPECT_NE(m_daemon.logText().find(
                  "reload: the register map \"/nonexistent/map.json\" cannot be served:"),
              std::string::npos);
    EXPECT_NE(m_daemon.logText().find(
                  "--map: cannot read \"/nonexistent/map.json\": No such file or directory"),
              std::string::npos);
    EXPECT_NE(m_daemon.logText().find("reload refused; still serving the running map"),
              std::string::npos);
    EXPECT_EQ(readHolding(m_daemon.core(), 0, 2), (std::vector<std::uint16_t>{0, 5}));
}

TEST_F(ReloaderTest, EveryBadFileOfAReloadIsLoggedNotOnlyTheFirst) {
    std::vector<std::string> const args = {"--map", "/nonexistent/map.json", "--scenario",
                                           "/nonexistent/scenario.json"};
    Reloader reload = Reloader([args] { return loadConfiguration(args); }, parseOptions(args),
                               m_daemon.core(), {}, &m_metrics, m_daemon.log());
    EXPECT_FALSE(reload.reload());
    std::string const log = m_daemon.logText();
    std::size_t const map =
        log.find("error: reload: the register map \"/nonexistent/map.json\" cannot be served:");
    std::size_t const scenario =
        log.find("error: reload: the scenario \"/nonexistent/scenario.json\" cannot be played:");
    std::size_t const refused = log.find("error: reload refused; still serving the running map");
    ASSERT_NE(map, std::string::npos) << log;
    ASSERT_NE(scenario, std::string::npos) << log;
    ASSERT_NE(refused, std::string::npos) << log;
    EXPECT_LT(map, scenario);
    EXPECT_LT(scenario, refused);
    EXPECT_EQ(m_metrics.reloads(ReloadOutcome::Refused), 1u);
}

TEST_F(ReloaderTest, AChangedListenerIsRefusedAsNeedingARestart) {
    std::vector<std::string> next = m_args;
    next.insert(next.end(), {"--port", "1503", "--nut-interval", "2"});
    m_mapFile.write(kMapB);
    EXPECT_FALSE(reloader(next).reload());
    EXPECT_NE(m_daemon.logText().find(
                  "reload refused: --port, --nut-interval changed, which needs a restart; still "
                  "serving the running map"),
              std::string::npos);
    EXPECT_EQ(readHolding(m_daemon.core(), 0, 2), (std::vector<std::uint16_t>{0, 5}));
}

TEST_F(ReloaderTest, ABadCommandLineIsRefused) {
    std::vector<std::string> next = m_args;
    next.push_back("--no-such-option");
    EXPECT_FALSE(reloader(next).reload());
    EXPECT_NE(m_daemon.logText().find("error: reload: the options cannot be used:"),
              std::string::npos);
    EXPECT_NE(m_daemon.logText().find("unknown option \"--no-such-option\""), std::string::npos);
}

TEST_F(ReloaderTest, TheUnitIdIsAppliedWithoutARestart) {
    std::vector<std::string> next = m_args;
    next.insert(next.end(), {"--unit-id", "7"});
    EXPECT_TRUE(reloader(next).reload());
    auto const bytes = readRequest(0, 2, 7);
    EXPECT_EQ(m_daemon.core().handler().handle(bytes.data(), bytes.size()).registers,
              (std::vector<std::uint16_t>{0, 5}));
    auto const old = readRequest(0, 2, 1);
    EXPECT_EQ(m_daemon.core().handler().handle(old.data(), old.size()).exception,
              exception_code::kGatewayTargetFailed);
}

/* One request over a real connection to the server, the server's side
 * pumped in between; the answer's bytes. */
std::vector<std::uint8_t> exchange(ModbusServer& server, int fd,
                                   std::vector<std::uint8_t> const& request) {
    EXPECT_EQ(::send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    std::vector<std::uint8_t> answer;
    for (int i = 0; i < 200 && answer.size() < 9; ++i) {
        auto fds = server.pollSet();
        ::poll(fds.data(), fds.size(), 20);
        server.serve(fds.data(), fds.size(), SteadyClock::now());
        std::uint8_t buffer[256];
        ssize_t const got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
            answer.insert(answer.end(), buffer, buffer + got);
        }
    }
    return answer;
}

TEST_F(ReloaderTest, NewAccessRulesJudgeTheNextRequestOfAConnectedClient) {
    Options const running = parseOptions(m_args);
    ModbusServer server({"127.0.0.1", 0, running.access, nullptr}, running.limits,
                        m_daemon.core().handler(), m_daemon.log());
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(server.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    std::vector<std::uint8_t> const before = exchange(server, fd, readRequest(0, 2));
    ASSERT_GE(before.size(), 9u);
    EXPECT_EQ(before[7], 3);  // answered
    std::vector<std::string> next = m_args;
    next.insert(next.end(), {"--allow-read", "none"});
    Reloader reloader([next] { return loadConfiguration(next); }, running, m_daemon.core(),
                      {&server, nullptr}, &m_metrics, m_daemon.log());
    ASSERT_TRUE(reloader.reload());
    std::vector<std::uint8_t> const after = exchange(server, fd, readRequest(0, 2));
    ASSERT_GE(after.size(), 9u);
    EXPECT_EQ(after[7], 0x83);  // an exception to function 3
    EXPECT_EQ(after[8], exception_code::kIllegalFunction);
    EXPECT_EQ(server.clientCount(), 1u);  // still connected
    ::close(fd);
}

TEST(ConfigurationTest, SettingsNeedingARestartAreNamed) {
    Options running = parseOptions({});
    EXPECT_TRUE(settingsNeedingRestart(running, parseOptions({"--map", "other.json"})).empty());
    EXPECT_TRUE(settingsNeedingRestart(running, parseOptions({"--allow-read", "none"})).empty());
    EXPECT_EQ(settingsNeedingRestart(running, parseOptions({"--listen", "127.0.0.2"})),
              (std::vector<std::string>{"--listen"}));
    EXPECT_EQ(settingsNeedingRestart(running, parseOptions({"--http-listen", "127.0.0.1:9502"})),
              (std::vector<std::string>{"--http-listen/--http-allow-remote"}));
    EXPECT_EQ(settingsNeedingRestart(running, parseOptions({"--nut", "ups@localhost"})),
              (std::vector<std::string>{"--nut"}));
}

TEST(ConfigurationTest, TlsCanBeNeitherAddedNorDroppedNorChangedByAReloadButItsAddressRules) {
    // The TLS module and its context are made once, at start.
    std::vector<std::string> const tls = {"--tls-port", "802",          "--tls-cert", "s.pem",
                                          "--tls-key",  "s.key",        "--tls-ca",   "ca.pem",
                                          "--tls-role", "op=read-write"};
    auto with = [&tls](std::vector<std::string> more) {
        more.insert(more.begin(), tls.begin(), tls.end());
        return parseOptions(more);
    };
    std::string const files = "--tls-cert/--tls-key/--tls-ca/--tls-role";
    EXPECT_EQ(settingsNeedingRestart(parseOptions({}), with({})),
              (std::vector<std::string>{"--tls-port", files}));
    EXPECT_EQ(settingsNeedingRestart(with({}), parseOptions({})),
              (std::vector<std::string>{"--tls-port", files}));
    EXPECT_EQ(settingsNeedingRestart(with({}), with({"--tls-role", "viewer=read-only"})),
              (std::vector<std::string>{files}));
    EXPECT_EQ(settingsNeedingRestart(with({}), with({"--tls-listen", "127.0.0.2"})),
              (std::vector<std::string>{"--tls-listen"}));
    EXPECT_TRUE(settingsNeedingRestart(with({}), with({"--tls-allow-write", "none"})).empty());
}

}  // namespace
}  // namespace tarsel::daemon
