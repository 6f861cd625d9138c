// Device-attribute entries stay served: after a change notification of their
// device the library reports them as not existing (its rule, kept), and the
// daemon rebuilds them while the device is still there: the loop
// rate-limited, a read or a write that reaches one first at once.
#include <gtest/gtest.h>

#include <chrono>

#include "DaemonTestSupport.h"
#include "EventLoop.h"
#include "ModbusServer.h"
#include "SignalPipe.h"

namespace tarsel::daemon {
namespace {

using testing::request;
using testing::TestDaemon;
using Clock = AttributeRefresh::Clock;

char const* const kMap = R"({"entries": [
  {"name": "maker", "table": "input-registers", "address": 0, "encoder": "string", "size": 4,
   "source": {"device": 2, "attribute": "manufacturer"}},
  {"name": "model", "table": "input-registers", "address": 4, "encoder": "string", "size": 4,
   "source": {"device": "UPS", "attribute": "model"}},
  {"name": "power", "table": "input-registers", "address": 8, "encoder": "uint32",
   "source": {"device": 2, "attribute": "nominal-power"}},
  {"name": "location", "table": "holding-registers", "address": 0, "encoder": "string",
   "size": 4, "source": {"device": 2, "attribute": "location"}},
  {"name": "t", "table": "holding-registers", "address": 10, "encoder": "int16",
   "source": {"device": 2, "channel": "T"}}
]})";

char const* const kUps = R"({"devices": [{"id": 2, "name": "UPS",
  "attributes": {"manufacturer": "Maker", "model": "RT", "nominal-power": "3000",
                 "location": "Lab"},
  "channels": {"PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})";

std::vector<std::uint16_t> const kMaker = {0x4D61, 0x6B65, 0x7200, 0};  // "Maker"
std::vector<std::uint16_t> const kSentinel4 = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};

std::vector<std::uint16_t> readInputs(TestDaemon& daemon, std::uint16_t address,
                                      std::uint16_t quantity) {
    Answer const answer = daemon.ask(request(4, address, quantity));
    EXPECT_EQ(answer.exception, 0);
    return answer.registers;
}

/* A map of `count` one-register entries over the UPS's model, from input
 * register 0 on: more than the refresh rebuilds in one call. */
std::string modelEntries(int count) {
    std::string entries;
    for (int i = 0; i < count; ++i) {
        entries +=
            std::string(i > 0 ? "," : "") + R"({"table": "input-registers", "address": )" +
            std::to_string(i) +
            R"(, "encoder": "string", "size": 1, "source": {"device": 2, "attribute": "model"}})";
    }
    return R"({"entries": [)" + entries + "]}";
}

void setAttribute(cdsapi::DeviceAttribute attribute, std::string const& value) {
    cdshost::Store::instance().setDeviceAttribute(2, attribute, value);
}

ServedEntry const& entryNamed(TestDaemon& daemon, std::string const& name) {
    for (auto const& entry : daemon.core().map().entries()) {
        if (entry->definition.name == name) {
            return *entry;
        }
    }
    throw std::invalid_argument("no entry " + name);
}

TEST(AttributeRefreshTest, TheLibraryStillStopsServingAttributesAfterADeviceChange) {
    TestDaemon daemon(kMap, kUps);
    ServedEntry const& maker = entryNamed(daemon, "maker");
    ASSERT_TRUE(maker.encoder.registers->isDataAvailable());
    setAttribute(cdsapi::AttributeLocation, "Hall");
    // Its rule: the same device found again counts as not existing.
    EXPECT_FALSE(maker.encoder.registers->isDataAvailable());
    EXPECT_TRUE(AttributeRefresh::stale(maker));
}

TEST(AttributeRefreshTest, AChangedAttributeReadsItsNewValueAfterTheRefresh) {
    TestDaemon daemon(kMap, kUps);
    setAttribute(cdsapi::AttributeManufacturer, "New");
    EXPECT_EQ(daemon.core().refreshAttributeEntries(Clock::now()), 4u);
    EXPECT_EQ(readInputs(daemon, 0, 4), (std::vector<std::uint16_t>{0x4E65, 0x7700, 0, 0}));
    EXPECT_EQ(readInputs(daemon, 4, 4), (std::vector<std::uint16_t>{0x5254, 0, 0, 0}));  // "RT"
    EXPECT_EQ(readInputs(daemon, 8, 2), (std::vector<std::uint16_t>{0, 3000}));
    EXPECT_NE(daemon.logText().find("entries[0] \"maker\" rebuilt after a change of its device"),
              std::string::npos)
        << daemon.logText();
}

TEST(AttributeRefreshTest, AReadRightAfterADeviceChangeAnswersTheNewValue) {
    TestDaemon daemon(kMap, kUps);
    setAttribute(cdsapi::AttributeManufacturer, "New");
    // Before the loop's next refresh: the read builds the entry again.
    EXPECT_EQ(readInputs(daemon, 0, 10),
              (std::vector<std::uint16_t>{0x4E65, 0x7700, 0, 0, 0x5254, 0, 0, 0, 0, 3000}));
    EXPECT_NE(daemon.logText().find("entries[0] \"maker\" rebuilt after a change of its device"),
              std::string::npos)
        << daemon.logText();
}

TEST(AttributeRefreshTest, AClientReadsBackTheAttributeItHasJustWritten) {
    TestDaemon daemon(kMap, kUps);
    ASSERT_EQ(daemon.ask(testing::writeRegisters(0, {0x4861, 0x6C6C, 0, 0})).exception, 0);
    EXPECT_EQ(daemon.ask(request(3, 0, 4)).registers,
              (std::vector<std::uint16_t>{0x4861, 0x6C6C, 0, 0}));  // "Hall"
    EXPECT_EQ(readInputs(daemon, 0, 4), kMaker);
}

TEST(AttributeRefreshTest, AnEntryRebuiltByAReadIsNotRebuiltAgainByTheLoop) {
    TestDaemon daemon(kMap, kUps);
    setAttribute(cdsapi::AttributeLocation, "Hall");
    ASSERT_EQ(readInputs(daemon, 0, 4), kMaker);
    EXPECT_FALSE(AttributeRefresh::stale(entryNamed(daemon, "maker")));
    EXPECT_EQ(daemon.core().refreshAttributeEntries(Clock::now()), 3u);
}

TEST(AttributeRefreshTest, AReadOfAnEntryThatCannotBeRebuiltAnswersUnavailable) {
    // The device's only attribute entry: rebuilding it closes the device's
    // subscriptions and opens them again, which is where the fault strikes.
    TestDaemon daemon(R"({"entries": [
      {"name": "maker", "table": "input-registers", "address": 0, "encoder": "string",
       "size": 4, "source": {"device": 2, "attribute": "manufacturer"}}]})",
                      kUps);
    setAttribute(cdsapi::AttributeLocation, "Hall");
    auto& store = cdshost::Store::instance();
    store.failAlways("subscribeDevice");
    EXPECT_EQ(readInputs(daemon, 0, 4), kSentinel4);
    store.clearFaults();
    EXPECT_EQ(daemon.core().buildPendingEntries(), 1u);
    EXPECT_EQ(readInputs(daemon, 0, 4), kMaker);
}

TEST(AttributeRefreshTest, AWriteOfAnAttributeByAClientIsServedAgainAfterTheRefresh) {
    TestDaemon daemon(kMap, kUps);
    ASSERT_EQ(daemon.ask(testing::writeRegisters(0, {0x4861, 0x6C6C, 0, 0})).exception, 0);
    EXPECT_EQ(cdshost::Store::instance().deviceAttribute(2, cdsapi::AttributeLocation), "Hall");
    daemon.core().refreshAttributeEntries(Clock::now());
    EXPECT_EQ(daemon.ask(request(3, 0, 4)).registers,
              (std::vector<std::uint16_t>{0x4861, 0x6C6C, 0, 0}));
}

TEST(AttributeRefreshTest, OneWriteOfTwoAttributesOfADeviceStoresBoth) {
    std::string map = kMap;
    std::string const last = R"(  {"name": "t", "table")";
    map.insert(map.find(last),
               R"(  {"name": "contact", "table": "holding-registers", "address": 4,
   "encoder": "string", "size": 4, "source": {"device": 2, "attribute": "contact"}},
)");
    TestDaemon daemon(map, kUps);
    // "Hall" then "Ann": the first attribute written changes the device,
    // which the second entry's data accessor sees before its own part.
    ASSERT_EQ(daemon.ask(testing::writeRegisters(0, {0x4861, 0x6C6C, 0, 0, 0x416E, 0x6E00, 0, 0}))
                  .exception,
              0);
    auto& store = cdshost::Store::instance();
    EXPECT_EQ(store.deviceAttribute(2, cdsapi::AttributeLocation), "Hall");
    EXPECT_EQ(store.deviceAttribute(2, cdsapi::AttributeContact), "Ann");
    daemon.core().refreshAttributeEntries(Clock::now());
    EXPECT_EQ(daemon.ask(request(3, 0, 8)).registers,
              (std::vector<std::uint16_t>{0x4861, 0x6C6C, 0, 0, 0x416E, 0x6E00, 0, 0}));
}

TEST(AttributeRefreshTest, AnAttributeWrittenRightAfterAnotherOfItsDeviceIsStored) {
    TestDaemon daemon(kMap, kUps);
    setAttribute(cdsapi::AttributeManufacturer, "New");
    // Before the loop's next refresh: the write is not refused as unavailable.
    ASSERT_EQ(daemon.ask(testing::writeRegisters(0, {0x4861, 0x6C6C, 0, 0})).exception, 0);
    EXPECT_EQ(cdshost::Store::instance().deviceAttribute(2, cdsapi::AttributeLocation), "Hall");
}

TEST(AttributeRefreshTest, AnEntryThatCannotBeRebuiltCountsAsPendingUntilItIsBuilt) {
    // One attribute entry: rebuilding it closes the device's subscriptions
    // and opens them again, which is where the fault below strikes.
    TestDaemon daemon(R"({"entries": [
      {"name": "maker", "table": "input-registers", "address": 0, "encoder": "string",
       "size": 4, "source": {"device": 2, "attribute": "manufacturer"}}]})",
                      kUps);
    ASSERT_EQ(daemon.core().map().pendingCount(), 0u);
    setAttribute(cdsapi::AttributeLocation, "Hall");
    auto& store = cdshost::Store::instance();
    store.failAlways("subscribeDevice");
    daemon.core().refreshAttributeEntries(Clock::now());
    EXPECT_EQ(daemon.core().map().pendingCount(), 1u) << daemon.logText();
    EXPECT_TRUE(daemon.core().hasPendingEntries());
    store.clearFaults();
    EXPECT_EQ(daemon.core().buildPendingEntries(), 1u);
    EXPECT_EQ(daemon.core().map().pendingCount(), 0u);
    EXPECT_FALSE(daemon.core().hasPendingEntries());
    EXPECT_EQ(readInputs(daemon, 0, 4), kMaker);
}

TEST(AttributeRefreshTest, RebuildingLeavesNoSubscriptionBehind) {
    TestDaemon daemon(kMap, kUps);
    auto& store = cdshost::Store::instance();
    std::size_t const before = store.subscriptionCount();
    auto now = Clock::now();
    for (int i = 0; i < 5; ++i) {
        setAttribute(cdsapi::AttributeLocation, "L" + std::to_string(i));
        now += std::chrono::seconds(1);
        ASSERT_EQ(daemon.core().refreshAttributeEntries(now), 4u);
    }
    EXPECT_EQ(store.subscriptionCount(), before);
    daemon.stop();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST(AttributeRefreshTest, AnEntryIsRebuiltAtMostOncePerIntervalAndTheLoopIsToldWhen) {
    TestDaemon daemon(kMap, kUps);
    DaemonCore& core = daemon.core();
    EXPECT_FALSE(core.attributeRefreshDue());  // nothing stale
    Clock::time_point const start = Clock::now();
    setAttribute(cdsapi::AttributeManufacturer, "A");
    ASSERT_TRUE(core.attributeRefreshDue());
    EXPECT_LE(*core.attributeRefreshDue(), start);  // due at once
    ASSERT_EQ(core.refreshAttributeEntries(start), 4u);
    setAttribute(cdsapi::AttributeManufacturer, "B");
    EXPECT_EQ(core.refreshAttributeEntries(start + std::chrono::milliseconds(100)), 0u);
    ASSERT_TRUE(core.attributeRefreshDue());
    EXPECT_EQ(*core.attributeRefreshDue(), start + AttributeRefresh::kMinInterval);
    EXPECT_EQ(core.refreshAttributeEntries(start + AttributeRefresh::kMinInterval), 4u);
    EXPECT_EQ(readInputs(daemon, 0, 4), (std::vector<std::uint16_t>{0x4200, 0, 0, 0}));
    EXPECT_FALSE(core.attributeRefreshDue());
}

TEST(AttributeRefreshTest, AnEntryWhoseDeviceIsGoneIsNotRebuilt) {
    TestDaemon daemon(kMap, kUps);
    auto& store = cdshost::Store::instance();
    store.removeDevice(2);
    std::size_t const subscriptions = store.subscriptionCount();
    EXPECT_EQ(daemon.core().refreshAttributeEntries(Clock::now()), 0u);
    EXPECT_EQ(store.subscriptionCount(), subscriptions);
    EXPECT_EQ(readInputs(daemon, 0, 4), kSentinel4);
}

TEST(AttributeRefreshTest, ReadsOfAnEntryWhoseDeviceIsGoneDoNotAskTheDataStoreEachTime) {
    TestDaemon daemon(kMap, kUps);
    auto& store = cdshost::Store::instance();
    store.removeDevice(2);
    ASSERT_EQ(readInputs(daemon, 0, 4), kSentinel4);  // finds the device gone
    store.resetCalls();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(readInputs(daemon, 0, 4), kSentinel4);
    }
    EXPECT_TRUE(store.callsByOperation().empty());
}

TEST(AttributeRefreshTest, ARequestLooksUpADeviceAgainOnceItIsBackAndChanges) {
    TestDaemon daemon(kMap, kUps);
    auto& store = cdshost::Store::instance();
    store.removeDevice(2);
    ASSERT_EQ(readInputs(daemon, 0, 4), kSentinel4);  // finds the device gone
    store.addDevice("UPS", 2);
    store.setDeviceAttribute(2, cdsapi::AttributeManufacturer, "Maker", false);
    daemon.core().refreshAttributeEntries(Clock::now());  // the loop's pass
    ASSERT_EQ(readInputs(daemon, 0, 4), kMaker);
    setAttribute(cdsapi::AttributeManufacturer, "New");
    EXPECT_EQ(readInputs(daemon, 0, 4), (std::vector<std::uint16_t>{0x4E65, 0x7700, 0, 0}));
}

TEST(AttributeRefreshTest, EntriesWithoutAnAttributeAreNeverRebuilt) {
    TestDaemon daemon(kMap, kUps);
    setAttribute(cdsapi::AttributeLocation, "Hall");
    daemon.core().refreshAttributeEntries(Clock::now());
    EXPECT_EQ(daemon.logText().find("\"t\" rebuilt"), std::string::npos);
    EXPECT_EQ(daemon.ask(request(3, 10, 1)).registers, (std::vector<std::uint16_t>{5}));
}

TEST(AttributeRefreshTest, RebuildsPerCallAreBounded) {
    TestDaemon daemon(modelEntries(12), kUps);
    setAttribute(cdsapi::AttributeLocation, "Hall");
    Clock::time_point const now = Clock::now();
    EXPECT_EQ(daemon.core().refreshAttributeEntries(now), AttributeRefresh::kMaxPerRun);
    EXPECT_LE(*daemon.core().attributeRefreshDue(), now);  // the rest on the next pass
    EXPECT_EQ(daemon.core().refreshAttributeEntries(now), 12u - AttributeRefresh::kMaxPerRun);
    EXPECT_EQ(daemon.ask(request(4, 0, 12)).registers, std::vector<std::uint16_t>(12, 0x5254));
}

TEST(AttributeRefreshTest, WhatARunFindsDueIsWhatDueAnswersRightAfterIt) {
    TestDaemon daemon(modelEntries(12), kUps);
    DaemonCore& core = daemon.core();
    auto const sameAsDue = [&core] {
        return core.attributeRefreshDueAfterLastRun() == core.attributeRefreshDue();
    };
    EXPECT_TRUE(sameAsDue());  // before any run: asked of the entries
    Clock::time_point const start = Clock::now();
    core.refreshAttributeEntries(start);
    EXPECT_FALSE(core.attributeRefreshDueAfterLastRun());  // nothing stale
    setAttribute(cdsapi::AttributeLocation, "Hall");
    ASSERT_EQ(core.refreshAttributeEntries(start), AttributeRefresh::kMaxPerRun);
    ASSERT_TRUE(core.attributeRefreshDueAfterLastRun());  // the rest, at once
    EXPECT_TRUE(sameAsDue());
    ASSERT_EQ(core.refreshAttributeEntries(start), 12u - AttributeRefresh::kMaxPerRun);
    EXPECT_FALSE(core.attributeRefreshDueAfterLastRun());
    EXPECT_TRUE(sameAsDue());
    setAttribute(cdsapi::AttributeLocation, "Roof");  // too soon to rebuild again
    ASSERT_EQ(core.refreshAttributeEntries(start + std::chrono::milliseconds(100)), 0u);
    ASSERT_TRUE(core.attributeRefreshDueAfterLastRun());
    EXPECT_EQ(*core.attributeRefreshDueAfterLastRun(), start + AttributeRefresh::kMinInterval);
    EXPECT_TRUE(sameAsDue());
    cdshost::Store::instance().removeDevice(2);  // stale, and nothing to rebuild it from
    ASSERT_EQ(core.refreshAttributeEntries(start + AttributeRefresh::kMinInterval), 0u);
    ASSERT_TRUE(core.attributeRefreshDueAfterLastRun());
    EXPECT_TRUE(sameAsDue());
}

TEST(AttributeRefreshTest, TheEventLoopServesAnAttributeChangedByTheScenarioWithinASecond) {
    std::string scenario = kUps;
    scenario.replace(scenario.rfind('}'), 1,
                     R"(, "events": [{"at": 0.1, "do": "set-attribute", "device": 2,
                        "attribute": "manufacturer", "value": "Later"}]})");
    TestDaemon daemon(kMap, scenario);
    SignalPipe signals;
    ModbusServer server({"127.0.0.1", 0, AccessRules{}, nullptr}, ClientLimits{},
                        daemon.core().handler(), daemon.log());
    // The event at 0.1 s, then less than a second of loop.
    ASSERT_EQ(runEventLoop(daemon.core(), {&server}, signals, daemon.log(), 1.0), 0);
    EXPECT_EQ(readInputs(daemon, 0, 4), (std::vector<std::uint16_t>{0x4C61, 0x7465, 0x7200, 0}));
    EXPECT_EQ(readInputs(daemon, 8, 2), (std::vector<std::uint16_t>{0, 3000}));
}

}  // namespace
}  // namespace tarsel::daemon
