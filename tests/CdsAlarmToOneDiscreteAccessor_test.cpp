// CdsAlarmToOneDiscreteAccessor against the host data store: the value rules
// of each AlarmType, detection and its outcomes, its own registries and their
// handlers.
#include "modbus/CdsAlarmToOneDiscreteAccessor.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "modbus/CdsChannelAccessor.h"
#include "value_recorder.h"

namespace {

using modbus::AlarmType;
using modbus::CdsAlarmToOneDiscreteAccessor;
using Accessor = CdsAlarmToOneDiscreteAccessor;

constexpr unsigned long long kAllOnes = ~0ULL;
constexpr int kChanged = kq::sub::DeviceChanged;
constexpr int kCreated = kq::sub::DeviceCreated;

cdshost::Store& store() {
    return cdshost::Store::instance();
}

using accessor_test::Recorder;
using accessor_test::SelfChangingListener;

std::size_t deviceSubs(int type, cdshost::Id id) {
    return store().subscriptionCount("device", type, id);
}
std::size_t alarmSubs(cdshost::Id channel) {
    return store().subscriptionCount("alarm", 0, channel);
}

template <typename Registry>
bool holds(Registry const& registry, cdshost::Id id, Accessor* accessor) {
    auto const entry = registry.find(id);
    return entry != registry.end() && entry->second.count(accessor) != 0;
}
bool inAlarmRegistry(cdshost::Id id, Accessor* accessor) {
    return holds(Accessor::m_mapChannelAccessorChannelAlarmSubscriber, id, accessor);
}
bool inSettingsRegistry(cdshost::Id id, Accessor* accessor) {
    return holds(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber, id, accessor);
}
bool inCreationRegistry(cdshost::Id id, Accessor* accessor) {
    return holds(Accessor::m_mapChannelAccessorDeviceCreationSubscriber, id, accessor);
}

kq::CValue const kTrue(true);
kq::CValue const kFalse(false);

class CdsAlarmToOneDiscreteAccessorTest : public ::testing::Test {
  protected:
    static constexpr cdshost::Id kUps = 10;
    static constexpr cdshost::Id kFault = 100;  // a boolean channel with an alarm

    void SetUp() override {
        store().addDevice("UPS", kUps);
        store().addChannel(kUps, "Output.Overload", kq::CValue(false), kFault);
        store().setAlarmEnabled(kFault, true);
    }

    /* Bound to the alarm of kFault: settings on the device, alarm on the channel. */
    static void expectBound(Accessor* accessor, cdshost::Id device = kUps,
                            cdshost::Id channel = kFault) {
        EXPECT_TRUE(accessor->isExitingInCds());
        EXPECT_TRUE(inAlarmRegistry(channel, accessor));
        EXPECT_TRUE(inSettingsRegistry(device, accessor));
        EXPECT_EQ(alarmSubs(channel), 1u);
        EXPECT_EQ(deviceSubs(kChanged, device), 1u);
        EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
    }

    /* Device present, channel absent: only the device's settings subscription. */
    static void expectWaitingForChannel(Accessor* accessor, cdshost::Id device = kUps) {
        EXPECT_FALSE(accessor->isExitingInCds());
        EXPECT_TRUE(inSettingsRegistry(device, accessor));
        EXPECT_EQ(deviceSubs(kChanged, device), 1u);
        EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
        EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
        EXPECT_EQ(store().subscriptionCount(), 1u);
    }

    /* Device absent: only the creation subscription of the configured id. */
    static void expectWaitingForDevice(Accessor* accessor, cdshost::Id configured) {
        EXPECT_FALSE(accessor->isExitingInCds());
        EXPECT_TRUE(inCreationRegistry(configured, accessor));
        EXPECT_EQ(deviceSubs(kCreated, configured), 1u);
        EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
        EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
        EXPECT_EQ(store().subscriptionCount(), 1u);
    }

    /* The value of a fresh accessor of `type` on kFault. */
    static kq::CValue valueOf(int type) {
        Accessor const accessor(kUps, "Output.Overload", static_cast<AlarmType>(type));
        return accessor.getCValue();
    }
};

// ---- Value rules ---------------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       DisabledAlarmIsFalseForEveryTypeWithoutReadingTheChannel) {
    store().setAlarmThresholdFlag(kFault, false);  // would make type 0 true
    store().raiseAlarm(kFault, {7, true});         // would make types 3 and 4 true
    store().setAlarmEnabled(kFault, false);
    for (int type = 0; type <= 4; ++type) {
        Accessor const accessor(kUps, "Output.Overload", static_cast<AlarmType>(type));
        store().resetCalls();
        EXPECT_EQ(accessor.getCValue(), kFalse) << "type " << type;
        EXPECT_EQ(store().calls("getChannelAlarmEnabled", kFault), 1u);
        EXPECT_EQ(store().calls("getChannelCValue"), 0u);
        EXPECT_EQ(store().calls("getChannel"), 0u);
        EXPECT_EQ(store().calls("getChannelAlarmTriggerThreshold"), 0u);
    }
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, TriggerIsTrueWhenTheBoolValueEqualsTheThresholdFlag) {
    store().setChannelValue(kFault, kq::CValue(true));
    store().setAlarmThresholdFlag(kFault, true);
    EXPECT_EQ(valueOf(modbus::AlarmTypeTrigger), kTrue);
    store().setChannelValue(kFault, kq::CValue(false));
    store().setAlarmThresholdFlag(kFault, false);
    EXPECT_EQ(valueOf(modbus::AlarmTypeTrigger), kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       TriggerIsFalseWhenTheBoolValueDiffersFromTheThresholdFlag) {
    store().setChannelValue(kFault, kq::CValue(false));
    store().setAlarmThresholdFlag(kFault, true);
    EXPECT_EQ(valueOf(modbus::AlarmTypeTrigger), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, TriggerIsFalseForAnIntChannelHolding1AndThresholdTrue) {
    // Intended: values of different alternatives are never equal.
    store().setChannelValue(kFault, kq::CValue(1));
    store().setAlarmThresholdFlag(kFault, true);
    EXPECT_EQ(valueOf(modbus::AlarmTypeTrigger), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, TriggerDoesNotLookAtTheAlarmRecord) {
    store().raiseAlarm(kFault, {7, true});
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    store().resetCalls();
    EXPECT_EQ(accessor.getCValue(), kTrue);  // value false equals threshold flag false
    EXPECT_EQ(store().calls("getChannel"), 0u);
    EXPECT_EQ(store().calls("getChannelCValue", kFault), 1u);
    EXPECT_EQ(store().calls("getChannelAlarmTriggerThreshold", kFault), 1u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, RecordTypesAreFalseWithoutAnAlarmRecord) {
    for (int type = 1; type <= 4; ++type) {
        EXPECT_EQ(valueOf(type), kFalse) << "type " << type;
    }
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FlagFalseLevel3IsTrueForFlagClearOnly) {
    store().raiseAlarm(kFault, {3, false});
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClear), kTrue);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClearLevel7), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSet), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSetLevel7), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FlagFalseLevel7IsTrueForBothFlagClearTypes) {
    // Intended overlap: the level only matters to a type that asks about it.
    store().raiseAlarm(kFault, {7, false});
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClear), kTrue);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClearLevel7), kTrue);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSet), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSetLevel7), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FlagTrueLevel3IsTrueForFlagSetOnly) {
    store().raiseAlarm(kFault, {3, true});
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClear), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClearLevel7), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSet), kTrue);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSetLevel7), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FlagTrueLevel7IsTrueForBothFlagSetTypes) {
    store().raiseAlarm(kFault, {7, true});
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClear), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClearLevel7), kFalse);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSet), kTrue);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSetLevel7), kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, RecordTypesReadTheChannelOfTheDetectedDevice) {
    store().raiseAlarm(kFault, {3, false});
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    store().resetCalls();
    EXPECT_EQ(accessor.getCValue(), kTrue);
    EXPECT_EQ(store().calls("getChannel", kUps), 1u);
    EXPECT_EQ(store().calls("getChannelCValue"), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, Type7IsAlwaysFalse) {
    EXPECT_EQ(valueOf(7), kFalse);
    for (bool const direction : {false, true}) {
        for (std::int32_t const level : {3, 7}) {
            store().raiseAlarm(kFault, {level, direction});
            EXPECT_EQ(valueOf(7), kFalse) << "level " << level << " direction " << direction;
        }
    }
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ValueIsABool) {
    store().raiseAlarm(kFault, {3, false});
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagClear).type(), kq::CValue::Type::Bool);
    EXPECT_EQ(valueOf(modbus::AlarmTypeFlagSet).type(), kq::CValue::Type::Bool);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, NotFoundReadsFalseNeverInvalid) {
    Accessor const noDevice(77, "Output.Overload", modbus::AlarmTypeTrigger);
    Accessor const noChannel(kUps, "No.Such.Channel", modbus::AlarmTypeTrigger);
    store().resetCalls();
    EXPECT_EQ(noDevice.getCValue(), kFalse);
    EXPECT_EQ(noChannel.getCValue(), kFalse);
    EXPECT_FALSE(noDevice.isExitingInCds());
    EXPECT_FALSE(noChannel.isExitingInCds());
    EXPECT_EQ(store().calls("getChannelAlarmEnabled"), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, GetCValueLetsAlarmEnabledFailureThrough) {
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    store().failNext("getChannelAlarmEnabled");
    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, GetCValueLetsValueReadFailureThrough) {
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    store().failNext("getChannelCValue");
    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, GetCValueLetsThresholdReadFailureThrough) {
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    store().failNext("getChannelAlarmTriggerThreshold");
    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, GetCValueLetsChannelReadFailureThrough) {
    Accessor const accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    store().failNext("getChannel");
    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

// ---- Writes ----------------------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest, SetCValueWritesNothing) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    store().resetCalls();
    accessor.setCValue(kq::CValue(true));
    for (char const* const setter :
         {"setChannelCValue", "setChannelAlarmEnabled", "setChannelAlarmTriggerThreshold",
          "setChannelAlarmHysteresis", "setChannelAlarmLevel", "setDeviceAttribute"}) {
        EXPECT_EQ(store().calls(setter), 0u) << setter;
    }
    EXPECT_EQ(store().channelValue(kFault), kq::CValue(false));
    EXPECT_FALSE(store().alarmSettings(kFault).thresholdFlag);
}

// ---- Detection -------------------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ByIdBindsTheChannelAlarmKeyedByChannelId) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    expectBound(&accessor);
    EXPECT_EQ(alarmSubs(kUps), 0u);  // keyed by the channel, not the device
    EXPECT_EQ(store().subscriptionCount(), 2u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ByNameBindsTheChannel) {
    Accessor accessor(std::string("UPS"), "Output.Overload", modbus::AlarmTypeTrigger);
    expectBound(&accessor);
    EXPECT_EQ(store().calls("getDeviceByName"), 1u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, IndexPathBindsTheChannelOfTheSubDevice) {
    store().addDevice("Module 0", 20, kUps);
    store().addDevice("Module 1", 21, kUps);
    store().addChannel(21, "Fan.Failure", kq::CValue(false), 200);
    store().setAlarmEnabled(200, true);
    store().raiseAlarm(200, {7, true});
    Accessor accessor(kUps, {1}, "Fan.Failure", modbus::AlarmTypeFlagSetLevel7);
    expectBound(&accessor, 21, 200);
    EXPECT_EQ(accessor.getCValue(), kTrue);
    EXPECT_EQ(store().lastSubDeviceSelector(kUps), 0u);  // the direct sub-devices
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, IndexPathBeyondTheListWaitsForTheConfiguredDevice) {
    store().addDevice("Module 0", 20, kUps);
    Accessor accessor(kUps, {1}, "Fan.Failure", modbus::AlarmTypeFlagSet);
    expectWaitingForDevice(&accessor, kUps);
    EXPECT_EQ(accessor.getCValue(), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, MissingDeviceWaitsForCreationAndBindsWhenCreated) {
    Accessor accessor(77, "Fan.Failure", modbus::AlarmTypeFlagSet);
    expectWaitingForDevice(&accessor, 77);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().addDevice("Bypass", 77, 0, false);
    store().addChannel(77, "Fan.Failure", kq::CValue(false), 700, false);
    store().setAlarmEnabled(700, true, false);
    store().raiseAlarm(700, {5, true}, false);
    store().notifyDevice(77, kq::sub::DeviceCreated);
    expectBound(&accessor, 77, 700);
    EXPECT_EQ(deviceSubs(kCreated, 77), 0u);
    ASSERT_EQ(recorder.values.size(), 2u);
    EXPECT_EQ(recorder.values[0], kFalse);
    EXPECT_EQ(recorder.values[1], kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, MissingChannelWaitsForADeviceChangeNotForCreation) {
    Accessor accessor(kUps, "Fan.Failure", modbus::AlarmTypeFlagSet);
    expectWaitingForChannel(&accessor);
    EXPECT_EQ(deviceSubs(kCreated, kUps), 0u);
    EXPECT_EQ(accessor.getCValue(), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ChannelAddedLaterIsBoundOnTheDeviceChange) {
    Accessor accessor(kUps, "Fan.Failure", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().addChannel(kUps, "Fan.Failure", kq::CValue(false), 101);  // notifies the device
    expectBound(&accessor, kUps, 101);
    EXPECT_EQ(recorder.values.back(), kFalse);
    store().setAlarmEnabled(101, true);
    store().raiseAlarm(101, {3, true});
    EXPECT_EQ(recorder.values.back(), kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ByNameLookupFailureStillConstructsAndWaitsUnderAllOnes) {
    Accessor accessor(std::string("Bypass"), "Fan.Failure", modbus::AlarmTypeFlagSet);
    EXPECT_EQ(accessor.getCValue(), kFalse);
    expectWaitingForDevice(&accessor, kAllOnes);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ByNameLooksTheNameUpAgainWhenAnyDeviceIsCreated) {
    Accessor accessor(std::string("Bypass"), "Fan.Failure", modbus::AlarmTypeFlagSet);
    store().resetCalls();
    // Creation of any device is heard on the all-ones id.
    store().addDevice("Other", 60);
    EXPECT_EQ(store().calls("getDeviceByName"), 1u);
    expectWaitingForDevice(&accessor, kAllOnes);

    store().addDevice("Bypass", 77);
    EXPECT_EQ(store().calls("getDeviceByName"), 2u);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_TRUE(inSettingsRegistry(77, &accessor));

    store().addChannel(77, "Fan.Failure", kq::CValue(false), 700);  // a change of device 77
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_TRUE(inAlarmRegistry(700, &accessor));
    EXPECT_EQ(alarmSubs(700), 1u);
    EXPECT_EQ(deviceSubs(kChanged, 77), 1u);
    // Creation is left under the resolved id, so the all-ones entry stays
    // while the accessor lives; the name is not looked up again.
    EXPECT_TRUE(inCreationRegistry(kAllOnes, &accessor));
    store().addDevice("Third", 61);
    EXPECT_EQ(store().calls("getDeviceByName"), 2u);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       ByNameAccessorResolvedLateLeavesTheAllOnesEntryOnDestruction) {
    {
        Accessor const accessor(std::string("Bypass"), "Fan.Failure", modbus::AlarmTypeFlagSet);
        store().addDevice("Bypass", 77);
        ASSERT_EQ(deviceSubs(kCreated, kAllOnes), 1u);
    }
    EXPECT_EQ(deviceSubs(kCreated, kAllOnes), 0u);
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_NO_THROW(store().addDevice("Later", 78));
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ByNameInjectedLookupFailureCountsAsNotFound) {
    store().failNext("getDeviceByName");
    Accessor accessor(std::string("UPS"), "Output.Overload", modbus::AlarmTypeTrigger);
    expectWaitingForDevice(&accessor, kAllOnes);
    EXPECT_EQ(store().calls("getDevice"), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, GetDeviceFailureCountsAsNotFound) {
    store().failNext("getDevice");
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    expectWaitingForDevice(&accessor, kUps);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, SubDeviceListFailureCountsAsNotFound) {
    store().addDevice("Module 0", 20, kUps);
    store().failNext("getSubDevicesIds");
    Accessor accessor(kUps, {0}, "Output.Overload", modbus::AlarmTypeTrigger);
    expectWaitingForDevice(&accessor, kUps);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ChannelIdFailureCountsAsNoChannel) {
    store().failNext("getChannelId");
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    expectWaitingForChannel(&accessor);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, AlarmSubscriptionFailureLeavesTheConstructor) {
    store().failNext("subscribeDeviceAlarms");
    EXPECT_THROW(Accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger),
                 cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ThrowingConstructorClosesTheSubscriptionsItOpened) {
    store().failNext("subscribeDeviceAlarms");
    // The device's settings subscription is opened before the alarm's fails.
    EXPECT_THROW(Accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger),
                 cdshost::InjectedFault);

    EXPECT_EQ(store().calls("subscribeDevice", kUps), 1u);
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ThrowingConstructorIsNeverReachedByALaterDeviceChange) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(Accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger),
                 cdshost::InjectedFault);
    Accessor survivor(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    EXPECT_EQ(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.at(kUps).size(), 1u);

    EXPECT_NO_THROW(store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 3000"));
    EXPECT_TRUE(survivor.isExitingInCds());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ListenerThatClearsItselfRunsToItsEnd) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    SelfChangingListener listener;
    accessor.setUpdateCallback(listener.listener(2, [&] { accessor.setUpdateCallback({}); }));

    store().raiseAlarm(kFault, kq::CAlarmRecord{});
    store().clearAlarm(kFault);

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 2);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ListenerThatReplacesItselfRunsToItsEnd) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    SelfChangingListener listener;
    Recorder recorder;
    accessor.setUpdateCallback(
        listener.listener(1, [&] { accessor.setUpdateCallback(recorder.listener()); }));

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kFalse}));
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, DeviceSubscriptionFailureLeavesTheConstructor) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(Accessor(kUps, "Output.Overload", modbus::AlarmTypeTrigger),
                 cdshost::InjectedFault);
    store().failNext("subscribeDevice");
    EXPECT_THROW(Accessor(77, "Output.Overload", modbus::AlarmTypeTrigger), cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, AccessorsOfOneChannelShareOneAlarmSubscription) {
    auto first = std::make_unique<Accessor>(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    auto second = std::make_unique<Accessor>(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    EXPECT_EQ(alarmSubs(kFault), 1u);
    EXPECT_EQ(deviceSubs(kChanged, kUps), 1u);
    first.reset();
    EXPECT_EQ(alarmSubs(kFault), 1u);
    second.reset();
    EXPECT_EQ(store().subscriptionCount(), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, DestructorClosesEverySubscription) {
    {
        Accessor const bound(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
        Accessor const waitingForChannel(kUps, "Fan.Failure", modbus::AlarmTypeTrigger);
        Accessor const waitingForDevice(77, "Fan.Failure", modbus::AlarmTypeTrigger);
        Accessor const waitingForName(std::string("Bypass"), "Fan.Failure",
                                      modbus::AlarmTypeTrigger);
        EXPECT_EQ(store().subscriptionCount(), 4u);
    }
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriberId.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriberId.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriberId.empty());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, RegistriesAreSeparateFromTheChannelAccessors) {
    Accessor const alarm(kUps, "Output.Overload", modbus::AlarmTypeTrigger);
    EXPECT_TRUE(modbus::CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
    modbus::CdsChannelAccessor const channel(kUps, "Output.Overload", modbus::DataType::Value);
    // Each class opens its own settings subscription for the same device.
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
    EXPECT_EQ(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.at(kUps).size(), 1u);
    EXPECT_EQ(
        modbus::CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriber.at(kUps).size(),
        1u);
}

// ---- Listener --------------------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest, InstallingACallbackCallsItOnceWithTheCurrentValue) {
    store().raiseAlarm(kFault, {3, true});
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    ASSERT_EQ(recorder.values.size(), 1u);
    EXPECT_EQ(recorder.values[0], kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       InstallingAnEmptyCallbackCallsNothingAndRemovesTheOldOne) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    accessor.setUpdateCallback({});
    store().raiseAlarm(kFault, {3, true});
    EXPECT_EQ(recorder.values.size(), 1u);
}

// ---- Alarm notifications -----------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest, RaisedAndClearedAlarmReachesTheCallback) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().raiseAlarm(kFault, {3, true});
    store().clearAlarm(kFault);
    ASSERT_EQ(recorder.values.size(), 3u);
    EXPECT_EQ(recorder.values[1], kTrue);
    EXPECT_EQ(recorder.values[2], kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       AlarmNotificationProbesTheChannelOnceAndReadsEachAccessor) {
    Accessor set(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Accessor clear(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    Recorder setValues;
    Recorder clearValues;
    set.setUpdateCallback(setValues.listener());
    clear.setUpdateCallback(clearValues.listener());
    store().raiseAlarm(kFault, {3, false}, false);
    store().resetCalls();
    Accessor::cdsChannelAlarm(kFault);
    EXPECT_EQ(store().calls("getChannelCValue", kFault), 1u);
    EXPECT_EQ(store().calls("getChannel", kUps), 2u);
    EXPECT_EQ(setValues.values.back(), kFalse);
    EXPECT_EQ(clearValues.values.back(), kTrue);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, AlarmNotificationForAnUnregisteredIdThrowsMapAt) {
    try {
        Accessor::cdsChannelAlarm(4242);
        FAIL() << "expected std::out_of_range";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, ChannelRemovedWhileTheDeviceStaysWaitsForADeviceChange) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().removeChannel(kFault, false);
    store().notifyAlarm(kFault);
    EXPECT_EQ(recorder.values.back(), kFalse);
    expectWaitingForChannel(&accessor);
    EXPECT_EQ(alarmSubs(kFault), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FailedProbeMarksEveryAccessorGoneBeforeAnyRedetects) {
    Accessor a(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Accessor b(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    Accessor& first = std::less<Accessor*>()(&a, &b) ? a : b;
    Accessor& second = &first == &a ? b : a;
    bool secondExistedWhenFirstRedetected = true;
    first.setUpdateCallback(
        [&](kq::CValue const&) { secondExistedWhenFirstRedetected = second.isExitingInCds(); });
    store().resetCalls();
    store().failNext("getChannelCValue", 1, kFault);
    Accessor::cdsChannelAlarm(kFault);
    EXPECT_FALSE(secondExistedWhenFirstRedetected);
    EXPECT_EQ(store().calls("getChannelId", kUps), 2u);
    // The channel is still there: both are bound again.
    EXPECT_TRUE(a.isExitingInCds());
    EXPECT_TRUE(b.isExitingInCds());
    EXPECT_EQ(alarmSubs(kFault), 1u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, FailedReadInTheAlarmNotificationRedetectsEveryAccessor) {
    Accessor a(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Accessor b(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    store().resetCalls();
    store().failNext("getChannel");  // the first accessor's read
    Accessor::cdsChannelAlarm(kFault);
    EXPECT_EQ(store().calls("getDevice", kUps), 2u);
    EXPECT_TRUE(a.isExitingInCds());
    EXPECT_TRUE(b.isExitingInCds());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       FailedCallbackInTheAlarmNotificationRedetectsEveryAccessor) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    int calls = 0;
    accessor.setUpdateCallback([&calls](kq::CValue const&) {
        if (++calls == 2) {
            throw std::runtime_error("listener failed");
        }
    });
    store().resetCalls();
    Accessor::cdsChannelAlarm(kFault);
    EXPECT_EQ(calls, 3);  // the failing push, then the value after re-detection
    EXPECT_EQ(store().calls("getChannelId", kUps), 1u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, RedetectionFailureLeavesTheAlarmNotification) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    accessor.setUpdateCallback([](kq::CValue const&) {});
    store().failNext("getChannelCValue", 1, kFault);
    store().failNext("getChannelAlarmEnabled", 1, kFault);  // read by the re-detection's push
    EXPECT_THROW(Accessor::cdsChannelAlarm(kFault), cdshost::InjectedFault);
}

// ---- Device notifications --------------------------------------------------------

TEST_F(CdsAlarmToOneDiscreteAccessorTest, DeviceRemovedMakesTheAccessorWaitForCreation) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().removeDevice(kUps);
    expectWaitingForDevice(&accessor, kUps);
    EXPECT_EQ(recorder.values.back(), kFalse);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, SettingsNotificationWithTheChannelStillThereStaysBound) {
    Accessor accessor(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().resetCalls();
    Accessor::cdsDeviceSettings(kUps);
    expectBound(&accessor);
    EXPECT_EQ(store().calls("subscribeDevice"), 0u);
    EXPECT_EQ(store().calls("subscribeDeviceAlarms"), 0u);
    EXPECT_EQ(recorder.values.size(), 2u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, DeviceFoundUnderANewIdMovesTheAlarmSubscription) {
    store().addDevice("Module 0", 20, kUps);
    store().addDevice("Module 1", 21, kUps);
    store().addChannel(20, "Fan.Failure", kq::CValue(false), 200);
    store().addChannel(21, "Fan.Failure", kq::CValue(false), 210);
    Accessor accessor(kUps, {0}, "Fan.Failure", modbus::AlarmTypeFlagSet);
    expectBound(&accessor, 20, 200);
    store().removeDevice(20, false);  // module 1 moves to index 0
    Accessor::cdsDeviceSettings(20);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_TRUE(inAlarmRegistry(210, &accessor));
    EXPECT_FALSE(inAlarmRegistry(200, &accessor));
    EXPECT_EQ(alarmSubs(200), 0u);
    EXPECT_EQ(alarmSubs(210), 1u);
    EXPECT_TRUE(inSettingsRegistry(21, &accessor));
    // As in the channel accessor, the old device's settings entry is kept.
    EXPECT_TRUE(inSettingsRegistry(20, &accessor));
    EXPECT_EQ(deviceSubs(kChanged, 20), 1u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, DestroyedAfterMovingToANewDeviceLeavesEveryRegistry) {
    store().addDevice("Module 0", 20, kUps);
    store().addDevice("Module 1", 21, kUps);
    store().addChannel(21, "Fan.Failure", kq::CValue(false), 210);
    store().addChannel(20, "Fan.Failure", kq::CValue(false), 200);
    auto accessor = std::make_unique<Accessor>(kUps, std::vector<unsigned int>{0}, "Fan.Failure",
                                               modbus::AlarmTypeFlagSet);
    store().removeDevice(20, false);
    Accessor::cdsDeviceSettings(20);
    accessor.reset();
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       ChannelReplacedWithoutNotificationKeepsTheOldAlarmEntryUntilDestruction) {
    auto accessor = std::make_unique<Accessor>(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    store().removeChannel(kFault, false);
    store().addChannel(kUps, "Output.Overload", kq::CValue(false), 101, false);
    Accessor::cdsDeviceSettings(kUps);
    // Same device: the previous channel's alarm entry is not left.
    EXPECT_TRUE(accessor->isExitingInCds());
    EXPECT_EQ(alarmSubs(101), 1u);
    EXPECT_EQ(alarmSubs(kFault), 1u);
    accessor.reset();
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
    EXPECT_NO_THROW(store().notifyAlarm(kFault));
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, SettingsNotificationForAnUnregisteredIdDoesNothing) {
    store().resetCalls();
    EXPECT_NO_THROW(Accessor::cdsDeviceSettings(4242));
    EXPECT_EQ(store().calls("getDevice"), 0u);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, SettingsNotificationStopsAtTheFirstFailingAccessor) {
    Accessor a(kUps, "Output.Overload", modbus::AlarmTypeFlagSet);
    Accessor b(kUps, "Output.Overload", modbus::AlarmTypeFlagClear);
    Accessor& first = std::less<Accessor*>()(&a, &b) ? a : b;
    int calls = 0;
    first.setUpdateCallback([&calls](kq::CValue const&) {
        if (++calls == 2) {
            throw std::runtime_error("listener failed");
        }
    });
    store().resetCalls();
    EXPECT_NO_THROW(Accessor::cdsDeviceSettings(kUps));
    EXPECT_EQ(store().calls("getDevice"), 1u);  // the second accessor never detected again
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, CreationNotificationForAnUnregisteredIdThrowsMapAt) {
    try {
        Accessor::cdsDeviceCreation(4242);
        FAIL() << "expected std::out_of_range";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, CreationNotificationLetsAFailedSubscriptionThrough) {
    Accessor accessor(77, "Fan.Failure", modbus::AlarmTypeFlagSet);
    store().addDevice("Bypass", 77, 0, false);
    store().failNext("subscribeDevice");
    EXPECT_THROW(Accessor::cdsDeviceCreation(77), cdshost::InjectedFault);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest, CreatedDeviceWithoutTheChannelWaitsForADeviceChange) {
    Accessor accessor(77, "Fan.Failure", modbus::AlarmTypeFlagSet);
    store().addDevice("Bypass", 77);
    expectWaitingForChannel(&accessor, 77);
    EXPECT_EQ(deviceSubs(kCreated, 77), 0u);
}

// ---- Accessors destroyed by a listener during a notification ------------------------

using MutuallyDestroyingPair = accessor_test::MutuallyDestroyingPair<Accessor>;

/* Both accessors gone: no registry entry and no subscription left. */
void expectNothingLeft() {
    EXPECT_TRUE(Accessor::m_mapChannelAccessorChannelAlarmSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(Accessor::m_mapChannelAccessorDeviceCreationSubscriber.empty());
    EXPECT_EQ(store().subscriptionCount(), 0u);
}

std::unique_ptr<Accessor> overloadSetAccessor() {
    return std::make_unique<Accessor>(10, "Output.Overload", modbus::AlarmTypeFlagSet);
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       AccessorDestroyedByAnotherListenerDuringAnAlarmUpdateIsNotCalled) {
    MutuallyDestroyingPair pair(&overloadSetAccessor);
    pair.arm();

    store().raiseAlarm(kFault, {3, true});

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(inAlarmRegistry(kFault, pair.survivor()));
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       AccessorDestroyedByAnotherListenerDuringRedetectionIsNotDetected) {
    MutuallyDestroyingPair pair(&overloadSetAccessor);
    pair.arm();
    // The alarm's probe read fails, so both accessors detect again.
    store().failNext("getChannelCValue", 1);

    store().raiseAlarm(kFault, {3, true});

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       AccessorDestroyedByAnotherListenerDuringADeviceChangeIsNotDetected) {
    MutuallyDestroyingPair pair(&overloadSetAccessor);
    pair.arm();

    store().removeChannel(kFault);

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_FALSE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsAlarmToOneDiscreteAccessorTest,
       AccessorDestroyedByAnotherListenerDuringDeviceCreationIsNotDetected) {
    static constexpr cdshost::Id kLater = 20;
    MutuallyDestroyingPair pair(
        [] { return std::make_unique<Accessor>(kLater, "Fan.Fault", modbus::AlarmTypeFlagSet); });
    pair.arm();
    store().addDevice("Later", kLater, 0, false);
    store().addChannel(kLater, "Fan.Fault", kq::CValue(false), 200, false);

    store().notifyDevice(kLater, kq::sub::DeviceCreated);

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    expectNothingLeft();
}

}  // namespace
