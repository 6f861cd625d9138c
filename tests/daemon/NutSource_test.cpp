#include <gtest/gtest.h>

#include <poll.h>

#include <mutex>
#include <sstream>

#include "MapLoader.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon::nut {
namespace {

using namespace std::chrono_literals;

/* Every UPS answers what the test set for it last. */
struct FakeUpsd {
    std::mutex mutex;
    std::map<std::string, Reading> readings;

    void set(std::string const& ups, Reading reading) {
        std::lock_guard<std::mutex> lock(mutex);
        readings[ups] = std::move(reading);
    }
    Reading get(std::string const& ups) {
        std::lock_guard<std::mutex> lock(mutex);
        auto const found = readings.find(ups);
        return found != readings.end() ? found->second : Reading{};
    }
};

class FakeFetcher : public Fetcher {
  public:
    FakeFetcher(FakeUpsd& upsd, std::string ups) : m_upsd(upsd), m_ups(std::move(ups)) {}
    Reading fetch() override { return m_upsd.get(m_ups); }

  private:
    FakeUpsd& m_upsd;
    std::string m_ups;
};

Reading fresh(Variables variables) {
    Reading reading;
    reading.state = Reading::State::Fresh;
    reading.variables = std::move(variables);
    return reading;
}

Reading failed(Reading::State state, std::string detail) {
    Reading reading;
    reading.state = state;
    reading.detail = std::move(detail);
    return reading;
}

class NutSourceTest : public ::testing::Test {
  protected:
    void SetUp() override { m_store.reset(); }
    void TearDown() override {
        m_source.reset();
        m_store.reset();
    }

    void start(std::vector<std::string> const& upses) {
        SourceConfig config;
        for (auto const& ups : upses) {
            config.upses.push_back(parseEndpoint(ups + "@127.0.0.1:1"));
        }
        config.interval = 10ms;
        m_source =
            std::make_unique<Source>(config, m_store, m_log, [this](Endpoint const& endpoint) {
                return std::make_unique<FakeFetcher>(m_upsd, endpoint.ups);
            });
        m_source->start(DataSource::Clock::now());
    }

    /* Runs the loop's side, bounded, until the condition holds. */
    template <typename Condition>
    bool loopUntil(Condition condition) {
        for (int i = 0; i < 200 && !condition(); ++i) {
            pollfd fd{m_source->wakeDescriptor(), POLLIN, 0};
            ::poll(&fd, 1, 10);
            m_source->update(DataSource::Clock::now());
        }
        return condition();
    }

    kq::CValue value(cdshost::Id device, std::string const& channel) const {
        return m_store.channelValue(m_store.channelId(device, channel));
    }

    cdshost::Store& m_store = cdshost::Store::instance();
    std::ostringstream m_logText;
    Log m_log{m_logText};
    FakeUpsd m_upsd;
    std::unique_ptr<Source> m_source;
};

TEST_F(NutSourceTest, FreshDataBuildsTheUpsAsDevice2) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}, {"ups.status", "OL"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    EXPECT_EQ(value(kFirstUpsDevice, "battery.charge"), kq::CValue(97));
}

TEST_F(NutSourceTest, OutletsBeyondTheLastAreSaidOnceInTheLog) {
    Variables variables{{"ups.status", "OL"}, {"outlet.1.status", "on"}};
    for (unsigned int outlet = 1000; outlet < 1007; ++outlet) {
        variables["outlet." + std::to_string(outlet) + ".status"] = "on";
    }
    m_upsd.set("ups", fresh(variables));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    variables["battery.charge"] = "97";
    m_upsd.set("ups", fresh(variables));
    ASSERT_TRUE(
        loopUntil([&] { return m_store.channelId(kFirstUpsDevice, "battery.charge") != 0; }));
    std::string const said = "outlets 1000, 1001, 1002, 1003, 1004 and 2 more left out";
    std::string const log = m_logText.str();
    auto const first = log.find(said);
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find(said, first + 1), std::string::npos) << "said once\n" << log;
    EXPECT_EQ(m_store.subDevices(kFirstUpsDevice).size(), 1u);
}

TEST_F(NutSourceTest, ChangesReachTheStoreOnTheLoopsThread) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    m_upsd.set("ups", fresh({{"battery.charge", "96"}}));
    EXPECT_TRUE(
        loopUntil([&] { return value(kFirstUpsDevice, "battery.charge") == kq::CValue(96); }));
}

TEST_F(NutSourceTest, StaleDataRemovesTheDeviceUntilFreshDataReturns) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    m_upsd.set("ups", failed(Reading::State::Stale, "DATA-STALE"));
    ASSERT_TRUE(loopUntil([&] { return !m_store.hasDevice(kFirstUpsDevice); }));
    EXPECT_NE(m_logText.str().find("stale: DATA-STALE"), std::string::npos) << m_logText.str();
    m_upsd.set("ups", fresh({{"battery.charge", "95"}}));
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    EXPECT_EQ(value(kFirstUpsDevice, "battery.charge"), kq::CValue(95));
}

TEST_F(NutSourceTest, AnUnreachableUpsdOrAnUnknownUpsRemovesTheDevice) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    m_upsd.set("ups", failed(Reading::State::Unreachable, "Connection refused"));
    ASSERT_TRUE(loopUntil([&] { return !m_store.hasDevice(kFirstUpsDevice); }));
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    m_upsd.set("ups", failed(Reading::State::Unknown, "UNKNOWN-UPS"));
    EXPECT_TRUE(loopUntil([&] { return !m_store.hasDevice(kFirstUpsDevice); }));
}

TEST_F(NutSourceTest, AUpsThatComesAndGoesWithoutPauseTakesTenLogLinesAMinuteAtMost) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    for (int round = 0; round < 15; ++round) {
        m_upsd.set("ups", failed(Reading::State::Unreachable, "Server disconnected"));
        ASSERT_TRUE(loopUntil([&] { return !m_store.hasDevice(kFirstUpsDevice); }));
        m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
        ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    }
    std::istringstream lines(m_logText.str());
    std::size_t changes = 0;
    for (std::string line; std::getline(lines, line);) {
        bool const change = line.find(" fresh (") != std::string::npos ||
                            line.find(" upsd unreachable: ") != std::string::npos;
        changes += change ? 1 : 0;
    }
    EXPECT_EQ(changes, Log::kBurstPerMinute) << m_logText.str();
}

TEST_F(NutSourceTest, EachUpsHasADeviceOfItsOwn) {
    m_upsd.set("first", fresh({{"battery.charge", "97"}}));
    m_upsd.set("second", fresh({{"battery.charge", "12"}}));
    start({"first", "second"});
    ASSERT_TRUE(loopUntil([&] {
        return m_store.hasDevice(kFirstUpsDevice) && m_store.hasDevice(kFirstUpsDevice + 1);
    }));
    EXPECT_EQ(value(kFirstUpsDevice, "battery.charge"), kq::CValue(97));
    EXPECT_EQ(value(kFirstUpsDevice + 1, "battery.charge"), kq::CValue(12));
}

TEST_F(NutSourceTest, AStoreChangedBehindItsBackIsRebuilt) {
    m_upsd.set("ups", fresh({{"battery.charge", "97"}}));
    start({"ups"});
    ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    m_store.removeChannel(m_store.channelId(kFirstUpsDevice, "battery.charge"));
    m_upsd.set("ups", fresh({{"battery.charge", "96"}}));
    ASSERT_TRUE(loopUntil([&] {
        return m_store.channelId(kFirstUpsDevice, "battery.charge") != 0 &&
               value(kFirstUpsDevice, "battery.charge") == kq::CValue(96);
    }));
    EXPECT_NE(m_logText.str().find("rebuilding its device"), std::string::npos);
}

TEST(NutEndpoint, ParsesUpscStyleNames) {
    auto const full = parseEndpoint("ups1@10.0.0.5:3494");
    EXPECT_EQ(full.ups, "ups1");
    EXPECT_EQ(full.host, "10.0.0.5");
    EXPECT_EQ(full.port, 3494);
    auto const bare = parseEndpoint("ups2");
    EXPECT_EQ(bare.host, "localhost");
    EXPECT_EQ(bare.port, 3493);
    EXPECT_THROW(parseEndpoint("@host"), std::invalid_argument);
    EXPECT_THROW(parseEndpoint("ups@host:99999"), std::invalid_argument);
    EXPECT_THROW(parseEndpoint("ups@host:x"), std::invalid_argument);
}

TEST(NutSourceMaps, AFurtherUpsGetsTheMapMovedOntoItsDevice) {
    RegisterMapDefinition map;
    EntryDefinition entry;
    SourceDefinition onFirst;
    onFirst.device.id = kFirstUpsDevice;
    SourceDefinition byName;
    byName.device.name = "Card";
    SourceDefinition elsewhere;
    elsewhere.device.id = 1;
    entry.sources = {onFirst, byName, elsewhere};
    map.entries.push_back(entry);
    auto const moved = mapForUps(map, 2);
    EXPECT_EQ(moved.entries[0].sources[0].device.id, kFirstUpsDevice + 2);
    EXPECT_FALSE(moved.entries[0].sources[1].device.id);
    EXPECT_EQ(moved.entries[0].sources[2].device.id, 1u);
}

TEST(NutSourceMaps, AFurtherUpsIsIdentifiedByItsOwnDevice) {
    RegisterMapDefinition map;
    IdentificationObjectDefinition vendor;
    vendor.id = 0x00;
    vendor.text = "Tarsel";
    IdentificationObjectDefinition model;
    model.id = 0x05;
    model.source = SourceDefinition{};
    model.source->device.id = kFirstUpsDevice;
    map.identification = {vendor, model};
    auto const moved = mapForUps(map, 2);
    ASSERT_EQ(moved.identification.size(), 2u);
    EXPECT_FALSE(moved.identification[0].source);
    EXPECT_EQ(moved.identification[0].text, "Tarsel");
    ASSERT_TRUE(moved.identification[1].source);
    EXPECT_EQ(moved.identification[1].source->device.id, kFirstUpsDevice + 2);
}

/* Takes every command and answers what the test set; keeps the lines. */
struct FakeCommands {
    std::mutex mutex;
    std::vector<std::string> lines;
    CommandResult result{CommandResult::Status::Done, "SUCCESS", true};

    std::vector<std::string> sent() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
};

class FakeCommander : public Commander {
  public:
    explicit FakeCommander(FakeCommands& commands) : m_commands(commands) {}
    CommandResult run(Command const& command) override {
        std::lock_guard<std::mutex> lock(m_commands.mutex);
        m_commands.lines.push_back(command.line());
        return m_commands.result;
    }

  private:
    FakeCommands& m_commands;
};

/* One entry of a map, as the request handler hands it over. */
ServedEntry entryOf(std::string const& json) {
    return ServedEntry(parseRegisterMap(R"({"entries": [)" + json + "]}").entries.front());
}

class NutWritesSourceTest : public NutSourceTest {
  protected:
    void startWritable(std::vector<std::string> const& upses) {
        SourceConfig config;
        for (auto const& ups : upses) {
            config.upses.push_back(parseEndpoint(ups + "@127.0.0.1:1"));
        }
        config.interval = 10ms;
        m_source = std::make_unique<Source>(
            config, m_store, m_log,
            [this](Endpoint const& endpoint) {
                return std::make_unique<FakeFetcher>(m_upsd, endpoint.ups);
            },
            [this](Endpoint const&) { return std::make_unique<FakeCommander>(m_commands); });
        m_source->start(DataSource::Clock::now());
        ASSERT_TRUE(loopUntil([&] { return m_store.hasDevice(kFirstUpsDevice); }));
    }

    /* Starts a write and runs the loop until its outcome comes back. */
    std::optional<RemoteOutcome> write(ServedEntry const& entry,
                                       std::vector<std::uint16_t> const& words) {
        std::optional<RemoteOutcome> outcome;
        auto const known = m_source->start(entry, words, "127.0.0.1:5020",
                                           [&](RemoteOutcome const& done) { outcome = done; });
        if (known) {
            return known;
        }
        loopUntil([&] { return outcome.has_value(); });
        return outcome;
    }

    FakeCommands m_commands;
};

Reading freshWithCommands(Variables variables, std::vector<std::string> commands) {
    Reading reading = fresh(std::move(variables));
    reading.commands = std::move(commands);
    return reading;
}

TEST_F(NutWritesSourceTest, ASettingBecomesSetVarWithTheValueTheEncoderWouldStore) {
    m_upsd.set("ups", fresh({{"input.transfer.high", "264"}, {"battery.voltage", "27.3"}}));
    startWritable({"ups"});
    auto const outcome = write(entryOf(R"({"name": "high", "table": "holding-registers",
        "address": 0, "encoder": "uint16", "source": {"device": 2, "channel": "input.transfer.high"}})"),
                               {270});
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->exception, 0);
    EXPECT_EQ(outcome->text,
              "done (SET VAR input.transfer.high \"270\": upsd tracked it to SUCCESS)");
    // A scaled register: 281 tenths of a volt.
    write(entryOf(R"({"name": "v", "table": "holding-registers", "address": 1,
        "encoder": "float16", "multiplier": 10, "source": {"device": 2, "channel": "battery.voltage"}})"),
          {281});
    EXPECT_EQ(m_commands.sent(),
              (std::vector<std::string>{"SET VAR ups input.transfer.high \"270\"",
                                        "SET VAR ups battery.voltage \"28.1\""}));
    EXPECT_EQ(value(kFirstUpsDevice, "input.transfer.high"), kq::CValue(264))
        << "the store waits for upsd's next answer";
}

TEST_F(NutWritesSourceTest, CommandsUpsdOffersAreChannelsAndACoilWrittenOnRunsOne) {
    m_upsd.set("ups", freshWithCommands({{"ups.status", "OL"}}, {"beeper.disable"}));
    startWritable({"ups"});
    EXPECT_EQ(value(kFirstUpsDevice, "instcmd.beeper.disable"), kq::CValue(0));
    ServedEntry const coil = entryOf(R"({"name": "b", "table": "coils", "address": 0,
        "encoder": "boolean", "source": {"device": 2, "channel": "instcmd.beeper.disable"}})");
    ASSERT_TRUE(m_source->owns(coil));
    auto const off = write(coil, {0});
    ASSERT_TRUE(off);
    EXPECT_EQ(off->exception, 0);
    EXPECT_EQ(off->text, "nothing to do (a command coil written OFF)");
    EXPECT_TRUE(m_commands.sent().empty());
    write(coil, {1});
    EXPECT_EQ(m_commands.sent(), std::vector<std::string>{"INSTCMD ups beeper.disable"});
}

TEST_F(NutWritesSourceTest, WhatUpsdRefusesComesBackWithTheTablesCode) {
    m_upsd.set("ups", fresh({{"ups.delay.shutdown", "20"}}));
    startWritable({"ups"});
    m_commands.result = {CommandResult::Status::Refused, "ACCESS-DENIED", false};
    auto const outcome = write(entryOf(R"({"name": "d", "table": "holding-registers",
        "address": 0, "encoder": "uint16", "source": {"device": 2, "channel": "ups.delay.shutdown"}})"),
                               {30});
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->exception, 0x01);
}

TEST_F(NutWritesSourceTest, DerivedChannelsOtherDevicesAndCompositesAreNotTheUpsdsToWrite) {
    m_upsd.set("ups", fresh({{"ups.status", "OL"}}));
    startWritable({"ups"});
    EXPECT_FALSE(m_source->owns(entryOf(R"({"name": "ol", "table": "coils", "address": 0,
        "encoder": "boolean", "source": {"device": 2, "channel": "ups.status.OL"}})")));
    EXPECT_FALSE(m_source->owns(entryOf(R"({"name": "s", "table": "holding-registers",
        "address": 0, "encoder": "uint16",
        "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}})")));
    EXPECT_FALSE(m_source->owns(entryOf(R"({"name": "x", "table": "holding-registers",
        "address": 0, "encoder": "uint16", "source": {"device": 9, "channel": "ups.load"}})")));
    EXPECT_TRUE(m_source->owns(entryOf(R"({"name": "loc", "table": "holding-registers",
        "address": 0, "encoder": "string", "size": 4,
        "source": {"device": "ups", "attribute": "location"}})")));
}

TEST_F(NutWritesSourceTest, AStringWithANewlineIsNeverSent) {
    m_upsd.set("ups", fresh({{"device.location", "here"}}));
    startWritable({"ups"});
    auto const outcome = write(entryOf(R"({"name": "loc", "table": "holding-registers",
        "address": 0, "encoder": "string", "size": 2, "source": {"device": 2, "channel": "device.location"}})"),
                               {0x410A, 0x4200});
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->exception, 0x03);
    EXPECT_TRUE(m_commands.sent().empty());
}

TEST_F(NutSourceTest, WithoutCredentialsNoWriteIsTaken) {
    m_upsd.set("ups", fresh({{"ups.delay.shutdown", "20"}}));
    start({"ups"});
    EXPECT_FALSE(m_source->writable());
    EXPECT_FALSE(m_source->owns(entryOf(R"({"name": "d", "table": "holding-registers",
        "address": 0, "encoder": "uint16", "source": {"device": 2, "channel": "ups.delay.shutdown"}})")));
}

}  // namespace
}  // namespace tarsel::daemon::nut
