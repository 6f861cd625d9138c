// The simulated data store: its world, which change fires which notification,
// the order and re-entrancy of delivery, threads, reset, the accounting and the
// fault injection.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cdsapi/cds_accessor.h"
#include "cdshost/store.h"
#include "kq/model.h"
#include "kq/value.h"

namespace {

using cdshost::Id;
using cdshost::kAllOnes;
using cdshost::Store;

/* A client and a log of the notifications its subscriptions received, as
 * "<tag>:<id>" entries in the order they arrived. */
class HostStoreTest : public ::testing::Test {
  protected:
    Store& store = Store::instance();
    cdsapi::CdsAccessor client{"test", true};
    cdsapi::InBandAccessor& inBand = client.getInBandAccessor();
    std::vector<std::string> log;

    Id watchChannel(Id channel, kq::sub::subscription_type type, std::string const& tag) {
        Id subscription = 0;
        inBand.subscribeChannel(
            channel,
            [this, tag](Id id, kq::CValue) { log.push_back(tag + ":" + std::to_string(id)); }, type,
            &subscription);
        return subscription;
    }

    Id watchDevice(Id device, kq::sub::subscription_type type, std::string const& tag) {
        Id subscription = 0;
        inBand.subscribeDevice(
            device, [this, tag](Id id) { log.push_back(tag + ":" + std::to_string(id)); }, type,
            false, &subscription);
        return subscription;
    }

    Id watchAlarms(Id channel, std::string const& tag) {
        Id subscription = 0;
        inBand.subscribeDeviceAlarms(
            channel,
            [this, tag](kq::CAlarmUpdate const& update) {
                log.push_back(tag + ":" + std::to_string(update.channelId));
            },
            &subscription);
        return subscription;
    }

    using Log = std::vector<std::string>;
};

// ---- The world ----------------------------------------------------------------------

TEST_F(HostStoreTest, AddDeviceAssignsDistinctNonZeroIds) {
    Id const a = store.addDevice("A");
    Id const b = store.addDevice("B");
    EXPECT_NE(a, 0u);
    EXPECT_NE(b, 0u);
    EXPECT_NE(a, b);
    EXPECT_TRUE(store.hasDevice(a));
    EXPECT_TRUE(store.hasDevice(b));
}

TEST_F(HostStoreTest, AddDeviceKeepsAnExplicitId) {
    EXPECT_EQ(store.addDevice("UPS", 2), 2u);
    EXPECT_TRUE(store.hasDevice(2));
}

TEST_F(HostStoreTest, AddDeviceWithIdInUseThrowsInvalidArgument) {
    store.addDevice("UPS", 2);
    EXPECT_THROW(store.addDevice("Other", 2), std::invalid_argument);
}

TEST_F(HostStoreTest, AddDeviceWithAllOnesIdThrowsInvalidArgument) {
    EXPECT_THROW(store.addDevice("UPS", kAllOnes), std::invalid_argument);
}

TEST_F(HostStoreTest, AddDeviceUnderMissingParentThrowsNotFound) {
    EXPECT_THROW(store.addDevice("Sub", 0, 99), cdshost::NotFound);
}

TEST_F(HostStoreTest, AssignedIdsSkipIdsGivenExplicitly) {
    store.addDevice("Explicit", 1);
    Id const channel = store.addChannel(1, "C");
    Id const next = store.addDevice("Assigned");
    EXPECT_NE(channel, 1u);
    EXPECT_NE(next, 1u);
    EXPECT_NE(next, channel);
}

TEST_F(HostStoreTest, SubDevicesKeepTheOrderTheyWereAdded) {
    Id const ups = store.addDevice("UPS");
    Id const c = store.addDevice("C", 30, ups);
    Id const a = store.addDevice("A", 10, ups);
    Id const b = store.addDevice("B", 20, ups);
    EXPECT_EQ(store.subDevices(ups), (std::vector<Id>{c, a, b}));
}

TEST_F(HostStoreTest, SubDevicesOfMissingDeviceThrowsNotFound) {
    EXPECT_THROW(store.subDevices(5), cdshost::NotFound);
}

TEST_F(HostStoreTest, RemoveDeviceRemovesItsChannelsAndSubDevicesRecursively) {
    Id const ups = store.addDevice("UPS");
    Id const sub = store.addDevice("Sub", 0, ups);
    Id const subSub = store.addDevice("SubSub", 0, sub);
    Id const channel = store.addChannel(subSub, "C", kq::CValue(1));
    Id const upsChannel = store.addChannel(ups, "D");
    store.removeDevice(sub);
    EXPECT_TRUE(store.hasDevice(ups));
    EXPECT_TRUE(store.hasChannel(upsChannel));
    EXPECT_FALSE(store.hasDevice(sub));
    EXPECT_FALSE(store.hasDevice(subSub));
    EXPECT_FALSE(store.hasChannel(channel));
    EXPECT_TRUE(store.subDevices(ups).empty());
}

TEST_F(HostStoreTest, ChangingMissingItemsThrowsNotFound) {
    EXPECT_THROW(store.removeDevice(7), cdshost::NotFound);
    EXPECT_THROW(store.renameDevice(7, "x"), cdshost::NotFound);
    EXPECT_THROW(store.setDeviceAttribute(7, cdsapi::AttributeModel, "x"), cdshost::NotFound);
    EXPECT_THROW(store.addChannel(7, "C"), cdshost::NotFound);
    EXPECT_THROW(store.removeChannel(7), cdshost::NotFound);
    EXPECT_THROW(store.setChannelValue(7, kq::CValue(1)), cdshost::NotFound);
    EXPECT_THROW(store.setAlarmEnabled(7, true), cdshost::NotFound);
    EXPECT_THROW(store.setAlarmLevel(7, 1), cdshost::NotFound);
    EXPECT_THROW(store.raiseAlarm(7, kq::CAlarmRecord{}), cdshost::NotFound);
    EXPECT_THROW(store.clearAlarm(7), cdshost::NotFound);
    EXPECT_THROW(store.alarmSettings(7), cdshost::NotFound);
}

TEST_F(HostStoreTest, QueriesOfMissingItemsGiveEmptyAnswers) {
    EXPECT_FALSE(store.hasDevice(7));
    EXPECT_FALSE(store.hasChannel(7));
    EXPECT_EQ(store.channelId(7, "C"), 0u);
    EXPECT_FALSE(store.channelValue(7).isValid());
    EXPECT_FALSE(store.deviceAttribute(7, cdsapi::AttributeModel).has_value());
    EXPECT_FALSE(store.alarmRecord(7).has_value());
}

TEST_F(HostStoreTest, ChannelsAreFoundByDeviceAndName) {
    Id const a = store.addDevice("A");
    Id const b = store.addDevice("B");
    Id const onA = store.addChannel(a, "Voltage", kq::CValue(230.0f));
    Id const onB = store.addChannel(b, "Voltage", kq::CValue(120.0f));
    EXPECT_EQ(store.channelId(a, "Voltage"), onA);
    EXPECT_EQ(store.channelId(b, "Voltage"), onB);
    EXPECT_EQ(store.channelId(a, "Current"), 0u);
    EXPECT_EQ(store.channelValue(onB), kq::CValue(120.0f));
}

TEST_F(HostStoreTest, ChannelNameIsFreeAgainOnceItsChannelIsRemoved) {
    Id const ups = store.addDevice("UPS");
    Id const first = store.addChannel(ups, "Voltage", kq::CValue(230.0f));
    store.removeChannel(first);
    EXPECT_EQ(store.channelId(ups, "Voltage"), 0u);
    Id const second = store.addChannel(ups, "Voltage", kq::CValue(231.0f));
    EXPECT_NE(second, first);
    EXPECT_EQ(store.channelId(ups, "Voltage"), second);
}

TEST_F(HostStoreTest, AddChannelWithNameTheDeviceHasThrowsInvalidArgument) {
    Id const ups = store.addDevice("UPS");
    store.addChannel(ups, "C");
    EXPECT_THROW(store.addChannel(ups, "C"), std::invalid_argument);
}

TEST_F(HostStoreTest, AddChannelWithIdInUseThrowsInvalidArgument) {
    Id const ups = store.addDevice("UPS");
    store.addChannel(ups, "C", {}, 40);
    EXPECT_THROW(store.addChannel(ups, "D", {}, 40), std::invalid_argument);
}

TEST_F(HostStoreTest, AlarmSettingsAreStoredPerChannel) {
    Id const ups = store.addDevice("UPS");
    Id const ch = store.addChannel(ups, "C");
    store.setAlarmEnabled(ch, true);
    store.setAlarmThreshold(ch, cdsapi::TriggerHighWarning, 42.5f);
    store.setAlarmThresholdFlag(ch, true);
    store.setAlarmHysteresis(ch, 1.5f);
    store.setAlarmLevel(ch, 7);
    cdshost::AlarmSettings const s = store.alarmSettings(ch);
    EXPECT_TRUE(s.enabled);
    EXPECT_EQ(s.thresholds[cdsapi::TriggerHighWarning], 42.5f);
    EXPECT_EQ(s.thresholds[cdsapi::TriggerLowCritical], 0.0f);
    EXPECT_TRUE(s.thresholdFlag);
    EXPECT_EQ(s.hysteresis, 1.5f);
    EXPECT_EQ(s.level, 7);
}

TEST_F(HostStoreTest, ChannelsAreFoundByNameAsTheirDeviceGrowsAndShrinks) {
    Id const ups = store.addDevice("UPS");
    std::vector<Id> ids;
    for (int i = 0; i < 2000; ++i) {
        ids.push_back(store.addChannel(ups, "Sensor." + std::to_string(i)));
    }
    for (int i = 0; i < 2000; i += 2) {
        store.removeChannel(ids[static_cast<std::size_t>(i)]);
    }
    for (int i = 0; i < 2000; ++i) {
        Id const expected = i % 2 == 0 ? 0 : ids[static_cast<std::size_t>(i)];
        EXPECT_EQ(store.channelId(ups, "Sensor." + std::to_string(i)), expected) << i;
    }
    Id const again = store.addChannel(ups, "Sensor.0");
    EXPECT_EQ(store.channelId(ups, "Sensor.0"), again);
}

TEST_F(HostStoreTest, AlarmSettingsOfAChannelNeverSetUpAreTheDefaults) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    cdshost::AlarmSettings const s = store.alarmSettings(ch);
    EXPECT_FALSE(s.enabled);
    EXPECT_EQ(s.thresholds[cdsapi::TriggerHighWarning], 0.0f);
    EXPECT_FALSE(s.thresholdFlag);
    EXPECT_EQ(s.hysteresis, 0.0f);
    EXPECT_EQ(s.level, 0);
    EXPECT_EQ(store.alarmRecord(ch), std::nullopt);
    store.clearAlarm(ch);
    EXPECT_EQ(store.alarmRecord(ch), std::nullopt);
    EXPECT_FALSE(inBand.getChannelAlarmEnabled(ch));
    EXPECT_EQ(inBand.getChannelAlarmHysteresis(ch), 0.0f);
}

TEST_F(HostStoreTest, SettingOneAlarmSettingLeavesTheOthersAtTheirDefaults) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    store.setAlarmHysteresis(ch, 2.5f);
    cdshost::AlarmSettings const s = store.alarmSettings(ch);
    EXPECT_EQ(s.hysteresis, 2.5f);
    EXPECT_FALSE(s.enabled);
    EXPECT_EQ(s.level, 0);
    EXPECT_EQ(store.alarmRecord(ch), std::nullopt);
    Id const other = store.addChannel(store.addDevice("UPS 2"), "C");
    EXPECT_EQ(store.alarmSettings(other).hysteresis, 0.0f);
}

TEST_F(HostStoreTest, AlarmThresholdOfUnknownTriggerThrows) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    EXPECT_THROW(store.setAlarmThreshold(ch, static_cast<cdsapi::TriggerId>(4), 1.0f),
                 std::out_of_range);
}

TEST_F(HostStoreTest, RaiseAndClearAlarmSetTheRecord) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    store.raiseAlarm(ch, kq::CAlarmRecord{7, true});
    EXPECT_EQ(store.alarmRecord(ch), (kq::CAlarmRecord{7, true}));
    store.clearAlarm(ch);
    EXPECT_FALSE(store.alarmRecord(ch).has_value());
}

TEST_F(HostStoreTest, AChannelAddedAgainUnderTheSameIdStartsWithoutTheOldAlarm) {
    // The alarm of a channel is kept apart from the channel; it must go with it.
    Id const ups = store.addDevice("UPS");
    Id const ch = store.addChannel(ups, "C", {}, 500);
    store.setAlarmEnabled(ch, true);
    store.setAlarmLevel(ch, 3);
    store.raiseAlarm(ch, kq::CAlarmRecord{7, true});
    Id const other = store.addChannel(ups, "D");
    store.setAlarmHysteresis(other, 2.5f);
    store.removeChannel(ch);
    EXPECT_FALSE(store.alarmRecord(ch).has_value());
    EXPECT_THROW(store.alarmSettings(ch), cdshost::NotFound);
    ASSERT_EQ(store.addChannel(ups, "C", {}, 500), ch);
    EXPECT_FALSE(store.alarmSettings(ch).enabled);
    EXPECT_EQ(store.alarmSettings(ch).level, 0);
    EXPECT_FALSE(store.alarmRecord(ch).has_value());
    EXPECT_EQ(store.alarmSettings(other).hysteresis, 2.5f);
}

TEST_F(HostStoreTest, DeviceAttributeIsEmptyUntilSet) {
    Id const ups = store.addDevice("UPS");
    EXPECT_FALSE(store.deviceAttribute(ups, cdsapi::AttributeModel).has_value());
    store.setDeviceAttribute(ups, cdsapi::AttributeModel, "X-1000");
    EXPECT_EQ(store.deviceAttribute(ups, cdsapi::AttributeModel), "X-1000");
}

// ---- Which change fires which notification --------------------------------------------

TEST_F(HostStoreTest, SetChannelValueNotifiesChannelValueOnlyOnThatChannel) {
    Id const ups = store.addDevice("UPS");
    Id const ch = store.addChannel(ups, "C");
    Id const other = store.addChannel(ups, "D");
    watchChannel(ch, kq::sub::ChannelValue, "value");
    watchChannel(ch, kq::sub::ChannelState, "state");
    watchChannel(ch, kq::sub::ChannelSettings, "settings");
    watchChannel(other, kq::sub::ChannelValue, "other");
    watchDevice(ups, kq::sub::DeviceChanged, "device");
    store.setChannelValue(ch, kq::CValue(3));
    EXPECT_EQ(log, (Log{"value:" + std::to_string(ch)}));
}

TEST_F(HostStoreTest, SetChannelValueNotifiesEvenWhenTheValueIsUnchanged) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(3));
    watchChannel(ch, kq::sub::ChannelValue, "value");
    store.setChannelValue(ch, kq::CValue(3));
    store.setChannelValue(ch, kq::CValue(3));
    EXPECT_EQ(log.size(), 2u);
}

TEST_F(HostStoreTest, ChannelValueCallbackReceivesChannelIdAndNewValue) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id seenId = 0;
    kq::CValue seenValue;
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id id, kq::CValue value) {
            seenId = id;
            seenValue = value;
        },
        kq::sub::ChannelValue, &subscription);
    store.setChannelValue(ch, kq::CValue("on"));
    EXPECT_EQ(seenId, ch);
    EXPECT_EQ(seenValue, kq::CValue("on"));
}

TEST_F(HostStoreTest, SetAlarmEnabledNotifiesChannelStateOnly) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    watchChannel(ch, kq::sub::ChannelValue, "value");
    watchChannel(ch, kq::sub::ChannelState, "state");
    watchChannel(ch, kq::sub::ChannelSettings, "settings");
    store.setAlarmEnabled(ch, true);
    EXPECT_EQ(log, (Log{"state:" + std::to_string(ch)}));
}

TEST_F(HostStoreTest, EachAlarmSettingNotifiesChannelSettingsOnly) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    watchChannel(ch, kq::sub::ChannelValue, "value");
    watchChannel(ch, kq::sub::ChannelState, "state");
    watchChannel(ch, kq::sub::ChannelSettings, "settings");
    store.setAlarmThreshold(ch, cdsapi::TriggerLowWarning, 1.0f);
    store.setAlarmThresholdFlag(ch, true);
    store.setAlarmHysteresis(ch, 2.0f);
    store.setAlarmLevel(ch, 5);
    std::string const s = "settings:" + std::to_string(ch);
    EXPECT_EQ(log, (Log{s, s, s, s}));
}

TEST_F(HostStoreTest, RaiseAndClearAlarmNotifyAlarmSubscriptionsWithTheRecord) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id const other = store.addChannel(store.addDevice("Other"), "C");
    std::vector<kq::CAlarmUpdate> updates;
    Id subscription = 0;
    inBand.subscribeDeviceAlarms(
        ch, [&](kq::CAlarmUpdate const& u) { updates.push_back(u); }, &subscription);
    watchChannel(ch, kq::sub::ChannelSettings, "settings");
    watchAlarms(other, "other");
    store.raiseAlarm(ch, kq::CAlarmRecord{7, true});
    store.clearAlarm(ch);
    ASSERT_EQ(updates.size(), 2u);
    EXPECT_EQ(updates[0].channelId, ch);
    EXPECT_EQ(updates[0].alarm, (kq::CAlarmRecord{7, true}));
    EXPECT_EQ(updates[1].channelId, ch);
    EXPECT_FALSE(updates[1].alarm.has_value());
    EXPECT_TRUE(log.empty());
}

TEST_F(HostStoreTest, AddDeviceNotifiesCreationOnItsIdThenOnAllOnes) {
    watchDevice(kAllOnes, kq::sub::DeviceCreated, "any");
    watchDevice(5, kq::sub::DeviceCreated, "five");
    watchDevice(5, kq::sub::DeviceChanged, "changed");
    store.addDevice("UPS", 5);
    EXPECT_EQ(log, (Log{"five:5", "any:5"}));
}

TEST_F(HostStoreTest, AllOnesCreationSubscriptionHearsEveryCreation) {
    watchDevice(kAllOnes, kq::sub::DeviceCreated, "any");
    Id const a = store.addDevice("A");
    Id const b = store.addDevice("B", 0, a);
    EXPECT_EQ(log, (Log{"any:" + std::to_string(a), "any:" + std::to_string(b)}));
}

TEST_F(HostStoreTest, AddSubDeviceAlsoNotifiesDeviceChangedOnParent) {
    Id const ups = store.addDevice("UPS", 1);
    watchDevice(ups, kq::sub::DeviceChanged, "parent");
    watchDevice(2, kq::sub::DeviceCreated, "created");
    store.addDevice("Sub", 2, ups);
    EXPECT_EQ(log, (Log{"created:2", "parent:1"}));
}

TEST_F(HostStoreTest, RemoveDeviceNotifiesDeviceChangedAfterRemovalThenParent) {
    Id const ups = store.addDevice("UPS", 1);
    Id const sub = store.addDevice("Sub", 2, ups);
    bool existedDuringCallback = true;
    Id subscription = 0;
    inBand.subscribeDevice(
        sub,
        [&](Id id) {
            existedDuringCallback = store.hasDevice(id);
            log.push_back("sub:" + std::to_string(id));
        },
        kq::sub::DeviceChanged, false, &subscription);
    watchDevice(ups, kq::sub::DeviceChanged, "parent");
    store.removeDevice(sub);
    EXPECT_EQ(log, (Log{"sub:2", "parent:1"}));
    EXPECT_FALSE(existedDuringCallback);
}

TEST_F(HostStoreTest, RemoveDeviceRemovesSubDevicesFirstEachTheSameWay) {
    Id const ups = store.addDevice("UPS", 1);
    store.addDevice("A", 2, ups);
    store.addDevice("B", 3, ups);
    store.addDevice("AA", 4, 2);
    for (Id id : {1, 2, 3, 4}) {
        watchDevice(id, kq::sub::DeviceChanged, "d");
    }
    store.removeDevice(ups);
    // 4 and its parent 2; 2 and its parent 1; 3 and its parent 1; then 1 itself.
    EXPECT_EQ(log, (Log{"d:4", "d:2", "d:2", "d:1", "d:3", "d:1", "d:1"}));
}

TEST_F(HostStoreTest, SetDeviceAttributeAndRenameNotifyDeviceChanged) {
    Id const ups = store.addDevice("UPS");
    watchDevice(ups, kq::sub::DeviceChanged, "changed");
    watchDevice(ups, kq::sub::DeviceCreated, "created");
    store.setDeviceAttribute(ups, cdsapi::AttributeModel, "X");
    store.renameDevice(ups, "UPS2");
    std::string const c = "changed:" + std::to_string(ups);
    EXPECT_EQ(log, (Log{c, c}));
}

TEST_F(HostStoreTest, AddAndRemoveChannelNotifyDeviceChangedOnTheirDevice) {
    Id const ups = store.addDevice("UPS");
    watchDevice(ups, kq::sub::DeviceChanged, "changed");
    Id const ch = store.addChannel(ups, "C");
    store.removeChannel(ch);
    std::string const c = "changed:" + std::to_string(ups);
    EXPECT_EQ(log, (Log{c, c}));
}

TEST_F(HostStoreTest, ChangesWithNotifyFalseAreSilent) {
    watchDevice(kAllOnes, kq::sub::DeviceCreated, "any");
    Id const ups = store.addDevice("UPS", 0, 0, false);
    watchDevice(ups, kq::sub::DeviceChanged, "changed");
    Id const ch = store.addChannel(ups, "C", {}, 0, false);
    watchChannel(ch, kq::sub::ChannelValue, "value");
    watchChannel(ch, kq::sub::ChannelState, "state");
    watchChannel(ch, kq::sub::ChannelSettings, "settings");
    watchAlarms(ch, "alarm");
    store.setChannelValue(ch, kq::CValue(1), false);
    store.setAlarmEnabled(ch, true, false);
    store.setAlarmLevel(ch, 3, false);
    store.raiseAlarm(ch, kq::CAlarmRecord{}, false);
    store.setDeviceAttribute(ups, cdsapi::AttributeModel, "X", false);
    store.removeChannel(ch, false);
    store.removeDevice(ups, false);
    EXPECT_TRUE(log.empty());
    EXPECT_FALSE(store.hasDevice(ups));
}

TEST_F(HostStoreTest, NotifyFiresExactlyOneNotificationEvenForMissingIds) {
    watchChannel(77, kq::sub::ChannelValue, "value");
    watchChannel(77, kq::sub::ChannelSettings, "settings");
    watchDevice(78, kq::sub::DeviceCreated, "created");
    watchDevice(kAllOnes, kq::sub::DeviceCreated, "any");
    watchAlarms(77, "alarm");
    store.notifyChannel(77, kq::sub::ChannelValue);
    store.notifyDevice(78, kq::sub::DeviceCreated);
    store.notifyAlarm(77);
    EXPECT_EQ(log, (Log{"value:77", "created:78", "alarm:77"}));
}

TEST_F(HostStoreTest, ChannelNotificationOfMissingChannelCarriesInvalidValue) {
    kq::CValue seen(1);
    Id subscription = 0;
    inBand.subscribeChannel(
        77, [&](Id, kq::CValue value) { seen = value; }, kq::sub::ChannelValue, &subscription);
    store.notifyChannel(77, kq::sub::ChannelValue);
    EXPECT_FALSE(seen.isValid());
}

TEST_F(HostStoreTest, AlarmNotificationCarriesTheCurrentRecord) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    store.raiseAlarm(ch, kq::CAlarmRecord{3, false}, false);
    std::optional<kq::CAlarmRecord> seen;
    Id subscription = 0;
    inBand.subscribeDeviceAlarms(
        ch, [&](kq::CAlarmUpdate const& u) { seen = u.alarm; }, &subscription);
    store.notifyAlarm(ch);
    EXPECT_EQ(seen, (kq::CAlarmRecord{3, false}));
}

TEST_F(HostStoreTest, SubscriptionIncludingSubDevicesHearsChangesBelowItsTarget) {
    Id const ups = store.addDevice("UPS", 1);
    store.addDevice("Sub", 2, ups);
    store.addDevice("SubSub", 3, 2);
    std::vector<Id> heard;
    Id subscription = 0;
    inBand.subscribeDevice(
        ups, [&](Id id) { heard.push_back(id); }, kq::sub::DeviceChanged, true, &subscription);
    store.setDeviceAttribute(3, cdsapi::AttributeModel, "x");
    store.setDeviceAttribute(1, cdsapi::AttributeModel, "y");
    EXPECT_EQ(heard, (std::vector<Id>{3, 1}));
}

TEST_F(HostStoreTest, ChangeBelowSeveralSubscribedAncestorsIsDeliveredInOpeningOrder) {
    Id const ups = store.addDevice("UPS", 1);
    store.addDevice("Sub", 2, ups);
    store.addDevice("SubSub", 3, 2);
    Log heard;
    auto const listen = [&](Id target, std::string const& tag) {
        Id subscription = 0;
        inBand.subscribeDevice(
            target, [&heard, tag](Id) { heard.push_back(tag); }, kq::sub::DeviceChanged, true,
            &subscription);
    };
    listen(2, "sub-first");
    listen(3, "itself");
    listen(1, "ups");
    listen(2, "sub-last");
    store.setDeviceAttribute(3, cdsapi::AttributeModel, "x");
    EXPECT_EQ(heard, (Log{"sub-first", "itself", "ups", "sub-last"}));
}

// ---- Delivery ---------------------------------------------------------------------------

TEST_F(HostStoreTest, DeliveryFollowsSubscriptionOrder) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    watchChannel(ch, kq::sub::ChannelValue, "first");
    watchChannel(ch, kq::sub::ChannelValue, "second");
    watchChannel(ch, kq::sub::ChannelValue, "third");
    store.setChannelValue(ch, kq::CValue(1));
    std::string const id = std::to_string(ch);
    EXPECT_EQ(log, (Log{"first:" + id, "second:" + id, "third:" + id}));
}

TEST_F(HostStoreTest, CallbackRunsOutsideTheLockAndMayReadThroughTheClient) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(1));
    kq::CValue read;
    Id subscription = 0;
    inBand.subscribeChannel(
        ch, [&](Id id, kq::CValue) { read = inBand.getChannelCValue(id); }, kq::sub::ChannelValue,
        &subscription);
    store.setChannelValue(ch, kq::CValue(2));
    EXPECT_EQ(read, kq::CValue(2));
}

TEST_F(HostStoreTest, CallbackMaySubscribeAndTheNewSubscriptionHearsTheNextChange) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id inner = 0;
    Id outer = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue) {
            log.push_back("outer");
            if (inner == 0) {
                inBand.subscribeChannel(
                    ch, [&](Id, kq::CValue) { log.push_back("inner"); }, kq::sub::ChannelValue,
                    &inner);
            }
        },
        kq::sub::ChannelValue, &outer);
    store.setChannelValue(ch, kq::CValue(1));
    EXPECT_EQ(log, (Log{"outer"}));
    EXPECT_NE(inner, 0u);
    store.setChannelValue(ch, kq::CValue(2));
    EXPECT_EQ(log, (Log{"outer", "outer", "inner"}));
}

TEST_F(HostStoreTest, CallbackMayUnsubscribeItself) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue) {
            log.push_back("once");
            inBand.unsubscribe(subscription);
        },
        kq::sub::ChannelValue, &subscription);
    store.setChannelValue(ch, kq::CValue(1));
    store.setChannelValue(ch, kq::CValue(2));
    EXPECT_EQ(log, (Log{"once"}));
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(HostStoreTest, SubscriptionEndedDuringDeliveryIsNotCalledAfterwards) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id second = 0;
    Id first = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue) {
            log.push_back("first");
            inBand.unsubscribe(second);
        },
        kq::sub::ChannelValue, &first);
    inBand.subscribeChannel(
        ch, [&](Id, kq::CValue) { log.push_back("second"); }, kq::sub::ChannelValue, &second);
    watchChannel(ch, kq::sub::ChannelValue, "third");
    store.setChannelValue(ch, kq::CValue(1));
    EXPECT_EQ(log, (Log{"first", "third:" + std::to_string(ch)}));
}

TEST_F(HostStoreTest, SubscriptionEndedByAnEarlierNotificationOfTheSameChangeIsSkipped) {
    // addDevice fires the creation notice on the device, then on all-ones: a
    // callback of the first may end the subscription of the second.
    Id anySubscription = 0;
    Id own = 0;
    inBand.subscribeDevice(
        9,
        [&](Id) {
            log.push_back("own");
            inBand.unsubscribe(anySubscription);
        },
        kq::sub::DeviceCreated, false, &own);
    inBand.subscribeDevice(
        kAllOnes, [&](Id) { log.push_back("any"); }, kq::sub::DeviceCreated, false,
        &anySubscription);
    store.addDevice("UPS", 9);
    EXPECT_EQ(log, (Log{"own"}));
}

TEST_F(HostStoreTest, CallbackMayChangeTheStoreAndItsNotificationsFollow) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(0));
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id id, kq::CValue value) {
            log.push_back(value.as_string());
            if (value.as_int32() < 3) {
                inBand.setChannelCValue(id, kq::CValue(value.as_int32() + 1));
            }
        },
        kq::sub::ChannelValue, &subscription);
    store.setChannelValue(ch, kq::CValue(1));
    EXPECT_EQ(log, (Log{"1", "2", "3"}));
}

TEST_F(HostStoreTest, ThrowingCallbackDoesNotStopDeliveryAndItsExceptionLeavesTheChange) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue) {
            log.push_back("thrower");
            throw std::out_of_range("map::at");
        },
        kq::sub::ChannelValue, &subscription);
    watchChannel(ch, kq::sub::ChannelValue, "after");
    EXPECT_THROW(store.setChannelValue(ch, kq::CValue(1)), std::out_of_range);
    EXPECT_EQ(log, (Log{"thrower", "after:" + std::to_string(ch)}));
    EXPECT_EQ(store.channelValue(ch), kq::CValue(1));
}

TEST_F(HostStoreTest, ChangeFromSecondThreadIsDeliveredOnThatThread) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    std::thread::id deliveredOn;
    kq::CValue seen;
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue value) {
            deliveredOn = std::this_thread::get_id();
            seen = value;
        },
        kq::sub::ChannelValue, &subscription);
    std::thread writer([&] { store.setChannelValue(ch, kq::CValue(42)); });
    std::thread::id const writerId = writer.get_id();
    writer.join();
    EXPECT_EQ(deliveredOn, writerId);
    EXPECT_EQ(seen, kq::CValue(42));
    EXPECT_EQ(store.channelValue(ch), kq::CValue(42));
}

TEST_F(HostStoreTest, ConcurrentWritersAndReadersSeeEveryChange) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(0));
    std::atomic<int> notified{0};
    Id subscription = 0;
    inBand.subscribeChannel(
        ch, [&](Id, kq::CValue) { ++notified; }, kq::sub::ChannelValue, &subscription);
    constexpr int kWrites = 200;
    std::thread writer([&] {
        for (int i = 1; i <= kWrites; ++i) {
            store.setChannelValue(ch, kq::CValue(i));
        }
    });
    for (int i = 0; i < kWrites; ++i) {
        int const v = inBand.getChannelCValue(ch).as_int32();
        EXPECT_GE(v, 0);
        EXPECT_LE(v, kWrites);
    }
    writer.join();
    EXPECT_EQ(notified.load(), kWrites);
    EXPECT_EQ(store.channelValue(ch), kq::CValue(kWrites));
}

TEST_F(HostStoreTest, ClientReadsWhileAnotherThreadWritesNeverSeeAHalfWrittenValue) {
    // Strings longer than any small-string buffer: a read that overlapped a
    // write without the lock would copy a freed or half-built string.
    std::string const first(64, 'a');
    std::string const second(96, 'b');
    Id const ch = store.addChannel(store.addDevice("UPS"), "Text", kq::CValue(first));
    constexpr int kRounds = 20000;
    std::thread writer([&] {
        for (int i = 0; i < kRounds; ++i) {
            store.setChannelValue(ch, kq::CValue(i % 2 == 0 ? second : first), false);
        }
    });
    int torn = 0;
    for (int i = 0; i < kRounds; ++i) {
        std::string const read = inBand.getChannelCValue(ch).as_string();
        torn += read == first || read == second ? 0 : 1;
    }
    writer.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(inBand.getChannelCValue(ch), kq::CValue(first));  // the last write (i odd)
}

TEST_F(HostStoreTest, ChannelsWithLargeIdsChosenByTheCallerAreReadLikeAssignedOnes) {
    Id const device = store.addDevice("UPS");
    Id const assigned = store.addChannel(device, "Assigned", kq::CValue(1.5f));
    Id const large = store.addChannel(device, "Large", kq::CValue(2.5f), 70000);
    Id const huge = store.addChannel(device, "Huge", kq::CValue(3.5f), 0x123456789ULL);
    EXPECT_EQ(inBand.getChannelCValue(assigned), kq::CValue(1.5f));
    EXPECT_EQ(inBand.getChannelCValue(large), kq::CValue(2.5f));
    EXPECT_EQ(inBand.getChannelCValue(huge), kq::CValue(3.5f));
    EXPECT_EQ(store.calls("getChannelCValue", large), 1u);
    EXPECT_EQ(store.calls("getChannelCValue", huge), 1u);
}

TEST_F(HostStoreTest, ClientReadOfARemovedChannelThrowsNotFoundWhateverItsId) {
    Id const device = store.addDevice("UPS");
    Id const assigned = store.addChannel(device, "Assigned", kq::CValue(1));
    Id const chosen = store.addChannel(device, "Chosen", kq::CValue(2), 90000);
    store.removeChannel(assigned);
    store.removeChannel(chosen);
    EXPECT_THROW(inBand.getChannelCValue(assigned), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelCValue(chosen), cdshost::NotFound);
    EXPECT_EQ(store.calls("getChannelCValue", assigned), 1u);
}

TEST_F(HostStoreTest, ClientReadAfterItsDeviceIsRemovedThrowsAndTheIdCanBeGivenAgain) {
    Id const first = store.addDevice("UPS");
    Id const chosen = store.addChannel(first, "Chosen", kq::CValue(1), 500);
    Id const assigned = store.addChannel(first, "Assigned", kq::CValue(2));
    store.removeDevice(first);
    EXPECT_THROW(inBand.getChannelCValue(chosen), cdshost::NotFound);
    EXPECT_THROW(inBand.getChannelCValue(assigned), cdshost::NotFound);
    Id const again = store.addChannel(store.addDevice("UPS 2"), "Again", kq::CValue(3), chosen);
    ASSERT_EQ(again, chosen);
    EXPECT_EQ(inBand.getChannelCValue(again), kq::CValue(3));
}

TEST_F(HostStoreTest, ClientReadAfterResetFindsTheChannelThatNowHasTheId) {
    Id const before = store.addChannel(store.addDevice("UPS"), "Old", kq::CValue(1));
    store.reset();
    Id const after = store.addChannel(store.addDevice("UPS"), "New", kq::CValue(2));
    ASSERT_EQ(after, before);  // assigned ids start again from 1 after a reset
    EXPECT_EQ(inBand.getChannelCValue(after), kq::CValue(2));
}

TEST_F(HostStoreTest, UnsubscribeFromAnotherThreadWaitsForARunningCallback) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C");
    std::mutex m;
    std::condition_variable cv;
    bool inside = false;
    bool release = false;
    std::atomic<bool> callbackDone{false};
    Id subscription = 0;
    inBand.subscribeChannel(
        ch,
        [&](Id, kq::CValue) {
            std::unique_lock<std::mutex> lock(m);
            inside = true;
            cv.notify_all();
            cv.wait(lock, [&] { return release; });
            callbackDone = true;
        },
        kq::sub::ChannelValue, &subscription);
    std::thread writer([&] { store.setChannelValue(ch, kq::CValue(1)); });
    {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return inside; });
    }
    // The callback is now blocked inside the delivery. Let it go only once
    // unsubscribe() has been entered (the accounting counts it on entry);
    // unsubscribe() must not return before the callback has finished.
    std::thread releaser([&] {
        while (store.calls("unsubscribe") == 0) {
            std::this_thread::yield();
        }
        std::lock_guard<std::mutex> lock(m);
        release = true;
        cv.notify_all();
    });
    inBand.unsubscribe(subscription);
    EXPECT_TRUE(callbackDone.load());
    releaser.join();
    writer.join();
}

TEST_F(HostStoreTest, ChangesFromTwoThreadsWhileAThirdOpensAndEndsSubscriptionsAllArriveInTime) {
    // Two threads deliver to the same subscription at once (the store then
    // keeps a second delivering thread besides the first), while a third
    // opens and ends subscriptions on the same channel in a loop. Every change
    // reaches the subscription that stays open, and none of the short-lived
    // ones is still called once its unsubscribe() returned.
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(0));
    std::atomic<int> delivered{0};
    Id steady = 0;
    inBand.subscribeChannel(
        ch, [&](Id, kq::CValue) { ++delivered; }, kq::sub::ChannelValue, &steady);
    constexpr int kWritesEach = 500;
    std::atomic<bool> writing{true};
    auto const write = [&](int offset) {
        for (int i = 0; i < kWritesEach; ++i) {
            store.setChannelValue(ch, kq::CValue(offset + i));
        }
    };
    std::thread first(write, 0);
    std::thread second(write, kWritesEach);

    struct Watch {
        std::atomic<bool> ended{false};
        std::atomic<int> callsAfterEnd{0};
    };
    std::vector<std::shared_ptr<Watch>> watches;
    std::thread churn([&] {
        // Bounded: at most this many rounds, fewer once both writers are done.
        for (int round = 0; round < 2000 && (round < 20 || writing); ++round) {
            auto const watch = std::make_shared<Watch>();
            Id id = 0;
            inBand.subscribeChannel(
                ch,
                [watch](Id, kq::CValue) {
                    // Checked on the way out: a callback still running once
                    // unsubscribe() returned is as wrong as one begun after.
                    std::this_thread::yield();
                    if (watch->ended) {
                        ++watch->callsAfterEnd;
                    }
                },
                kq::sub::ChannelValue, &id);
            std::this_thread::yield();
            inBand.unsubscribe(id);
            watch->ended = true;
            watches.push_back(watch);
        }
    });
    first.join();
    second.join();
    writing = false;
    churn.join();

    // Counted once every thread is done: a late call would come from a
    // delivery planned before the end and made after it.
    int callsAfterEnd = 0;
    for (auto const& watch : watches) {
        callsAfterEnd += watch->callsAfterEnd;
    }
    EXPECT_EQ(delivered.load(), 2 * kWritesEach);
    EXPECT_EQ(callsAfterEnd, 0);
    EXPECT_GE(watches.size(), 20u);
    EXPECT_EQ(store.subscriptionCount(), 1u);
    inBand.unsubscribe(steady);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(HostStoreTest, CallbacksOnTwoThreadsEndingEachOthersSubscriptionsBothReturn) {
    // Each callback ends the other's subscription while the other is inside
    // its own: were each unsubscribe() to wait for the other callback to
    // end, neither would. One waits; the other, whose wait would close the
    // circle, returns at once.
    Id const first = store.addChannel(store.addDevice("UPS"), "First");
    Id const second = store.addChannel(store.addDevice("UPS 2"), "Second");
    std::atomic<int> inside{0};
    auto const bothInside = [&] {
        ++inside;
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (inside < 2 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    };
    Id firstSubscription = 0;
    Id secondSubscription = 0;
    inBand.subscribeChannel(
        first,
        [&](Id, kq::CValue) {
            bothInside();
            inBand.unsubscribe(secondSubscription);
        },
        kq::sub::ChannelValue, &firstSubscription);
    inBand.subscribeChannel(
        second,
        [&](Id, kq::CValue) {
            bothInside();
            inBand.unsubscribe(firstSubscription);
        },
        kq::sub::ChannelValue, &secondSubscription);

    std::promise<void> firstDone;
    std::promise<void> secondDone;
    std::thread a([&] {
        store.setChannelValue(first, kq::CValue(1));
        firstDone.set_value();
    });
    std::thread b([&] {
        store.setChannelValue(second, kq::CValue(2));
        secondDone.set_value();
    });
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool const returned =
        firstDone.get_future().wait_until(deadline) == std::future_status::ready &&
        secondDone.get_future().wait_until(deadline) == std::future_status::ready;
    if (!returned) {
        // The two threads wait for each other for good and cannot be
        // joined: this process ends here, failed.
        std::fprintf(stderr, "the two unsubscribe() calls wait for each other\n");
        std::_Exit(1);
    }
    a.join();
    b.join();
    EXPECT_EQ(inside.load(), 2);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

// ---- Reset ------------------------------------------------------------------------------

TEST_F(HostStoreTest, ResetEmptiesWorldSubscriptionsAccountingAndFaults) {
    Id const ups = store.addDevice("UPS");
    Id const ch = store.addChannel(ups, "C");
    Id const subscription = watchChannel(ch, kq::sub::ChannelValue, "value");
    store.failAlways("getDevice");
    store.answerName("ghost", 5);
    (void)inBand.getChannelCValue(ch);
    store.reset();
    EXPECT_FALSE(store.hasDevice(ups));
    EXPECT_FALSE(store.hasChannel(ch));
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_TRUE(store.subscriptions().empty());
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(store.calls("getChannelCValue", ch), 0u);
    EXPECT_EQ(store.connections("test"), 0u);
    Id const again = store.addDevice("UPS");
    EXPECT_NO_THROW(inBand.getDevice(again));
    EXPECT_THROW(client.getDeviceByName("ghost"), cdshost::NotFound);
    EXPECT_THROW(inBand.unsubscribe(subscription), cdshost::NotFound);
}

TEST_F(HostStoreTest, ResetEndsSubscriptionsWithoutNotifying) {
    Id const ups = store.addDevice("UPS", 3);
    watchDevice(ups, kq::sub::DeviceChanged, "changed");
    watchDevice(kAllOnes, kq::sub::DeviceCreated, "any");
    store.reset();
    EXPECT_TRUE(log.empty());
    store.addDevice("UPS", 3);
    EXPECT_TRUE(log.empty());
}

TEST_F(HostStoreTest, SubscriptionIdsKeepGrowingAcrossReset) {
    Id const before = watchDevice(1, kq::sub::DeviceChanged, "x");
    store.reset();
    Id const after = watchDevice(1, kq::sub::DeviceChanged, "x");
    EXPECT_GT(after, before);
}

TEST_F(HostStoreTest, AssignedWorldIdsStartAgainAfterReset) {
    Id const first = store.addDevice("A");
    store.reset();
    EXPECT_EQ(store.addDevice("A"), first);
}

// ---- Accounting -------------------------------------------------------------------------

TEST_F(HostStoreTest, CallsCountPerOperationInTotalAndPerFirstArgument) {
    Id const ups = store.addDevice("UPS");
    Id const a = store.addChannel(ups, "A");
    Id const b = store.addChannel(ups, "B");
    (void)inBand.getChannelCValue(a);
    (void)inBand.getChannelCValue(a);
    (void)inBand.getChannelCValue(b);
    EXPECT_EQ(store.calls("getChannelCValue"), 3u);
    EXPECT_EQ(store.calls("getChannelCValue", a), 2u);
    EXPECT_EQ(store.calls("getChannelCValue", b), 1u);
    EXPECT_EQ(store.calls("getChannelCValue", ups), 0u);
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(HostStoreTest, ChannelReadsCountedByIdOutliveTheChannelAndItsDevice) {
    Id const ups = store.addDevice("UPS");
    Id const a = store.addChannel(ups, "A", kq::CValue(1), 40);
    Id const b = store.addChannel(ups, "B", kq::CValue(2), 41);
    (void)inBand.getChannelCValue(a);
    (void)inBand.getChannelCValue(a);
    (void)inBand.getChannelCValue(b);
    store.removeChannel(a);
    EXPECT_THROW(inBand.getChannelCValue(a), cdshost::NotFound);
    EXPECT_EQ(store.calls("getChannelCValue", a), 3u);
    // A channel added again under the id goes on counting from there.
    store.addChannel(ups, "A", kq::CValue(1), a);
    (void)inBand.getChannelCValue(a);
    EXPECT_EQ(store.calls("getChannelCValue", a), 4u);
    store.removeDevice(ups);
    EXPECT_EQ(store.calls("getChannelCValue", a), 4u);
    EXPECT_EQ(store.calls("getChannelCValue", b), 1u);
    EXPECT_EQ(store.calls("getChannelCValue"), 5u);
}

TEST_F(HostStoreTest, ResetCallsClearsTheChannelReadsOfExistingChannels) {
    Id const ups = store.addDevice("UPS");
    Id const a = store.addChannel(ups, "A");
    (void)inBand.getChannelCValue(a);
    store.resetCalls();
    EXPECT_EQ(store.calls("getChannelCValue", a), 0u);
    (void)inBand.getChannelCValue(a);
    EXPECT_EQ(store.calls("getChannelCValue", a), 1u);
}

TEST_F(HostStoreTest, SubscribeCallsOnAChannelStayCountedWhenItGoesAndComesBack) {
    Id const ups = store.addDevice("UPS");
    Id const a = store.addChannel(ups, "A", kq::CValue(1), 40);
    watchChannel(a, kq::sub::ChannelValue, "x");
    watchChannel(a, kq::sub::ChannelState, "y");
    watchChannel(99, kq::sub::ChannelValue, "no channel");
    EXPECT_EQ(store.calls("subscribeChannel", a), 2u);
    store.removeChannel(a);
    EXPECT_EQ(store.calls("subscribeChannel", a), 2u);
    store.addChannel(ups, "A", kq::CValue(1), a);
    watchChannel(a, kq::sub::ChannelValue, "z");
    EXPECT_EQ(store.calls("subscribeChannel", a), 3u);
    EXPECT_EQ(store.calls("subscribeChannel", 99), 1u);
    EXPECT_EQ(store.calls("subscribeChannel"), 4u);
    store.resetCalls();
    EXPECT_EQ(store.calls("subscribeChannel", a), 0u);
    EXPECT_EQ(store.calls("subscribeChannel", 99), 0u);
}

TEST_F(HostStoreTest, AccountingOfAnOperationTheClientDoesNotHaveThrowsInvalidArgument) {
    EXPECT_THROW(store.calls("getChannelValue"), std::invalid_argument);
    EXPECT_THROW(store.calls("getChannelValue", 1), std::invalid_argument);
    EXPECT_THROW(store.failNext("subscribeChannels"), std::invalid_argument);
    EXPECT_THROW(store.failAlways("subscribeChannels"), std::invalid_argument);
}

TEST_F(HostStoreTest, StoreOwnApiIsNotCounted) {
    Id const ups = store.addDevice("UPS");
    Id const ch = store.addChannel(ups, "C");
    store.setChannelValue(ch, kq::CValue(1));
    (void)store.channelValue(ch);
    (void)store.hasDevice(ups);
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(store.calls("getDevice"), 0u);
}

TEST_F(HostStoreTest, CallsThatFailAreCountedToo) {
    EXPECT_THROW(inBand.getChannelCValue(123), cdshost::NotFound);
    EXPECT_EQ(store.calls("getChannelCValue", 123), 1u);
}

TEST_F(HostStoreTest, ResetCallsClearsOnlyTheCallCounts) {
    Id const ups = store.addDevice("UPS");
    (void)inBand.getDevice(ups);
    watchDevice(ups, kq::sub::DeviceChanged, "x");
    store.resetCalls();
    EXPECT_EQ(store.calls("getDevice"), 0u);
    EXPECT_EQ(store.calls("getDevice", ups), 0u);
    EXPECT_EQ(store.calls("subscribeDevice"), 0u);
    EXPECT_EQ(store.subscriptionCount(), 1u);
    EXPECT_EQ(store.connections("test"), 1u);
}

TEST_F(HostStoreTest, SubscriptionsListOpenOnesInOpeningOrder) {
    Id const s1 = watchChannel(10, kq::sub::ChannelValue, "a");
    Id const s2 = watchDevice(20, kq::sub::DeviceCreated, "b");
    Id const s3 = watchAlarms(30, "c");
    inBand.unsubscribe(s2);
    std::vector<cdshost::SubscriptionInfo> const open = store.subscriptions();
    ASSERT_EQ(open.size(), 2u);
    EXPECT_EQ(open[0].subscriptionId, s1);
    EXPECT_EQ(open[0].kind, "channel");
    EXPECT_EQ(open[0].type, kq::sub::ChannelValue);
    EXPECT_EQ(open[0].target, 10u);
    EXPECT_EQ(open[0].clientName, "test");
    EXPECT_EQ(open[1].subscriptionId, s3);
    EXPECT_EQ(open[1].kind, "alarm");
    EXPECT_EQ(open[1].type, 0);
    EXPECT_EQ(open[1].target, 30u);
}

TEST_F(HostStoreTest, SubscriptionsKeepOpeningOrderAndIdsWhenMostEndInAnyOrder) {
    // Ending subscriptions in the middle, from the front and from the back, far
    // more than stay open, must neither lose nor reorder the open ones, and an
    // ended id stays unknown.
    std::vector<Id> opened;
    for (Id channel = 1; channel <= 60; ++channel) {
        opened.push_back(watchChannel(channel, kq::sub::ChannelValue, "c"));
    }
    std::vector<Id> kept;
    for (std::size_t i = 0; i < opened.size(); ++i) {
        if (i % 7 == 3) {
            kept.push_back(opened[i]);
        }
    }
    for (std::size_t i = 0; i < opened.size(); i += 2) {  // every other one, front to back
        if (i % 7 != 3) {
            inBand.unsubscribe(opened[i]);
        }
    }
    for (std::size_t i = opened.size() - 1; i < opened.size(); i -= 2) {  // the rest, back to front
        if (i % 7 != 3) {
            inBand.unsubscribe(opened[i]);
        }
    }
    std::vector<cdshost::SubscriptionInfo> const open = store.subscriptions();
    ASSERT_EQ(open.size(), kept.size());
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(open[i].subscriptionId, kept[i]);
    }
    EXPECT_EQ(store.subscriptionCount(), kept.size());
    EXPECT_THROW(inBand.unsubscribe(opened[0]), cdshost::NotFound);
    EXPECT_THROW(inBand.unsubscribe(opened[1]), cdshost::NotFound);
    // Ids keep growing after the compaction, and the open ones can be ended.
    Id const more = watchChannel(61, kq::sub::ChannelValue, "c");
    EXPECT_GT(more, opened.back());
    for (Id const id : kept) {
        EXPECT_NO_THROW(inBand.unsubscribe(id));
    }
    inBand.unsubscribe(more);
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_TRUE(store.subscriptions().empty());
}

TEST_F(HostStoreTest, SubscriptionCountByKindTypeAndTarget) {
    watchChannel(10, kq::sub::ChannelValue, "a");
    watchChannel(10, kq::sub::ChannelValue, "b");
    watchChannel(10, kq::sub::ChannelState, "c");
    watchDevice(10, kq::sub::DeviceChanged, "d");
    watchAlarms(10, "e");
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, 10), 2u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, 10), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelSettings, 10), 0u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceChanged, 10), 1u);
    EXPECT_EQ(store.subscriptionCount("alarm", 0, 10), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, 11), 0u);
    EXPECT_EQ(store.subscriptionCount(), 5u);
}

TEST_F(HostStoreTest, ConnectionsCountPerClientName) {
    EXPECT_EQ(store.connections("test"), 1u);
    EXPECT_EQ(store.connections("other"), 0u);
    cdsapi::CdsAccessor second("other", true);
    cdsapi::CdsAccessor third("other", true);
    EXPECT_EQ(store.connections("other"), 2u);
    EXPECT_EQ(store.calls("CdsAccessor"), 3u);
}

TEST_F(HostStoreTest, WithoutCountingPerIdOnlyTotalsAndAChannelsValueReadsAreCounted) {
    Id const device = store.addDevice("UPS");
    Id const channel = store.addChannel(device, "Load", kq::CValue(1.5f));
    store.countCallsPerId(false);
    Id const subscription = watchChannel(channel, kq::sub::ChannelValue, "v");
    inBand.unsubscribe(subscription);
    EXPECT_THROW(inBand.getChannelCValue(channel + 1000), cdshost::NotFound);
    EXPECT_EQ(inBand.getChannelCValue(channel), kq::CValue(1.5f));
    EXPECT_EQ(store.calls("subscribeChannel"), 1u);
    EXPECT_EQ(store.calls("unsubscribe"), 1u);
    EXPECT_EQ(store.calls("getChannelCValue"), 2u);
    EXPECT_EQ(store.calls("subscribeChannel", channel), 0u);
    EXPECT_EQ(store.calls("unsubscribe", subscription), 0u);
    EXPECT_EQ(store.calls("getChannelCValue", channel + 1000), 0u);
    EXPECT_EQ(store.calls("getChannelCValue", channel), 1u);  // the channel counts it
}

TEST_F(HostStoreTest, WithoutCountingPerIdARemovedChannelLeavesNoCountBehind) {
    // A daemon's store sees channels come and go under new ids for as long
    // as it runs (a UPS that drops out and comes back): what a channel
    // counted goes with it, or the counts would grow with every return.
    store.countCallsPerId(false);
    Id const device = store.addDevice("UPS");
    Id const channel = store.addChannel(device, "Load", kq::CValue(1.5f));
    watchChannel(channel, kq::sub::ChannelValue, "v");
    (void)inBand.getChannelCValue(channel);
    EXPECT_EQ(store.calls("getChannelCValue", channel), 1u);
    store.removeDevice(device);
    EXPECT_EQ(store.calls("getChannelCValue", channel), 0u);
    EXPECT_EQ(store.calls("subscribeChannel", channel), 0u);
    EXPECT_EQ(store.calls("getChannelCValue"), 1u);
    EXPECT_EQ(store.calls("subscribeChannel"), 1u);
}

TEST_F(HostStoreTest, ResetTurnsCountingPerIdBackOn) {
    store.countCallsPerId(false);
    store.reset();
    Id const device = store.addDevice("UPS");
    (void)inBand.getDevice(device);
    EXPECT_EQ(store.calls("getDevice", device), 1u);
}

// ---- Fault injection --------------------------------------------------------------------

TEST_F(HostStoreTest, FailsTheFirstThreeTimesThenSucceeds) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(7));
    store.failNext("getChannelCValue", 3);
    int attempts = 0;
    kq::CValue value;
    for (;;) {
        ++attempts;
        try {
            value = inBand.getChannelCValue(ch);
            break;
        } catch (cdshost::InjectedFault const&) {
            ASSERT_LT(attempts, 10) << "the fault never wore off";
        }
    }
    EXPECT_EQ(attempts, 4);
    EXPECT_EQ(store.calls("getChannelCValue"), 4u);
    EXPECT_EQ(value, kq::CValue(7));
}

TEST_F(HostStoreTest, FailCallFailsExactlyTheNthCallOnce) {
    Id const ups = store.addDevice("UPS");
    store.failCall("getDevice", 3, cdshost::FaultKind::NonStandard);
    EXPECT_NO_THROW(inBand.getDevice(ups));
    EXPECT_NO_THROW(inBand.getSubDevicesIds(ups, 0));  // other operations do not count
    EXPECT_NO_THROW(inBand.getDevice(ups));
    EXPECT_THROW(inBand.getDevice(ups), cdshost::ForeignFault);
    EXPECT_NO_THROW(inBand.getDevice(ups));
    EXPECT_THROW(store.failCall("getDevice", 0), std::invalid_argument);
}

TEST_F(HostStoreTest, CallsByOperationListsEveryOperationCalled) {
    Id const ups = store.addDevice("UPS");
    store.resetCalls();
    inBand.getDevice(ups);
    inBand.getDevice(ups);
    static_cast<void>(inBand.getSubDevicesIds(ups, 0));

    EXPECT_EQ(store.callsByOperation(),
              (std::map<std::string, std::size_t>{{"getDevice", 2}, {"getSubDevicesIds", 1}}));
}

TEST_F(HostStoreTest, FailNextDefaultsToOneFailure) {
    Id const ups = store.addDevice("UPS");
    store.failNext("getDevice");
    EXPECT_THROW(inBand.getDevice(ups), cdshost::InjectedFault);
    EXPECT_NO_THROW(inBand.getDevice(ups));
}

TEST_F(HostStoreTest, InjectedFaultIsAStdRuntimeErrorNamingTheOperation) {
    store.failNext("getDevice");
    try {
        (void)inBand.getDevice(1);
        FAIL() << "no exception";
    } catch (std::runtime_error const& e) {
        EXPECT_NE(std::string(e.what()).find("getDevice"), std::string::npos) << e.what();
    }
}

TEST_F(HostStoreTest, FaultIsCheckedBeforeTheOperationRuns) {
    // A fault wins over NotFound, and a failed setter leaves the world as it was.
    store.failNext("getDevice");
    EXPECT_THROW(inBand.getDevice(404), cdshost::InjectedFault);
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(1));
    watchChannel(ch, kq::sub::ChannelValue, "value");
    store.failNext("setChannelCValue");
    EXPECT_THROW(inBand.setChannelCValue(ch, kq::CValue(2)), cdshost::InjectedFault);
    EXPECT_EQ(store.channelValue(ch), kq::CValue(1));
    EXPECT_TRUE(log.empty());
}

TEST_F(HostStoreTest, FailAlwaysKeepsFailingUntilCleared) {
    Id const ups = store.addDevice("UPS");
    store.failAlways("getDevice");
    for (int i = 0; i < 5; ++i) {
        EXPECT_THROW(inBand.getDevice(ups), cdshost::InjectedFault);
    }
    EXPECT_EQ(store.calls("getDevice"), 5u);
    store.clearFaults();
    EXPECT_NO_THROW(inBand.getDevice(ups));
}

TEST_F(HostStoreTest, FailNextWithTimesZeroFailsAlways) {
    store.failNext("getDevice", 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THROW(inBand.getDevice(1), cdshost::InjectedFault);
    }
}

TEST_F(HostStoreTest, FaultForOneIdLeavesOtherIdsAlone) {
    Id const ups = store.addDevice("UPS");
    Id const a = store.addChannel(ups, "A", kq::CValue(1));
    Id const b = store.addChannel(ups, "B", kq::CValue(2));
    store.failAlways("getChannelCValue", a);
    EXPECT_THROW(inBand.getChannelCValue(a), cdshost::InjectedFault);
    EXPECT_EQ(inBand.getChannelCValue(b), kq::CValue(2));
    EXPECT_THROW(inBand.getChannelCValue(a), cdshost::InjectedFault);
}

TEST_F(HostStoreTest, FaultForOneOperationLeavesOtherOperationsAlone) {
    Id const ch = store.addChannel(store.addDevice("UPS"), "C", kq::CValue(1));
    store.failAlways("setChannelCValue");
    EXPECT_EQ(inBand.getChannelCValue(ch), kq::CValue(1));
}

TEST_F(HostStoreTest, NonStandardFaultThrowsForeignFaultThatIsNoStdException) {
    store.failNext("getDevice", 1, std::nullopt, cdshost::FaultKind::NonStandard);
    bool caughtAsStd = false;
    bool caughtForeign = false;
    try {
        (void)inBand.getDevice(1);
    } catch (std::exception const&) {
        caughtAsStd = true;
    } catch (cdshost::ForeignFault const& fault) {
        caughtForeign = true;
        EXPECT_EQ(fault.operation, "getDevice");
    }
    EXPECT_FALSE(caughtAsStd);
    EXPECT_TRUE(caughtForeign);
}

TEST_F(HostStoreTest, ArmedFaultsAreUsedUpInTheOrderTheyWereArmed) {
    store.failNext("getDevice", 1, std::nullopt, cdshost::FaultKind::NonStandard);
    store.failNext("getDevice", 1, std::nullopt, cdshost::FaultKind::Standard);
    EXPECT_THROW(inBand.getDevice(1), cdshost::ForeignFault);
    EXPECT_THROW(inBand.getDevice(1), cdshost::InjectedFault);
    EXPECT_THROW(inBand.getDevice(1), cdshost::NotFound);
}

TEST_F(HostStoreTest, FaultOnGetDeviceByNameIgnoresTheId) {
    store.addDevice("UPS", 2);
    store.failNext("getDeviceByName", 1, 99);
    EXPECT_THROW(client.getDeviceByName("UPS"), cdshost::InjectedFault);
    EXPECT_EQ(client.getDeviceByName("UPS"), 2u);
}

TEST_F(HostStoreTest, FaultOnUnsubscribeLeavesTheSubscriptionOpen) {
    Id const subscription = watchDevice(1, kq::sub::DeviceChanged, "x");
    store.failNext("unsubscribe", 1, subscription);
    EXPECT_THROW(inBand.unsubscribe(subscription), cdshost::InjectedFault);
    EXPECT_EQ(store.subscriptionCount(), 1u);
    store.notifyDevice(1, kq::sub::DeviceChanged);
    EXPECT_EQ(log, (Log{"x:1"}));
    inBand.unsubscribe(subscription);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(HostStoreTest, FaultOnSubscribeOpensNothing) {
    store.failNext("subscribeChannel");
    Id subscription = 0;
    EXPECT_THROW(inBand.subscribeChannel(
                     1, [](Id, kq::CValue) {}, kq::sub::ChannelValue, &subscription),
                 cdshost::InjectedFault);
    EXPECT_EQ(subscription, 0u);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(HostStoreTest, ClearFaultsAlsoForgetsNameAnswers) {
    store.answerName("ghost", 5);
    EXPECT_EQ(client.getDeviceByName("ghost"), 5u);
    store.clearFaults();
    EXPECT_THROW(client.getDeviceByName("ghost"), cdshost::NotFound);
}

// ---- Lifetime --------------------------------------------------------------------------

// Only the death test's child process exits through the check below.
bool g_checkAtExit = false;

void reachForTheStoreAfterExit() {
    if (!g_checkAtExit) {
        return;
    }
    try {
        (void)Store::instance();
    } catch (std::logic_error const&) {
        std::_Exit(3);
    }
    std::_Exit(4);
}

TEST(HostStoreLifetimeTest, StoreReachedAfterItsDestructionAtExitThrowsLogicError) {
    // Registered before the store exists, so it runs after the store's
    // destructor, like the destructor of a static built before the store.
    std::atexit(reachForTheStoreAfterExit);
    EXPECT_EXIT(
        {
            g_checkAtExit = true;
            (void)Store::instance();
            std::exit(0);
        },
        ::testing::ExitedWithCode(3), "");
}

}  // namespace
