// The host data-store client (cdsapi::CdsAccessor and cdsapi::InBandAccessor):
// what each operation answers, which ones throw, how each is counted and made
// to fail, and that its setters change the world and notify as the store does.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "cdsapi/cds_accessor.h"
#include "cdshost/store.h"
#include "kq/model.h"
#include "kq/value.h"

namespace {

using cdshost::Id;
using cdshost::kAllOnes;
using cdshost::Store;

/* A world of one UPS (id 2) with two sub-devices, channels on the UPS, and a
 * client connected as "modbus". */
class CdsapiClientTest : public ::testing::Test {
  protected:
    Store& store = Store::instance();
    Id const ups = store.addDevice("UPS", 2);
    Id const subA = store.addDevice("Outlet A", 0, ups);
    Id const subB = store.addDevice("Outlet B", 0, ups);
    Id const voltage = store.addChannel(ups, "Input.Voltage", kq::CValue(230.5f));
    Id const status =
        store.addChannel(ups, "PowerDistribution.Status.OperatingStatus", kq::CValue(16u));
    cdsapi::CdsAccessor client{"modbus", true};
    cdsapi::InBandAccessor& inBand = client.getInBandAccessor();

    /* Subscribes to every channel and device notification kind of an id and
     * returns the log of what arrived, as "<type>:<id>". */
    std::vector<std::string> log;
    void watchEverything(Id channel, Id device) {
        Id unused = 0;
        for (auto type : {kq::sub::ChannelValue, kq::sub::ChannelState, kq::sub::ChannelSettings}) {
            inBand.subscribeChannel(
                channel,
                [this, type](Id id, kq::CValue) {
                    log.push_back(std::to_string(type) + ":" + std::to_string(id));
                },
                type, &unused);
        }
        for (auto type : {kq::sub::DeviceChanged, kq::sub::DeviceCreated}) {
            inBand.subscribeDevice(
                device,
                [this, type](Id id) {
                    log.push_back(std::to_string(type) + ":" + std::to_string(id));
                },
                type, false, &unused);
        }
        inBand.subscribeDeviceAlarms(
            channel,
            [this](kq::CAlarmUpdate const& u) {
                log.push_back("alarm:" + std::to_string(u.channelId));
            },
            &unused);
    }
};

// ---- Connection -----------------------------------------------------------------------

TEST_F(CdsapiClientTest, ConstructionCountsAConnectionUnderItsClientName) {
    EXPECT_EQ(store.connections("modbus"), 1u);
    cdsapi::CdsAccessor other("modbusd", true);
    EXPECT_EQ(store.connections("modbusd"), 1u);
    EXPECT_EQ(store.connections("modbus"), 1u);
    EXPECT_EQ(inBand.clientName(), "modbus");
    EXPECT_EQ(other.getInBandAccessor().clientName(), "modbusd");
}

TEST_F(CdsapiClientTest, ConstructionFailsWhenFaultIsArmed) {
    store.failNext("CdsAccessor");
    EXPECT_THROW(cdsapi::CdsAccessor("modbusd", true), cdshost::InjectedFault);
    EXPECT_EQ(store.connections("modbusd"), 0u);
    EXPECT_EQ(store.calls("CdsAccessor"), 2u);  // the fixture's and the failed one
    cdsapi::CdsAccessor retry("modbusd", true);
    EXPECT_EQ(store.connections("modbusd"), 1u);
}

TEST_F(CdsapiClientTest, SubscriptionsCarryTheClientName) {
    cdsapi::CdsAccessor other("modbusd", true);
    Id subscription = 0;
    other.getInBandAccessor().subscribeDevice(
        ups, [](Id) {}, kq::sub::DeviceChanged, false, &subscription);
    ASSERT_EQ(store.subscriptions().size(), 1u);
    EXPECT_EQ(store.subscriptions()[0].clientName, "modbusd");
}

// ---- Devices ------------------------------------------------------------------------------

TEST_F(CdsapiClientTest, GetDeviceByNameFindsTheDevice) {
    EXPECT_EQ(client.getDeviceByName("UPS"), ups);
    EXPECT_EQ(client.getDeviceByName("Outlet B"), subB);
    EXPECT_EQ(store.calls("getDeviceByName"), 2u);
}

TEST_F(CdsapiClientTest, GetDeviceByNameOfUnknownNameThrowsNotFound) {
    EXPECT_THROW(client.getDeviceByName("nothing"), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetDeviceByNameWithTwoDevicesOfThatNameGivesTheFirstCreated) {
    store.addDevice("Twin", 50);
    store.addDevice("Twin", 40);
    EXPECT_EQ(client.getDeviceByName("Twin"), 50u);
}

TEST_F(CdsapiClientTest, GetDeviceByNameFindsTheNextOfThatNameOnceTheFirstIsRemoved) {
    store.addDevice("Twin", 50);
    store.addDevice("Twin", 40);
    store.removeDevice(50);
    EXPECT_EQ(client.getDeviceByName("Twin"), 40u);
    store.removeDevice(40);
    EXPECT_THROW(client.getDeviceByName("Twin"), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetDeviceByNameFollowsARenameAndKeepsCreationOrder) {
    store.addDevice("Twin", 50);
    store.renameDevice(ups, "Twin");
    EXPECT_EQ(client.getDeviceByName("Twin"), ups);  // created before device 50
    EXPECT_THROW(client.getDeviceByName("UPS"), cdshost::NotFound);
    store.renameDevice(ups, "UPS");
    EXPECT_EQ(client.getDeviceByName("Twin"), 50u);
    EXPECT_EQ(client.getDeviceByName("UPS"), ups);
}

TEST_F(CdsapiClientTest, AnswerNameOverridesTheLookUpEvenForAMissingDevice) {
    store.answerName("UPS", 99);
    store.answerName("ghost", kAllOnes);
    EXPECT_EQ(client.getDeviceByName("UPS"), 99u);
    EXPECT_EQ(client.getDeviceByName("ghost"), kAllOnes);
    EXPECT_THROW(inBand.getDevice(99), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetDeviceDescribesTheDevice) {
    kq::CDevice const device = inBand.getDevice(ups);
    EXPECT_EQ(device.id, ups);
    EXPECT_EQ(device.name, "UPS");
    EXPECT_EQ(device.parentId, 0u);
    EXPECT_EQ(device.subDeviceIds, (std::vector<Id>{subA, subB}));
    EXPECT_EQ(inBand.getDevice(subA).parentId, ups);
    EXPECT_EQ(store.calls("getDevice", ups), 1u);
    EXPECT_EQ(store.calls("getDevice", subA), 1u);
}

TEST_F(CdsapiClientTest, GetDeviceOfMissingDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.getDevice(404), cdshost::NotFound);
    EXPECT_THROW(inBand.getDevice(0), cdshost::NotFound);
    EXPECT_THROW(inBand.getDevice(kAllOnes), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetSubDevicesIdsGivesInsertionOrderForEitherSelector) {
    std::vector<Id> const expected{subA, subB};
    EXPECT_EQ(inBand.getSubDevicesIds(ups, 0), expected);
    EXPECT_EQ(inBand.getSubDevicesIds(ups, 0x7FFFFFFF), expected);
    EXPECT_TRUE(inBand.getSubDevicesIds(subA, 0).empty());
    EXPECT_EQ(store.calls("getSubDevicesIds", ups), 2u);
}

TEST_F(CdsapiClientTest, GetSubDevicesIdsNotesTheSelectorOfTheLastCallPerDevice) {
    EXPECT_EQ(store.lastSubDeviceSelector(ups), std::nullopt);
    inBand.getSubDevicesIds(ups, 0x7FFFFFFF);
    inBand.getSubDevicesIds(subA, 0);
    EXPECT_EQ(store.lastSubDeviceSelector(ups), 0x7FFFFFFFu);
    EXPECT_EQ(store.lastSubDeviceSelector(subA), 0u);
    inBand.getSubDevicesIds(ups, 0);
    EXPECT_EQ(store.lastSubDeviceSelector(ups), 0u);
    // A call that fails before the store answers notes nothing.
    store.failNext("getSubDevicesIds");
    EXPECT_THROW(inBand.getSubDevicesIds(ups, 5), cdshost::InjectedFault);
    EXPECT_EQ(store.lastSubDeviceSelector(ups), 0u);
    store.resetCalls();
    EXPECT_EQ(store.lastSubDeviceSelector(ups), std::nullopt);
}

TEST_F(CdsapiClientTest, GetSubDevicesIdsListsDirectSubDevicesOnly) {
    Id const deep = store.addDevice("Deep", 0, subA);
    EXPECT_EQ(inBand.getSubDevicesIds(ups, 0x7FFFFFFF), (std::vector<Id>{subA, subB}));
    EXPECT_EQ(inBand.getSubDevicesIds(subA, 0), (std::vector<Id>{deep}));
}

TEST_F(CdsapiClientTest, GetSubDevicesIdsOfMissingDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.getSubDevicesIds(404, 0), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetSubDevicesIdsOfNoDeviceIsEmpty) {
    EXPECT_TRUE(inBand.getSubDevicesIds(0, 0x7FFFFFFF).empty());
    EXPECT_TRUE(inBand.getSubDevicesIds(0, 0).empty());
    EXPECT_EQ(store.calls("getSubDevicesIds", 0), 2u);
    EXPECT_THROW(inBand.getDevice(0), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, RemovedSubDeviceLeavesTheListAndTheRestKeepTheirOrder) {
    Id const subC = store.addDevice("Outlet C", 0, ups);
    store.removeDevice(subA);
    EXPECT_EQ(inBand.getSubDevicesIds(ups, 0), (std::vector<Id>{subB, subC}));
}

// ---- Device attributes ---------------------------------------------------------------------

TEST_F(CdsapiClientTest, GetDeviceAttributeIsEmptyTextUntilSet) {
    EXPECT_EQ(inBand.getDeviceAttribute(ups, cdsapi::AttributeSerialNumber), "");
    store.setDeviceAttribute(ups, cdsapi::AttributeSerialNumber, "SN-1");
    EXPECT_EQ(inBand.getDeviceAttribute(ups, cdsapi::AttributeSerialNumber), "SN-1");
    EXPECT_EQ(store.calls("getDeviceAttribute", ups), 2u);
}

TEST_F(CdsapiClientTest, GetDeviceAttributeOfMissingDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.getDeviceAttribute(404, cdsapi::AttributeModel), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, SubDeviceCountAttributeIsTheCountAsDecimalText) {
    EXPECT_EQ(inBand.getDeviceAttribute(ups, cdsapi::AttributeSubDeviceCount), "2");
    EXPECT_EQ(inBand.getDeviceAttribute(subA, cdsapi::AttributeSubDeviceCount), "0");
    store.addDevice("Outlet C", 0, ups);
    EXPECT_EQ(inBand.getDeviceAttribute(ups, cdsapi::AttributeSubDeviceCount), "3");
}

TEST_F(CdsapiClientTest, SubDeviceCountAttributeSetExplicitlyWins) {
    store.setDeviceAttribute(ups, cdsapi::AttributeSubDeviceCount, "seven");
    EXPECT_EQ(inBand.getDeviceAttribute(ups, cdsapi::AttributeSubDeviceCount), "seven");
}

TEST_F(CdsapiClientTest, SetDeviceAttributeChangesTheWorldAndNotifiesDeviceChanged) {
    watchEverything(voltage, ups);
    inBand.setDeviceAttribute(ups, cdsapi::AttributeLocation, "Room 4");
    EXPECT_EQ(store.deviceAttribute(ups, cdsapi::AttributeLocation), "Room 4");
    EXPECT_EQ(log, (std::vector<std::string>{"3:2"}));
    EXPECT_EQ(store.calls("setDeviceAttribute", ups), 1u);
}

TEST_F(CdsapiClientTest, SetDeviceAttributeOfMissingDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.setDeviceAttribute(404, cdsapi::AttributeLocation, "x"), cdshost::NotFound);
}

// ---- Channel ids and channels ----------------------------------------------------------------

TEST_F(CdsapiClientTest, GetChannelIdFindsTheChannel) {
    EXPECT_EQ(inBand.getChannelId(ups, "Input.Voltage"), voltage);
    EXPECT_EQ(store.calls("getChannelId", ups), 1u);
}

TEST_F(CdsapiClientTest, GetChannelIdOfMissingChannelIsZero) {
    EXPECT_EQ(inBand.getChannelId(ups, "No.Such.Channel"), 0u);
    EXPECT_EQ(inBand.getChannelId(subA, "Input.Voltage"), 0u);
}

TEST_F(CdsapiClientTest, GetChannelIdOnMissingDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.getChannelId(404, "Input.Voltage"), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelId(kAllOnes, "Input.Voltage"), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetCatchedChannelIdFindsTheChannel) {
    EXPECT_EQ(inBand.getCatchedChannelId(2, "PowerDistribution.Status.OperatingStatus"), status);
    EXPECT_EQ(store.calls("getCatchedChannelId", 2), 1u);
}

TEST_F(CdsapiClientTest, GetCatchedChannelIdIsAllOnesForMissingChannelOrDevice) {
    EXPECT_EQ(inBand.getCatchedChannelId(ups, "No.Such.Channel"), kAllOnes);
    EXPECT_EQ(inBand.getCatchedChannelId(404, "Input.Voltage"), kAllOnes);
}

TEST_F(CdsapiClientTest, GetCatchedChannelIdFollowsTheStoreWithoutStaleEntries) {
    store.removeChannel(status);
    EXPECT_EQ(inBand.getCatchedChannelId(2, "PowerDistribution.Status.OperatingStatus"), kAllOnes);
    Id const again = store.addChannel(2, "PowerDistribution.Status.OperatingStatus");
    EXPECT_EQ(inBand.getCatchedChannelId(2, "PowerDistribution.Status.OperatingStatus"), again);
}

TEST_F(CdsapiClientTest, GetChannelDescribesTheChannelAndItsAlarm) {
    store.raiseAlarm(voltage, kq::CAlarmRecord{7, true});
    kq::CChannel const channel = inBand.getChannel(ups, "Input.Voltage");
    EXPECT_EQ(channel.id, voltage);
    EXPECT_EQ(channel.deviceId, ups);
    EXPECT_EQ(channel.name, "Input.Voltage");
    EXPECT_EQ(channel.value, kq::CValue(230.5f));
    ASSERT_TRUE(channel.hasAlarm());
    EXPECT_EQ(channel.alarm, (kq::CAlarmRecord{7, true}));
    EXPECT_FALSE(inBand.getChannel(ups, "PowerDistribution.Status.OperatingStatus").hasAlarm());
    EXPECT_EQ(store.calls("getChannel", ups), 2u);
}

TEST_F(CdsapiClientTest, GetChannelOfMissingChannelOrDeviceThrowsNotFound) {
    EXPECT_THROW(inBand.getChannel(ups, "No.Such.Channel"), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannel(404, "Input.Voltage"), cdshost::NotFound);
}

// ---- Channel values ---------------------------------------------------------------------------

TEST_F(CdsapiClientTest, GetChannelCValueReadsTheValue) {
    EXPECT_EQ(inBand.getChannelCValue(voltage), kq::CValue(230.5f));
    EXPECT_EQ(inBand.getChannelCValue(status), kq::CValue(16u));
}

TEST_F(CdsapiClientTest, GetChannelCValueOfMissingChannelThrowsNotFound) {
    EXPECT_THROW(inBand.getChannelCValue(404), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelCValue(0), cdshost::NotFound);
    store.removeChannel(voltage);
    EXPECT_THROW(inBand.getChannelCValue(voltage), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, GetChannelCValueOfChannelWithoutValueIsInvalid) {
    Id const empty = store.addChannel(ups, "Empty");
    EXPECT_FALSE(inBand.getChannelCValue(empty).isValid());
}

TEST_F(CdsapiClientTest, SetChannelCValueChangesTheWorldAndNotifiesChannelValue) {
    watchEverything(voltage, ups);
    inBand.setChannelCValue(voltage, kq::CValue(231.0f));
    EXPECT_EQ(store.channelValue(voltage), kq::CValue(231.0f));
    EXPECT_EQ(log, (std::vector<std::string>{"15:" + std::to_string(voltage)}));
    EXPECT_EQ(store.calls("setChannelCValue", voltage), 1u);
}

TEST_F(CdsapiClientTest, SetChannelCValueOfMissingChannelThrowsNotFound) {
    EXPECT_THROW(inBand.setChannelCValue(404, kq::CValue(1)), cdshost::NotFound);
}

// ---- Alarm settings ----------------------------------------------------------------------------

TEST_F(CdsapiClientTest, AlarmEnabledReadsAndWritesAndNotifiesChannelState) {
    watchEverything(voltage, ups);
    EXPECT_FALSE(inBand.getChannelAlarmEnabled(voltage));
    inBand.setChannelAlarmEnabled(voltage, true);
    EXPECT_TRUE(inBand.getChannelAlarmEnabled(voltage));
    EXPECT_TRUE(store.alarmSettings(voltage).enabled);
    EXPECT_EQ(log, (std::vector<std::string>{"5:" + std::to_string(voltage)}));
    EXPECT_EQ(store.calls("getChannelAlarmEnabled", voltage), 2u);
    EXPECT_EQ(store.calls("setChannelAlarmEnabled", voltage), 1u);
}

TEST_F(CdsapiClientTest, TriggerThresholdsReadAndWriteEachTriggerAndNotifySettings) {
    watchEverything(voltage, ups);
    inBand.setChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerLowCritical, 180.0f);
    inBand.setChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerHighCritical, 260.0f);
    EXPECT_EQ(inBand.getChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerLowCritical), 180.0f);
    EXPECT_EQ(inBand.getChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerLowWarning), 0.0f);
    EXPECT_EQ(inBand.getChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerHighCritical), 260.0f);
    EXPECT_EQ(store.alarmSettings(voltage).thresholds[3], 260.0f);
    std::string const s = "2:" + std::to_string(voltage);
    EXPECT_EQ(log, (std::vector<std::string>{s, s}));
}

TEST_F(CdsapiClientTest, TriggerThresholdFlagReadsAndWritesAndNotifiesSettings) {
    watchEverything(voltage, ups);
    inBand.setChannelAlarmTriggerThreshold(voltage, true);
    EXPECT_TRUE(inBand.getChannelAlarmTriggerThreshold(voltage));
    EXPECT_TRUE(store.alarmSettings(voltage).thresholdFlag);
    EXPECT_EQ(log, (std::vector<std::string>{"2:" + std::to_string(voltage)}));
}

TEST_F(CdsapiClientTest, BothTriggerThresholdOverloadsCountUnderOneName) {
    (void)inBand.getChannelAlarmTriggerThreshold(voltage);
    (void)inBand.getChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerHighWarning);
    inBand.setChannelAlarmTriggerThreshold(voltage, false);
    inBand.setChannelAlarmTriggerThreshold(voltage, cdsapi::TriggerHighWarning, 1.0f);
    EXPECT_EQ(store.calls("getChannelAlarmTriggerThreshold", voltage), 2u);
    EXPECT_EQ(store.calls("setChannelAlarmTriggerThreshold", voltage), 2u);
}

TEST_F(CdsapiClientTest, HysteresisReadsAndWritesAndNotifiesSettings) {
    watchEverything(voltage, ups);
    inBand.setChannelAlarmHysteresis(voltage, 2.5f);
    EXPECT_EQ(inBand.getChannelAlarmHysteresis(voltage), 2.5f);
    EXPECT_EQ(store.alarmSettings(voltage).hysteresis, 2.5f);
    EXPECT_EQ(log, (std::vector<std::string>{"2:" + std::to_string(voltage)}));
}

TEST_F(CdsapiClientTest, AlarmLevelConvertsToAndFromInt32ByValue) {
    watchEverything(voltage, ups);
    inBand.setChannelAlarmLevel(voltage, cdsapi::LevelCritical);
    EXPECT_EQ(store.alarmSettings(voltage).level, 7);
    store.setAlarmLevel(voltage, 3);
    EXPECT_EQ(inBand.getChannelAlarmLevel(voltage), cdsapi::LevelNotice);
    // A level the enumeration has no name for passes through unchanged.
    store.setAlarmLevel(voltage, 42);
    EXPECT_EQ(static_cast<std::int32_t>(inBand.getChannelAlarmLevel(voltage)), 42);
    inBand.setChannelAlarmLevel(voltage, static_cast<cdsapi::LevelAlarm>(-2));
    EXPECT_EQ(store.alarmSettings(voltage).level, -2);
    std::string const s = "2:" + std::to_string(voltage);
    EXPECT_EQ(log, (std::vector<std::string>{s, s, s, s}));
}

TEST_F(CdsapiClientTest, AlarmGettersAndSettersOfMissingChannelThrowNotFound) {
    Id const missing = 404;
    EXPECT_THROW(inBand.getChannelAlarmEnabled(missing), cdshost::NotFound);
    EXPECT_THROW(inBand.setChannelAlarmEnabled(missing, true), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelAlarmTriggerThreshold(missing, cdsapi::TriggerLowWarning),
                 cdshost::NotFound);
    EXPECT_THROW(inBand.setChannelAlarmTriggerThreshold(missing, cdsapi::TriggerLowWarning, 1.0f),
                 cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelAlarmTriggerThreshold(missing), cdshost::NotFound);
    EXPECT_THROW(inBand.setChannelAlarmTriggerThreshold(missing, true), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelAlarmHysteresis(missing), cdshost::NotFound);
    EXPECT_THROW(inBand.setChannelAlarmHysteresis(missing, 1.0f), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelAlarmLevel(missing), cdshost::NotFound);
    EXPECT_THROW(inBand.setChannelAlarmLevel(missing, cdsapi::LevelInfo), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, TriggerThresholdOfUnknownTriggerThrowsOutOfRange) {
    auto const bad = static_cast<cdsapi::TriggerId>(4);
    EXPECT_THROW(inBand.getChannelAlarmTriggerThreshold(voltage, bad), std::out_of_range);
    EXPECT_THROW(inBand.setChannelAlarmTriggerThreshold(voltage, bad, 1.0f), std::out_of_range);
}

// ---- Subscriptions
// -------------------------------------------------------------------------------

TEST_F(CdsapiClientTest, SubscriptionIdsAreNonZeroUniqueAndNeverReused) {
    std::set<Id> seen;
    for (int round = 0; round < 3; ++round) {
        Id a = 0;
        Id b = 0;
        Id c = 0;
        inBand.subscribeChannel(
            voltage, [](Id, kq::CValue) {}, kq::sub::ChannelValue, &a);
        inBand.subscribeDevice(
            ups, [](Id) {}, kq::sub::DeviceChanged, false, &b);
        inBand.subscribeDeviceAlarms(
            voltage, [](kq::CAlarmUpdate const&) {}, &c);
        for (Id id : {a, b, c}) {
            EXPECT_NE(id, 0u);
            EXPECT_TRUE(seen.insert(id).second) << "id " << id << " given twice";
            inBand.unsubscribe(id);
        }
    }
    EXPECT_EQ(seen.size(), 9u);
}

TEST_F(CdsapiClientTest, SubscribingToIdsThatDoNotExistIsAllowed) {
    Id s = 0;
    for (Id target : {Id{0}, Id{404}, kAllOnes}) {
        EXPECT_NO_THROW(inBand.subscribeChannel(
            target, [](Id, kq::CValue) {}, kq::sub::ChannelValue, &s));
        EXPECT_NO_THROW(inBand.subscribeDevice(
            target, [](Id) {}, kq::sub::DeviceCreated, false, &s));
        EXPECT_NO_THROW(inBand.subscribeDeviceAlarms(
            target, [](kq::CAlarmUpdate const&) {}, &s));
    }
    EXPECT_EQ(store.subscriptionCount(), 9u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceCreated, 0), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kAllOnes), 1u);
}

TEST_F(CdsapiClientTest, SubscriptionToAMissingDeviceHearsItsCreation) {
    std::vector<Id> heard;
    Id s = 0;
    inBand.subscribeDevice(
        77, [&](Id id) { heard.push_back(id); }, kq::sub::DeviceCreated, false, &s);
    store.addDevice("Late", 77);
    EXPECT_EQ(heard, (std::vector<Id>{77}));
}

TEST_F(CdsapiClientTest, SubscribeCallsAreCountedPerTarget) {
    Id s = 0;
    inBand.subscribeChannel(
        voltage, [](Id, kq::CValue) {}, kq::sub::ChannelValue, &s);
    inBand.subscribeChannel(
        voltage, [](Id, kq::CValue) {}, kq::sub::ChannelState, &s);
    inBand.subscribeDevice(
        ups, [](Id) {}, kq::sub::DeviceChanged, false, &s);
    inBand.subscribeDeviceAlarms(
        status, [](kq::CAlarmUpdate const&) {}, &s);
    inBand.unsubscribe(s);
    EXPECT_EQ(store.calls("subscribeChannel", voltage), 2u);
    EXPECT_EQ(store.calls("subscribeDevice", ups), 1u);
    EXPECT_EQ(store.calls("subscribeDeviceAlarms", status), 1u);
    EXPECT_EQ(store.calls("unsubscribe", s), 1u);
}

TEST_F(CdsapiClientTest, UnsubscribeOfUnknownIdThrowsNotFound) {
    EXPECT_THROW(inBand.unsubscribe(12345), cdshost::NotFound);
}

TEST_F(CdsapiClientTest, UnsubscribeOfZeroEndsNothingAndReturns) {
    // 0 is never handed out as a subscription id; it is what a caller holds
    // for a subscription that was never opened, so there is nothing to end.
    Id s = 0;
    inBand.subscribeDevice(
        ups, [](Id) {}, kq::sub::DeviceChanged, false, &s);
    ASSERT_NE(s, 0u);

    EXPECT_NO_THROW(inBand.unsubscribe(0));

    EXPECT_EQ(store.subscriptionCount(), 1u);
    EXPECT_EQ(store.calls("unsubscribe", 0), 1u);
}

TEST_F(CdsapiClientTest, UnsubscribeOfZeroStillMeetsAnArmedFault) {
    store.failNext("unsubscribe", 1, 0);
    EXPECT_THROW(inBand.unsubscribe(0), cdshost::InjectedFault);
    EXPECT_NO_THROW(inBand.unsubscribe(0));
}

TEST_F(CdsapiClientTest, UnsubscribeTwiceThrowsTheSecondTime) {
    Id s = 0;
    inBand.subscribeDevice(
        ups, [](Id) {}, kq::sub::DeviceChanged, false, &s);
    inBand.unsubscribe(s);
    EXPECT_THROW(inBand.unsubscribe(s), cdshost::NotFound);
    EXPECT_EQ(store.calls("unsubscribe", s), 2u);
}

TEST_F(CdsapiClientTest, UnsubscribeCallsAreCountedPerIdForEveryKindOfId) {
    // Ids handed out, ids never handed out (ahead of the next one) and 0 are
    // each counted on their own, and resetCalls() forgets all of them.
    std::vector<Id> opened;
    for (int i = 0; i < 3; ++i) {
        Id s = 0;
        inBand.subscribeDevice(
            ups, [](Id) {}, kq::sub::DeviceChanged, false, &s);
        opened.push_back(s);
    }
    Id const ahead = opened.back() + 1000;
    inBand.unsubscribe(opened[2]);
    inBand.unsubscribe(opened[0]);
    EXPECT_THROW(inBand.unsubscribe(opened[0]), cdshost::NotFound);
    EXPECT_THROW(inBand.unsubscribe(ahead), cdshost::NotFound);
    inBand.unsubscribe(0);

    EXPECT_EQ(store.calls("unsubscribe", opened[0]), 2u);
    EXPECT_EQ(store.calls("unsubscribe", opened[1]), 0u);
    EXPECT_EQ(store.calls("unsubscribe", opened[2]), 1u);
    EXPECT_EQ(store.calls("unsubscribe", ahead), 1u);
    EXPECT_EQ(store.calls("unsubscribe", 0), 1u);
    EXPECT_EQ(store.calls("unsubscribe"), 5u);

    // A subscription opened after the counting started is counted too.
    Id late = 0;
    inBand.subscribeDevice(
        ups, [](Id) {}, kq::sub::DeviceChanged, false, &late);
    inBand.unsubscribe(late);
    EXPECT_EQ(store.calls("unsubscribe", late), 1u);

    store.resetCalls();
    EXPECT_EQ(store.calls("unsubscribe", opened[0]), 0u);
    EXPECT_EQ(store.calls("unsubscribe", ahead), 0u);
    EXPECT_EQ(store.calls("unsubscribe", late), 0u);
}

TEST_F(CdsapiClientTest, UnsubscribedCallbackIsNotCalledAgain) {
    int calls = 0;
    Id s = 0;
    inBand.subscribeChannel(
        voltage, [&](Id, kq::CValue) { ++calls; }, kq::sub::ChannelValue, &s);
    store.setChannelValue(voltage, kq::CValue(1.0f));
    inBand.unsubscribe(s);
    store.setChannelValue(voltage, kq::CValue(2.0f));
    EXPECT_EQ(calls, 1);
}

TEST_F(CdsapiClientTest, SubscribeWithoutIdOutOrCallbackThrowsInvalidArgument) {
    Id s = 0;
    EXPECT_THROW(inBand.subscribeChannel(
                     voltage, [](Id, kq::CValue) {}, kq::sub::ChannelValue, nullptr),
                 std::invalid_argument);
    EXPECT_THROW(inBand.subscribeDevice(ups, {}, kq::sub::DeviceChanged, false, &s),
                 std::invalid_argument);
    EXPECT_THROW(inBand.subscribeDeviceAlarms(voltage, {}, &s), std::invalid_argument);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsapiClientTest, DeviceCallbackReceivesTheSubscribedDeviceId) {
    Id heard = 0;
    Id s = 0;
    inBand.subscribeDevice(
        subB, [&](Id id) { heard = id; }, kq::sub::DeviceChanged, false, &s);
    store.renameDevice(subB, "Outlet B2");
    EXPECT_EQ(heard, subB);
}

// ---- Fault injection through each operation
// ------------------------------------------------------

/* One client operation, the name it is counted under and its first argument. */
struct NamedCall {
    std::string operation;
    Id id;
    std::function<void()> call;
};

TEST_F(CdsapiClientTest, EveryOperationHonoursAFaultForItsNameAndId) {
    cdsapi::InBandAccessor& in = inBand;
    Id const v = voltage;
    Id const d = ups;
    Id subscription = 0;
    in.subscribeDevice(
        d, [](Id) {}, kq::sub::DeviceChanged, false, &subscription);
    std::vector<NamedCall> const calls{
        {"getDevice", d, [&] { (void)in.getDevice(d); }},
        {"getSubDevicesIds", d, [&] { (void)in.getSubDevicesIds(d, 0); }},
        {"getChannelId", d, [&] { (void)in.getChannelId(d, "Input.Voltage"); }},
        {"getCatchedChannelId", d, [&] { (void)in.getCatchedChannelId(d, "Input.Voltage"); }},
        {"getChannel", d, [&] { (void)in.getChannel(d, "Input.Voltage"); }},
        {"getChannelCValue", v, [&] { (void)in.getChannelCValue(v); }},
        {"setChannelCValue", v, [&] { in.setChannelCValue(v, kq::CValue(1.0f)); }},
        {"getChannelAlarmEnabled", v, [&] { (void)in.getChannelAlarmEnabled(v); }},
        {"setChannelAlarmEnabled", v, [&] { in.setChannelAlarmEnabled(v, true); }},
        {"getChannelAlarmTriggerThreshold", v,
         [&] { (void)in.getChannelAlarmTriggerThreshold(v, cdsapi::TriggerLowWarning); }},
        {"getChannelAlarmTriggerThreshold", v,
         [&] { (void)in.getChannelAlarmTriggerThreshold(v); }},
        {"setChannelAlarmTriggerThreshold", v,
         [&] { in.setChannelAlarmTriggerThreshold(v, cdsapi::TriggerLowWarning, 1.0f); }},
        {"setChannelAlarmTriggerThreshold", v,
         [&] { in.setChannelAlarmTriggerThreshold(v, true); }},
        {"getChannelAlarmHysteresis", v, [&] { (void)in.getChannelAlarmHysteresis(v); }},
        {"setChannelAlarmHysteresis", v, [&] { in.setChannelAlarmHysteresis(v, 1.0f); }},
        {"getChannelAlarmLevel", v, [&] { (void)in.getChannelAlarmLevel(v); }},
        {"setChannelAlarmLevel", v, [&] { in.setChannelAlarmLevel(v, cdsapi::LevelWarning); }},
        {"getDeviceAttribute", d, [&] { (void)in.getDeviceAttribute(d, cdsapi::AttributeModel); }},
        {"setDeviceAttribute", d, [&] { in.setDeviceAttribute(d, cdsapi::AttributeModel, "m"); }},
        {"subscribeChannel", v,
         [&] {
             Id s = 0;
             in.subscribeChannel(
                 v, [](Id, kq::CValue) {}, kq::sub::ChannelValue, &s);
         }},
        {"subscribeDevice", d,
         [&] {
             Id s = 0;
             in.subscribeDevice(
                 d, [](Id) {}, kq::sub::DeviceChanged, false, &s);
         }},
        {"subscribeDeviceAlarms", v,
         [&] {
             Id s = 0;
             in.subscribeDeviceAlarms(
                 v, [](kq::CAlarmUpdate const&) {}, &s);
         }},
        {"unsubscribe", subscription, [&] { in.unsubscribe(subscription); }},
        {"getDeviceByName", 0, [&] { (void)client.getDeviceByName("UPS"); }},
    };
    for (NamedCall const& c : calls) {
        SCOPED_TRACE(c.operation);
        std::size_t const before = store.calls(c.operation);
        // A fault for another id leaves the call alone, except for getDeviceByName
        // whose only argument is a name.
        if (c.operation != "getDeviceByName") {
            store.failNext(c.operation, 1, c.id + 1000);
        }
        store.failNext(c.operation, 1, c.id);
        EXPECT_THROW(c.call(), cdshost::InjectedFault);
        store.failNext(c.operation, 1, c.id, cdshost::FaultKind::NonStandard);
        EXPECT_THROW(c.call(), cdshost::ForeignFault);
        store.clearFaults();
        EXPECT_NO_THROW(c.call());
        EXPECT_EQ(store.calls(c.operation), before + 3);
    }
}

}  // namespace
