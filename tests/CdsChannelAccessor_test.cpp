#include "modbus/CdsChannelAccessor.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "cdshost/store.h"
// Allocation failures on demand, while accessors are torn down.
#include "failing_allocation.h"
#include "modbus/CdsInBandAccessor.h"
#include "value_recorder.h"

namespace {

using cdshost::Id;
using cdshost::kAllOnes;
using modbus::CdsChannelAccessor;
using modbus::DataType;
using Accessors = std::set<CdsChannelAccessor*>;
using Registry = CdsChannelAccessor::AccessorRegistry;
using IdRegistry = CdsChannelAccessor::SubscriptionIdRegistry;
// kind, type, target of an open data-store subscription.
using Subscription = std::tuple<std::string, int, Id>;

constexpr Id kUps = 100;
constexpr Id kOtherUps = 200;
constexpr Id kVoltage = 1001;
constexpr Id kOtherChannel = 1002;
std::string const kUpsName = "UPS";
std::string const kVoltageName = "Output.Voltage";

Subscription channelSub(int type, Id target) {
    return {"channel", type, target};
}
Subscription deviceSub(int type, Id target) {
    return {"device", type, target};
}

using accessor_test::Recorder;
using accessor_test::SelfChangingListener;

class CdsChannelAccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();

    Registry& updates = CdsChannelAccessor::m_mapChannelAccessorChannelUpdateSubscriber;
    IdRegistry& updateIds = CdsChannelAccessor::m_mapChannelAccessorChannelUpdateSubscriberId;
    Registry& states = CdsChannelAccessor::m_mapChannelAccessorChannelStateSubscriber;
    IdRegistry& stateIds = CdsChannelAccessor::m_mapChannelAccessorChannelStateSubscriberId;
    Registry& settings = CdsChannelAccessor::m_mapChannelAccessorChannelSettingsSubscriber;
    IdRegistry& settingsIds = CdsChannelAccessor::m_mapChannelAccessorChannelSettingsSubscriberId;
    Registry& deviceSettings = CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriber;
    IdRegistry& deviceSettingsIds =
        CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriberId;
    Registry& creations = CdsChannelAccessor::m_mapChannelAccessorDeviceCreationSubscriber;
    IdRegistry& creationIds = CdsChannelAccessor::m_mapChannelAccessorDeviceCreationSubscriberId;

    /* The UPS with its output voltage channel. */
    void addUpsWithVoltage(kq::CValue const& value = kq::CValue(230.5f)) {
        store.addDevice(kUpsName, kUps);
        store.addChannel(kUps, kVoltageName, value, kVoltage);
    }

    std::vector<Subscription> openSubscriptions() const {
        std::vector<Subscription> open;
        for (cdshost::SubscriptionInfo const& info : store.subscriptions()) {
            open.emplace_back(info.kind, info.type, info.target);
        }
        return open;
    }

    /* The data-store subscription id that the store shows for kind/type/target. */
    Id subscriptionIdOf(Subscription const& wanted) const {
        for (cdshost::SubscriptionInfo const& info : store.subscriptions()) {
            if (Subscription(info.kind, info.type, info.target) == wanted) {
                return info.subscriptionId;
            }
        }
        return 0;
    }

    /* True when all five accessor registries are empty. */
    bool registriesEmpty() const {
        return updates.empty() && states.empty() && settings.empty() && deviceSettings.empty() &&
               creations.empty();
    }
};

// ---- Constructors and the three positions -------------------------------------------

TEST_F(CdsChannelAccessorTest, ByIdConstructorBindsExistingChannel) {
    addUpsWithVoltage();
    store.resetCalls();

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getDeviceByName"), 0u);
    EXPECT_EQ(store.calls("getDevice", kUps), 1u);
    EXPECT_EQ(store.calls("getSubDevicesIds"), 0u);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    // Without a listener the detection reads no value.
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps),
                                         channelSub(kq::sub::ChannelValue, kVoltage)}));
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(creations.empty());
    EXPECT_TRUE(states.empty());
    EXPECT_TRUE(settings.empty());
    EXPECT_EQ(
        updateIds,
        (IdRegistry{{kVoltage, subscriptionIdOf(channelSub(kq::sub::ChannelValue, kVoltage))}}));
    EXPECT_EQ(deviceSettingsIds,
              (IdRegistry{{kUps, subscriptionIdOf(deviceSub(kq::sub::DeviceChanged, kUps))}}));
    EXPECT_TRUE(creationIds.empty());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(230.5f));
}

TEST_F(CdsChannelAccessorTest, SubscriptionsAreOpenedUnderClientModbus) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    ASSERT_EQ(store.subscriptions().size(), 2u);
    for (cdshost::SubscriptionInfo const& info : store.subscriptions()) {
        EXPECT_EQ(info.clientName, "modbus");
        EXPECT_NE(info.subscriptionId, 0u);
    }
}

TEST_F(CdsChannelAccessorTest, ByNameConstructorLooksUpDeviceByName) {
    addUpsWithVoltage();
    store.resetCalls();

    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getDeviceByName"), 1u);
    EXPECT_EQ(store.calls("getDevice", kUps), 1u);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(accessor.getCValue(), kq::CValue(230.5f));
}

TEST_F(CdsChannelAccessorTest, ByNameConstructorLooksUpNameOnlyOnce) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);

    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);

    EXPECT_EQ(store.calls("getDeviceByName"), 1u);
    EXPECT_EQ(store.calls("getDevice", kUps), 3u);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ByIdConstructorWithAllOnesIdLooksUpTheEmptyName) {
    // The by-id form has no name; an all-ones id is still looked up by (the empty) name.
    store.addDevice("", kUps);
    store.addChannel(kUps, kVoltageName, kq::CValue(1.0f), kVoltage);

    CdsChannelAccessor accessor(kAllOnes, kVoltageName, DataType::Value);

    EXPECT_EQ(store.calls("getDeviceByName"), 1u);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
}

TEST_F(CdsChannelAccessorTest, SubDevicePathConstructorWalksIndexesToSubDevice) {
    store.addDevice(kUpsName, kUps);
    Id const module0 = store.addDevice("Module0", 110, kUps);
    Id const module1 = store.addDevice("Module1", 111, kUps);
    Id const cell0 = store.addDevice("Cell0", 120, module1);
    store.addChannel(module0, kVoltageName, kq::CValue(1.0f), kOtherChannel);
    store.addChannel(cell0, kVoltageName, kq::CValue(12.5f), kVoltage);
    store.resetCalls();

    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{1, 0}, kVoltageName,
                                DataType::Value);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(12.5f));
    EXPECT_EQ(store.calls("getDevice", kUps), 1u);
    EXPECT_EQ(store.calls("getSubDevicesIds", kUps), 1u);
    EXPECT_EQ(store.calls("getSubDevicesIds", module1), 1u);
    // Each step asks for the direct sub-devices: selector 0.
    EXPECT_EQ(store.lastSubDeviceSelector(kUps), 0u);
    EXPECT_EQ(store.lastSubDeviceSelector(module1), 0u);
    EXPECT_EQ(store.calls("getChannelId", cell0), 1u);
    EXPECT_EQ(store.calls("getChannelId"), 1u);
    // The channel's device is followed, not the top device.
    EXPECT_EQ(deviceSettings, (Registry{{cell0, {&accessor}}}));
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, cell0),
                                         channelSub(kq::sub::ChannelValue, kVoltage)}));
}

TEST_F(CdsChannelAccessorTest, SubDevicePathConstructorWithEmptyPathSearchesTopDevice) {
    addUpsWithVoltage();

    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{}, kVoltageName, DataType::Value);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getSubDevicesIds"), 0u);
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
}

TEST_F(CdsChannelAccessorTest, MissingDeviceWaitsInDeviceCreationRegistry) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue());
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(store.calls("getChannelId"), 0u);
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_EQ(creationIds,
              (IdRegistry{{kUps, subscriptionIdOf(deviceSub(kq::sub::DeviceCreated, kUps))}}));
    EXPECT_TRUE(deviceSettings.empty());
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceCreated, kUps)}));
}

TEST_F(CdsChannelAccessorTest, PathConstructorOnMissingDeviceWaitsForCreation) {
    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{0}, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());
    // Leaving the never-joined device-settings entry is silent and reaches no store call.
    EXPECT_EQ(store.calls("unsubscribe"), 0u);
}

TEST_F(CdsChannelAccessorTest, DeviceCreationBindsAccessorAndCallsListenerWithCurrentValue) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    ASSERT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue()}));

    // The device appears silently with its channel, then its creation is announced.
    store.addDevice(kUpsName, kUps, 0, false);
    store.addChannel(kUps, kVoltageName, kq::CValue(230.5f), kVoltage, false);
    store.notifyDevice(kUps, kq::sub::DeviceCreated);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(230.5f));
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue(230.5f)}));
    EXPECT_TRUE(creations.empty());
    EXPECT_TRUE(creationIds.empty());
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps),
                                         channelSub(kq::sub::ChannelValue, kVoltage)}));
}

TEST_F(CdsChannelAccessorTest, DeviceCreatedWithoutChannelMovesToWaitingForChannel) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.addDevice(kUpsName, kUps);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_TRUE(creations.empty());
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps)}));
    // Initial call, then the failed detection on creation.
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue()}));
}

TEST_F(CdsChannelAccessorTest, MissingChannelWaitsInDeviceSettingsRegistry) {
    store.addDevice(kUpsName, kUps);
    store.resetCalls();

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue());
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(creations.empty());
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps)}));
    EXPECT_EQ(store.calls("unsubscribe"), 0u);
}

TEST_F(CdsChannelAccessorTest, ChannelAddedLaterBindsThroughDeviceSettingsNotification) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.addChannel(kUps, kVoltageName, kq::CValue(231.0f), kVoltage);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue(231.0f)}));
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    // The device is unchanged, so its subscription is not opened again.
    EXPECT_EQ(store.calls("subscribeDevice"), 1u);
}

TEST_F(CdsChannelAccessorTest, RemovedChannelMovesBoundAccessorToWaitingForChannel) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.removeChannel(kVoltage);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(230.5f), kq::CValue()}));
    EXPECT_TRUE(updates.empty());
    EXPECT_TRUE(updateIds.empty());
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps)}));
}

TEST_F(CdsChannelAccessorTest, RemovedDeviceMovesBoundAccessorToWaitingForDevice) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.removeDevice(kUps);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(230.5f), kq::CValue()}));
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());
    EXPECT_TRUE(deviceSettingsIds.empty());
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceCreated, kUps)}));
}

TEST_F(CdsChannelAccessorTest, RemovedDeviceMovesWaitingForChannelToWaitingForDevice) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    store.removeDevice(kUps);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceCreated, kUps)}));
}

TEST_F(CdsChannelAccessorTest, RecreatedDeviceBindsAgainAfterRemoval) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    store.removeDevice(kUps);

    store.addDevice(kUpsName, kUps);
    EXPECT_FALSE(accessor.isExitingInCds());
    store.addChannel(kUps, kVoltageName, kq::CValue(229.0f), kVoltage);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(229.0f));
    EXPECT_TRUE(creations.empty());
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps),
                                         channelSub(kq::sub::ChannelValue, kVoltage)}));
}

TEST_F(CdsChannelAccessorTest, RedetectionOnUnchangedDeviceKeepsSubscriptions) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    std::vector<Subscription> const before = openSubscriptions();
    store.resetCalls();

    store.notifyDevice(kUps, kq::sub::DeviceChanged);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(openSubscriptions(), before);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_EQ(store.calls("subscribeChannel"), 0u);
    EXPECT_EQ(store.calls("subscribeDevice"), 0u);
    EXPECT_EQ(store.calls("unsubscribe"), 0u);
    // A successful detection pushes the current value.
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(230.5f), kq::CValue(230.5f)}));
}

TEST_F(CdsChannelAccessorTest, ReaddedChannelWithNewIdBindsOnlyTheNewId) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    store.removeChannel(kVoltage);
    store.addChannel(kUps, kVoltageName, kq::CValue(5.0f), kOtherChannel);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(5.0f));
    EXPECT_EQ(updates, (Registry{{kOtherChannel, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kOtherChannel), 1u);
}

TEST_F(CdsChannelAccessorTest, ChangedChannelIdOnSameDeviceKeepsOldUpdateEntry) {
    addUpsWithVoltage();
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor* const raw = accessor.get();
    // The channel is replaced without the accessor seeing it vanish.
    store.removeChannel(kVoltage, false);
    store.addChannel(kUps, kVoltageName, kq::CValue(5.0f), kOtherChannel, false);

    store.notifyDevice(kUps, kq::sub::DeviceChanged);

    // Bound to the new id; only a change of device leaves the old id's registry.
    EXPECT_TRUE(accessor->isExitingInCds());
    EXPECT_EQ(accessor->getCValue(), kq::CValue(5.0f));
    EXPECT_EQ(updates, (Registry{{kVoltage, {raw}}, {kOtherChannel, {raw}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kOtherChannel), 1u);

    // The destructor leaves the registry of the current id, then the old
    // entry too: a destroyed accessor stays in no registry.
    accessor.reset();
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kOtherChannel), 0u);
}

// ---- Sharing one subscription -------------------------------------------------------

TEST_F(CdsChannelAccessorTest, TwoAccessorsOnOneChannelShareOneUpdateSubscription) {
    addUpsWithVoltage();
    auto first = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    auto second = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);

    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 1u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceChanged, kUps), 1u);
    EXPECT_EQ(updates, (Registry{{kVoltage, {first.get(), second.get()}}}));

    first.reset();
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 1u);
    EXPECT_EQ(store.calls("unsubscribe"), 0u);
    EXPECT_EQ(updates, (Registry{{kVoltage, {second.get()}}}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {second.get()}}}));

    second.reset();
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_EQ(store.calls("unsubscribe"), 2u);
    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(updateIds.empty());
    EXPECT_TRUE(deviceSettingsIds.empty());
}

TEST_F(CdsChannelAccessorTest, OneValueReadReachesBothListeners) {
    addUpsWithVoltage();
    CdsChannelAccessor first(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    Recorder firstRecorder;
    Recorder secondRecorder;
    first.setUpdateCallback(firstRecorder.listener());
    second.setUpdateCallback(secondRecorder.listener());
    store.resetCalls();

    store.setChannelValue(kVoltage, kq::CValue(240.0f));

    EXPECT_EQ(store.calls("getChannelCValue", kVoltage), 1u);
    EXPECT_EQ(firstRecorder.values.back(), kq::CValue(240.0f));
    EXPECT_EQ(secondRecorder.values.back(), kq::CValue(240.0f));
    EXPECT_EQ(firstRecorder.values.size(), 2u);
    EXPECT_EQ(secondRecorder.values.size(), 2u);
}

TEST_F(CdsChannelAccessorTest, VanishedChannelMakesEveryAccessorReportMissingOnNextUpdate) {
    addUpsWithVoltage();
    CdsChannelAccessor first(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    Recorder firstRecorder;
    Recorder secondRecorder;
    first.setUpdateCallback(firstRecorder.listener());
    second.setUpdateCallback(secondRecorder.listener());
    store.removeChannel(kVoltage, false);

    store.notifyChannel(kVoltage, kq::sub::ChannelValue);

    EXPECT_FALSE(first.isExitingInCds());
    EXPECT_FALSE(second.isExitingInCds());
    EXPECT_EQ(firstRecorder.values.back(), kq::CValue());
    EXPECT_EQ(secondRecorder.values.back(), kq::CValue());
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&first, &second}}}));
}

// ---- DataType 1: the state subscription one detection behind -----------------------

TEST_F(CdsChannelAccessorTest, StateSubscriptionFirstRegistersUnderChannelIdZero) {
    addUpsWithVoltage();

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(states, (Registry{{0, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, 0), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, kVoltage), 0u);
}

TEST_F(CdsChannelAccessorTest, StateSubscriptionMovesToRealIdOnLaterDetection) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);

    store.notifyDevice(kUps, kq::sub::DeviceChanged);

    EXPECT_EQ(states, (Registry{{0, {&accessor}}, {kVoltage, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, kVoltage), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, 0), 1u);
}

TEST_F(CdsChannelAccessorTest, AlarmEnabledChangeIsMissedUntilSecondDetection) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.setAlarmEnabled(kVoltage, true);
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(false)}));

    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    store.setAlarmEnabled(kVoltage, false);

    EXPECT_EQ(recorder.values,
              (std::vector<kq::CValue>{kq::CValue(false), kq::CValue(true), kq::CValue(false)}));
}

TEST_F(CdsChannelAccessorTest, StateRegistrationUnderIdZeroLastsUntilTheAccessorIsDestroyed) {
    addUpsWithVoltage();
    auto accessor =
        std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::AlarmEnabled);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    // While the accessor lives, its first registration under id 0 stays.
    EXPECT_EQ(states.count(0), 1u);
    EXPECT_EQ(states.count(kVoltage), 1u);

    accessor.reset();

    EXPECT_TRUE(states.empty());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, 0), 0u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, kVoltage), 0u);
}

// ---- Edge cases of detection ---------------------------------------------------------

TEST_F(CdsChannelAccessorTest, NameLookupAnswerFixesDeviceIdForGood) {
    store.answerName(kUpsName, kOtherUps);

    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kOtherUps, {&accessor}}}));

    // A device of that name appears under another id: it is not looked for any more.
    addUpsWithVoltage();
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getDeviceByName"), 1u);
    EXPECT_EQ(creations, (Registry{{kOtherUps, {&accessor}}}));

    store.addDevice("Other", kOtherUps, 0, false);
    store.addChannel(kOtherUps, kVoltageName, kq::CValue(3.0f), kOtherChannel, false);
    store.notifyDevice(kOtherUps, kq::sub::DeviceCreated);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(3.0f));
    EXPECT_EQ(store.calls("getDeviceByName"), 1u);
}

TEST_F(CdsChannelAccessorTest, FailedNameLookupWaitsForCreationUnderAllOnesId) {
    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kAllOnes, {&accessor}}}));
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceCreated, kAllOnes)}));
}

TEST_F(CdsChannelAccessorTest, FailedNameLookupBindsWhenNamedDeviceIsCreated) {
    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);

    store.addDevice(kUpsName, kUps, 0, false);
    store.addChannel(kUps, kVoltageName, kq::CValue(230.5f), kVoltage, false);
    store.notifyDevice(kAllOnes, kq::sub::DeviceCreated);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getDeviceByName"), 2u);
    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    // Binding leaves the creation registry of the id now known, not of the
    // all-ones id it waited under: that entry stays.
    EXPECT_EQ(creations, (Registry{{kAllOnes, {&accessor}}}));
}

TEST_F(CdsChannelAccessorTest, MissingSubDeviceIndexWaitsInCreationRegistryOfExistingDevice) {
    store.addDevice(kUpsName, kUps);
    store.addDevice("Module0", 110, kUps);

    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{1}, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_TRUE(store.hasDevice(kUps));
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());

    // The missing sub-device appears: the top device only changes, which the
    // accessor does not follow, so it keeps waiting.
    Id const module1 = store.addDevice("Module1", 111, kUps);
    store.addChannel(module1, kVoltageName, kq::CValue(48.0f), kVoltage);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));

    // Only a creation of the top device makes it search again.
    store.notifyDevice(kUps, kq::sub::DeviceCreated);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(48.0f));
    EXPECT_TRUE(creations.empty());
    EXPECT_EQ(deviceSettings, (Registry{{module1, {&accessor}}}));
}

TEST_F(CdsChannelAccessorTest, DataTypeAboveEightBindsButReadsInvalidAndIgnoresWrites) {
    addUpsWithVoltage();
    auto const unbound = static_cast<DataType>(9);

    CdsChannelAccessor accessor(kUps, kVoltageName, unbound);
    store.resetCalls();

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(settings, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelSettings, kVoltage), 1u);
    EXPECT_EQ(accessor.getCValue(), kq::CValue());
    accessor.setCValue(kq::CValue(1.0f));
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(store.calls("setChannelAlarmEnabled"), 0u);
    EXPECT_EQ(store.calls("setChannelAlarmTriggerThreshold"), 0u);
    EXPECT_EQ(store.calls("setChannelAlarmHysteresis"), 0u);
    EXPECT_EQ(store.calls("setChannelAlarmLevel"), 0u);
    EXPECT_EQ(store.channelValue(kVoltage), kq::CValue(230.5f));
}

TEST_F(CdsChannelAccessorTest, ChangedSubDeviceKeepsPreviousDeviceSettingsEntry) {
    store.addDevice(kUpsName, kUps);
    Id const module0 = store.addDevice("Module0", 110, kUps);
    store.addChannel(module0, kVoltageName, kq::CValue(1.0f), kVoltage);
    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{0}, kVoltageName, DataType::Value);
    // The sub-device at index 0 is replaced by another one, silently.
    store.removeDevice(module0, false);
    Id const module0b = store.addDevice("Module0b", 112, kUps, false);
    store.addChannel(module0b, kVoltageName, kq::CValue(2.0f), kOtherChannel, false);

    store.notifyDevice(module0, kq::sub::DeviceChanged);

    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(accessor.getCValue(), kq::CValue(2.0f));
    EXPECT_EQ(deviceSettings, (Registry{{module0, {&accessor}}, {module0b, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceChanged, module0), 1u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceChanged, module0b), 1u);
    EXPECT_EQ(updates, (Registry{{kOtherChannel, {&accessor}}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
}

TEST_F(CdsChannelAccessorTest, ChangedSubDeviceWithoutChannelUnbinds) {
    store.addDevice(kUpsName, kUps);
    Id const module0 = store.addDevice("Module0", 110, kUps);
    store.addChannel(module0, kVoltageName, kq::CValue(1.0f), kVoltage);
    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{0}, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store.removeDevice(module0, false);
    Id const module0b = store.addDevice("Module0b", 112, kUps, false);

    store.notifyDevice(module0, kq::sub::DeviceChanged);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values.back(), kq::CValue());
    EXPECT_TRUE(updates.empty());
    EXPECT_EQ(deviceSettings, (Registry{{module0, {&accessor}}, {module0b, {&accessor}}}));
    EXPECT_TRUE(creations.empty());
}

// ---- Fault injection at each data-store call of a detection ------------------------

TEST_F(CdsChannelAccessorTest, GetDeviceByNameFailureWaitsForDevice) {
    addUpsWithVoltage();
    store.failNext("getDeviceByName");

    CdsChannelAccessor accessor(kUpsName, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getDevice"), 0u);
    EXPECT_EQ(creations, (Registry{{kAllOnes, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());
}

TEST_F(CdsChannelAccessorTest, GetDeviceFailureWaitsForDeviceCreation) {
    addUpsWithVoltage();
    store.failNext("getDevice", 1, kUps);

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getChannelId"), 0u);
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());

    store.notifyDevice(kUps, kq::sub::DeviceCreated);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ForeignExceptionFromLookupIsAbsorbed) {
    addUpsWithVoltage();
    store.failNext("getDevice", 1, kUps, cdshost::FaultKind::NonStandard);

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
}

TEST_F(CdsChannelAccessorTest, GetSubDevicesIdsFailureWaitsForDeviceCreation) {
    store.addDevice(kUpsName, kUps);
    Id const module0 = store.addDevice("Module0", 110, kUps);
    store.addChannel(module0, kVoltageName, kq::CValue(1.0f), kVoltage);
    store.failNext("getSubDevicesIds");

    CdsChannelAccessor accessor(kUps, std::vector<unsigned int>{0}, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(store.calls("getChannelId"), 0u);
    EXPECT_EQ(creations, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(deviceSettings.empty());
}

TEST_F(CdsChannelAccessorTest, GetChannelIdFailureCountsAsMissingChannel) {
    addUpsWithVoltage();
    store.failNext("getChannelId");

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(updates.empty());
    EXPECT_TRUE(creations.empty());

    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, DeviceSettingsSubscribeFailurePropagatesFromConstructor) {
    addUpsWithVoltage();
    store.failNext("subscribeDevice");

    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);
    EXPECT_EQ(store.calls("getChannelId"), 0u);
    EXPECT_EQ(store.subscriptionCount(), 0u);
    // A constructor that throws leaves no trace in the registries.
    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(deviceSettingsIds.empty());
}

TEST_F(CdsChannelAccessorTest, ThrowingConstructorClosesTheSubscriptionsItOpened) {
    addUpsWithVoltage();
    store.failNext("subscribeChannel");

    // The device's settings subscription is opened before the channel's fails.
    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);

    EXPECT_EQ(store.calls("subscribeDevice", kUps), 1u);
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(updateIds.empty() && deviceSettingsIds.empty());
}

TEST_F(CdsChannelAccessorTest, ThrowingConstructorIsNeverReachedByALaterDeviceChange) {
    addUpsWithVoltage();
    store.failNext("subscribeDevice");
    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);
    // The next accessor of the device opens the settings subscription the
    // failed one could not: only the living accessor may be behind it.
    CdsChannelAccessor survivor(kUps, kVoltageName, DataType::Value);
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&survivor}}}));

    EXPECT_NO_THROW(store.setDeviceAttribute(kUps, cdsapi::AttributeModel, "1500"));
    EXPECT_TRUE(survivor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ThrowingConstructorKeepsTheSharedSubscriptionsOfOthers) {
    addUpsWithVoltage();
    CdsChannelAccessor survivor(kUps, kVoltageName, DataType::Value);
    Id const otherChannel = store.addChannel(kUps, "Output.Current", kq::CValue(1.0f));
    store.failNext("subscribeChannel");

    EXPECT_THROW(CdsChannelAccessor(kUps, "Output.Current", DataType::Value),
                 cdshost::InjectedFault);

    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps),
                                         channelSub(kq::sub::ChannelValue, kVoltage)}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&survivor}}}));
    EXPECT_EQ(updates, (Registry{{kVoltage, {&survivor}}}));
    EXPECT_EQ(updates.count(otherChannel), 0u);
}

TEST_F(CdsChannelAccessorTest, DeviceCreationSubscribeFailurePropagatesFromConstructor) {
    store.failNext("subscribeDevice");

    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_TRUE(creationIds.empty());
}

TEST_F(CdsChannelAccessorTest, ChannelSubscribeFailurePropagatesFromConstructor) {
    addUpsWithVoltage();
    store.failNext("subscribeChannel");

    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
    EXPECT_TRUE(updateIds.empty());
}

TEST_F(CdsChannelAccessorTest, ConnectionFailurePropagatesFromConstructor) {
    addUpsWithVoltage();
    store.failNext("CdsAccessor");

    EXPECT_THROW(CdsChannelAccessor(kUps, kVoltageName, DataType::Value), cdshost::InjectedFault);
    EXPECT_EQ(store.calls("getDevice"), 0u);

    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store.connections("modbus"), 1u);
}

TEST_F(CdsChannelAccessorTest, AccessorsShareOneConnection) {
    addUpsWithVoltage();
    CdsChannelAccessor first(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor second(kUpsName, kVoltageName, DataType::AlarmHysteresis);

    EXPECT_EQ(store.connections("modbus"), 1u);
    EXPECT_EQ(store.calls("CdsAccessor"), 1u);
}

TEST_F(CdsChannelAccessorTest, UnsubscribeFailureDuringDetectionIsAbsorbed) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Id const subscriptionId = updateIds.at(kVoltage);
    store.failNext("unsubscribe");

    EXPECT_NO_THROW(store.removeChannel(kVoltage));

    EXPECT_FALSE(accessor.isExitingInCds());
    // The failed removal leaves both entries, with an empty set.
    EXPECT_EQ(updates, (Registry{{kVoltage, {}}}));
    EXPECT_EQ(updateIds, (IdRegistry{{kVoltage, subscriptionId}}));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 1u);
}

// ---- Registry add and remove ------------------------------------------------------

TEST_F(CdsChannelAccessorTest, RegistryAddOfSameAccessorTwiceHasNoEffect) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    store.resetCalls();

    CdsChannelAccessor::subscribeChannelUpdate(kVoltage, &accessor);
    CdsChannelAccessor::subscribeChannelUpdate(kVoltage, &accessor);

    EXPECT_EQ(updates, (Registry{{kVoltage, {&accessor}}}));
    EXPECT_EQ(store.calls("subscribeChannel"), 1u);
    EXPECT_EQ(
        updateIds,
        (IdRegistry{{kVoltage, subscriptionIdOf(channelSub(kq::sub::ChannelValue, kVoltage))}}));

    CdsChannelAccessor::unsubscribeChannelUpdate(kVoltage, &accessor);
    EXPECT_TRUE(updates.empty());
    EXPECT_TRUE(updateIds.empty());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 0u);
}

TEST_F(CdsChannelAccessorTest, EachRegistryOpensItsOwnSubscriptionKind) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    constexpr Id kId = 77;
    store.resetCalls();

    CdsChannelAccessor::subscribeChannelUpdate(kId, &accessor);
    CdsChannelAccessor::subscribeChannelState(kId, &accessor);
    CdsChannelAccessor::subscribeChannelSettings(kId, &accessor);
    CdsChannelAccessor::subscribeDeviceSettings(kId, &accessor);
    CdsChannelAccessor::subscribeDeviceCreation(kId, &accessor);

    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kId), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, kId), 1u);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelSettings, kId), 1u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceChanged, kId), 1u);
    EXPECT_EQ(store.subscriptionCount("device", kq::sub::DeviceCreated, kId), 1u);
    EXPECT_EQ(stateIds.at(kId), subscriptionIdOf(channelSub(kq::sub::ChannelState, kId)));
    EXPECT_EQ(settingsIds.at(kId), subscriptionIdOf(channelSub(kq::sub::ChannelSettings, kId)));
    EXPECT_EQ(creationIds.at(kId), subscriptionIdOf(deviceSub(kq::sub::DeviceCreated, kId)));

    CdsChannelAccessor::unsubscribeChannelUpdate(kId, &accessor);
    CdsChannelAccessor::unsubscribeChannelState(kId, &accessor);
    CdsChannelAccessor::unsubscribeChannelSettings(kId, &accessor);
    CdsChannelAccessor::unsubscribeDeviceSettings(kId, &accessor);
    CdsChannelAccessor::unsubscribeDeviceCreation(kId, &accessor);

    EXPECT_EQ(store.calls("unsubscribe"), 5u);
    EXPECT_EQ(openSubscriptions(),
              (std::vector<Subscription>{deviceSub(kq::sub::DeviceChanged, kUps)}));
    EXPECT_EQ(deviceSettings, (Registry{{kUps, {&accessor}}}));
    EXPECT_TRUE(updates.empty() && states.empty() && settings.empty() && creations.empty());
}

TEST_F(CdsChannelAccessorTest, RegistrySubscriptionCallsHandlerWithSubscribedId) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, "Missing", DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    // Joined by hand under the voltage channel: its notifications reach this listener.
    CdsChannelAccessor::subscribeChannelUpdate(kVoltage, &accessor);

    store.setChannelValue(kVoltage, kq::CValue(7.0f));

    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue(7.0f)}));
    CdsChannelAccessor::unsubscribeChannelUpdate(kVoltage, &accessor);
}

TEST_F(CdsChannelAccessorTest, UnsubscribeOfNeverRegisteredIdDoesNothing) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    store.resetCalls();

    EXPECT_NO_THROW(CdsChannelAccessor::unsubscribeChannelUpdate(12345, &accessor));
    EXPECT_NO_THROW(CdsChannelAccessor::unsubscribeDeviceCreation(12345, &accessor));

    EXPECT_EQ(store.calls("unsubscribe"), 0u);
    EXPECT_TRUE(updates.empty());
    EXPECT_TRUE(updateIds.empty());
    EXPECT_TRUE(creationIds.empty());
}

TEST_F(CdsChannelAccessorTest, UnsubscribeFailureKeepsEntriesAndNextAddOpensNoSubscription) {
    addUpsWithVoltage();
    auto first = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    Id const subscriptionId = updateIds.at(kVoltage);
    store.failNext("unsubscribe", 1, subscriptionId);

    EXPECT_NO_THROW(first.reset());
    EXPECT_EQ(updates, (Registry{{kVoltage, {}}}));
    EXPECT_EQ(updateIds, (IdRegistry{{kVoltage, subscriptionId}}));

    store.resetCalls();
    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    second.setUpdateCallback(recorder.listener());
    EXPECT_EQ(store.calls("subscribeChannel"), 0u);
    EXPECT_EQ(updates, (Registry{{kVoltage, {&second}}}));

    // The subscription that survived still serves the new accessor.
    store.setChannelValue(kVoltage, kq::CValue(1.5f));
    EXPECT_EQ(recorder.values.back(), kq::CValue(1.5f));
}

TEST_F(CdsChannelAccessorTest, FailedAddLeavesNoEntryBehind) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    constexpr Id kId = 77;
    store.failNext("subscribeChannel");
    EXPECT_THROW(CdsChannelAccessor::subscribeChannelUpdate(kId, &accessor),
                 cdshost::InjectedFault);
    EXPECT_TRUE(updates.empty());
    EXPECT_TRUE(updateIds.empty());

    // Nothing to remove, so nothing is unsubscribed.
    EXPECT_NO_THROW(CdsChannelAccessor::unsubscribeChannelUpdate(kId, &accessor));
    EXPECT_EQ(store.calls("unsubscribe"), 0u);

    // The next add opens the subscription the failed one could not.
    CdsChannelAccessor::subscribeChannelUpdate(kId, &accessor);
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kId), 1u);
    CdsChannelAccessor::unsubscribeChannelUpdate(kId, &accessor);
}

TEST_F(CdsChannelAccessorTest, ChannelWhoseSubscriptionFailedIsHeardByTheNextAccessor) {
    addUpsWithVoltage();
    auto first = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    store.removeChannel(kVoltage);
    // The channel comes back under a new id; the re-detection cannot subscribe
    // to it (the device-change handler swallows the failure).
    store.failNext("subscribeChannel");
    Id const again = store.addChannel(kUps, kVoltageName, kq::CValue(1.0f));
    first.reset();

    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    second.setUpdateCallback(recorder.listener());
    store.setChannelValue(again, kq::CValue(2.0f));

    EXPECT_TRUE(second.isExitingInCds());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, again), 1u);
    EXPECT_EQ(recorder.values.back(), kq::CValue(2.0f));
}

TEST_F(CdsChannelAccessorTest, FailedUnsubscribeOfARealSubscriptionKeepsTheChannelHeard) {
    addUpsWithVoltage();
    auto first = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    store.failNext("unsubscribe", 1, updateIds.at(kVoltage));
    first.reset();

    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    second.setUpdateCallback(recorder.listener());
    store.setChannelValue(kVoltage, kq::CValue(3.0f));

    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelValue, kVoltage), 1u);
    EXPECT_EQ(recorder.values.back(), kq::CValue(3.0f));
}

// ---- Notification handlers -----------------------------------------------------------

void expectMapAt(std::function<void()> const& call) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(CdsChannelAccessorTest, ChannelUpdateForUnknownIdThrowsMapAt) {
    expectMapAt([] { CdsChannelAccessor::cdsChannelUpdate(4242); });
}

TEST_F(CdsChannelAccessorTest, ChannelStateForUnknownIdThrowsMapAt) {
    expectMapAt([] { CdsChannelAccessor::cdsChannelState(4242); });
}

TEST_F(CdsChannelAccessorTest, ChannelSettingsForUnknownIdThrowsMapAt) {
    expectMapAt([] { CdsChannelAccessor::cdsChannelSettings(4242); });
}

TEST_F(CdsChannelAccessorTest, DeviceCreationForUnknownIdThrowsMapAt) {
    expectMapAt([] { CdsChannelAccessor::cdsDeviceCreation(4242); });
}

TEST_F(CdsChannelAccessorTest, DeviceSettingsForUnknownIdIsSwallowed) {
    EXPECT_NO_THROW(CdsChannelAccessor::cdsDeviceSettings(4242));
    EXPECT_TRUE(registriesEmpty());
}

TEST_F(CdsChannelAccessorTest, ChannelUpdateReadFailureMarksEveryAccessorMissingBeforeRedetecting) {
    addUpsWithVoltage();
    auto a = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    auto b = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    // Handlers visit accessors in ascending address order.
    bool const aFirst = std::less<CdsChannelAccessor*>()(a.get(), b.get());
    CdsChannelAccessor* first = aFirst ? a.get() : b.get();
    CdsChannelAccessor* second = aFirst ? b.get() : a.get();
    std::vector<bool> secondExistingSeenByFirst;
    first->setUpdateCallback(
        [&](kq::CValue const&) { secondExistingSeenByFirst.push_back(second->isExitingInCds()); });
    secondExistingSeenByFirst.clear();
    store.resetCalls();
    store.failNext("getChannelCValue", 1, kVoltage);

    store.notifyChannel(kVoltage, kq::sub::ChannelValue);

    EXPECT_EQ(secondExistingSeenByFirst, std::vector<bool>{false});
    EXPECT_EQ(store.calls("getChannelId", kUps), 2u);
    EXPECT_TRUE(first->isExitingInCds());
    EXPECT_TRUE(second->isExitingInCds());
    EXPECT_EQ(updates, (Registry{{kVoltage, {a.get(), b.get()}}}));
}

TEST_F(CdsChannelAccessorTest, ChannelUpdateListenerFailureTriggersRedetection) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    int calls = 0;
    std::vector<kq::CValue> received;
    accessor.setUpdateCallback([&](kq::CValue const& value) {
        ++calls;
        received.push_back(value);
        if (calls == 2) {
            throw std::runtime_error("listener failed");
        }
    });
    store.resetCalls();

    EXPECT_NO_THROW(CdsChannelAccessor::cdsChannelUpdate(kVoltage));

    // Second call threw; the re-detection pushed the value again.
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ChannelStatePassesAlarmEnabledAsBoolToEveryAccessor) {
    addUpsWithVoltage();
    CdsChannelAccessor first(kUps, kVoltageName, DataType::AlarmEnabled);
    CdsChannelAccessor second(kUps, kVoltageName, DataType::AlarmEnabled);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    Recorder firstRecorder;
    Recorder secondRecorder;
    first.setUpdateCallback(firstRecorder.listener());
    second.setUpdateCallback(secondRecorder.listener());
    store.resetCalls();

    store.setAlarmEnabled(kVoltage, true);

    EXPECT_EQ(store.calls("getChannelCValue", kVoltage), 1u);
    EXPECT_EQ(store.calls("getChannelAlarmEnabled", kVoltage), 1u);
    EXPECT_EQ(firstRecorder.values.back(), kq::CValue(true));
    EXPECT_EQ(secondRecorder.values.back(), kq::CValue(true));
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelState, kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, ChannelStateExistenceFailureRedetects) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store.removeChannel(kVoltage, false);
    store.resetCalls();

    store.notifyChannel(kVoltage, kq::sub::ChannelState);

    EXPECT_EQ(store.calls("getChannelAlarmEnabled"), 0u);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values.back(), kq::CValue());
    EXPECT_EQ(states.count(kVoltage), 0u);
}

TEST_F(CdsChannelAccessorTest, ChannelStateAlarmReadFailureRedetects) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    store.resetCalls();
    store.failNext("getChannelAlarmEnabled");

    EXPECT_NO_THROW(CdsChannelAccessor::cdsChannelState(kVoltage));

    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ChannelSettingsGivesEachAccessorItsOwnSetting) {
    addUpsWithVoltage();
    store.setAlarmThreshold(kVoltage, cdsapi::TriggerLowCritical, 180.0f, false);
    CdsChannelAccessor threshold(kUps, kVoltageName, DataType::AlarmThreshold0);
    CdsChannelAccessor hysteresis(kUps, kVoltageName, DataType::AlarmHysteresis);
    Recorder thresholdRecorder;
    Recorder hysteresisRecorder;
    threshold.setUpdateCallback(thresholdRecorder.listener());
    hysteresis.setUpdateCallback(hysteresisRecorder.listener());
    store.resetCalls();

    store.setAlarmHysteresis(kVoltage, 2.5f);

    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelSettings, kVoltage), 1u);
    EXPECT_EQ(store.calls("getChannelCValue", kVoltage), 1u);
    EXPECT_EQ(thresholdRecorder.values.back(), kq::CValue(180.0f));
    EXPECT_EQ(hysteresisRecorder.values.back(), kq::CValue(2.5f));
}

TEST_F(CdsChannelAccessorTest, ChannelSettingsReadFailureOfOneAccessorSkipsOnlyThatOne) {
    addUpsWithVoltage();
    // Two threshold readers: whichever is visited first fails, the other comes after it.
    CdsChannelAccessor lowWarning(kUps, kVoltageName, DataType::AlarmThreshold1);
    CdsChannelAccessor highWarning(kUps, kVoltageName, DataType::AlarmThreshold2);
    CdsChannelAccessor hysteresis(kUps, kVoltageName, DataType::AlarmHysteresis);
    Recorder lowRecorder;
    Recorder highRecorder;
    Recorder hysteresisRecorder;
    lowWarning.setUpdateCallback(lowRecorder.listener());
    highWarning.setUpdateCallback(highRecorder.listener());
    hysteresis.setUpdateCallback(hysteresisRecorder.listener());
    store.resetCalls();
    store.failNext("getChannelAlarmTriggerThreshold");

    EXPECT_NO_THROW(store.setAlarmHysteresis(kVoltage, 3.0f));

    EXPECT_EQ(lowRecorder.values.size() + highRecorder.values.size(), 3u);
    EXPECT_EQ(hysteresisRecorder.values.back(), kq::CValue(3.0f));
    EXPECT_EQ(store.calls("getChannelAlarmTriggerThreshold", kVoltage), 2u);
    EXPECT_EQ(store.calls("getChannelId"), 0u);
    EXPECT_TRUE(lowWarning.isExitingInCds());
    EXPECT_TRUE(highWarning.isExitingInCds());
}

TEST_F(CdsChannelAccessorTest, ChannelSettingsExistenceFailureRedetects) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmLevel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store.removeChannel(kVoltage, false);
    store.resetCalls();

    store.notifyChannel(kVoltage, kq::sub::ChannelSettings);

    EXPECT_EQ(store.calls("getChannelAlarmLevel"), 0u);
    EXPECT_EQ(store.calls("getChannelId", kUps), 1u);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_EQ(recorder.values.back(), kq::CValue());
    EXPECT_TRUE(settings.empty());
    EXPECT_EQ(store.subscriptionCount("channel", kq::sub::ChannelSettings, kVoltage), 0u);
}

TEST_F(CdsChannelAccessorTest, DeviceSettingsFailureEndsHandlerSilently) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor first(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor second(kUps, kVoltageName, DataType::Value);
    auto const throwing = [](kq::CValue const& value) {
        if (value.isValid()) {
            throw std::runtime_error("listener failed");
        }
    };
    first.setUpdateCallback(throwing);
    second.setUpdateCallback(throwing);
    store.addChannel(kUps, kVoltageName, kq::CValue(1.0f), kVoltage, false);

    EXPECT_NO_THROW(CdsChannelAccessor::cdsDeviceSettings(kUps));

    // The first accessor (by address) bound and its listener threw: the second
    // was never searched again.
    EXPECT_NE(first.isExitingInCds(), second.isExitingInCds());
    EXPECT_EQ(store.calls("getChannelId", kUps), 3u);
}

TEST_F(CdsChannelAccessorTest, DeviceCreationPropagatesDetectionFailure) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    store.addDevice(kUpsName, kUps, 0, false);
    store.failNext("subscribeDevice");

    EXPECT_THROW(CdsChannelAccessor::cdsDeviceCreation(kUps), cdshost::InjectedFault);
}

TEST_F(CdsChannelAccessorTest, DeviceCreationRedetectsEveryWaitingAccessor) {
    CdsChannelAccessor value(kUps, kVoltageName, DataType::Value);
    CdsChannelAccessor level(kUps, kVoltageName, DataType::AlarmLevel);
    store.addDevice(kUpsName, kUps, 0, false);
    store.addChannel(kUps, kVoltageName, kq::CValue(1.0f), kVoltage, false);

    CdsChannelAccessor::cdsDeviceCreation(kUps);

    EXPECT_TRUE(value.isExitingInCds());
    EXPECT_TRUE(level.isExitingInCds());
    EXPECT_TRUE(creations.empty());
    EXPECT_EQ(updates, (Registry{{kVoltage, {&value}}}));
    EXPECT_EQ(settings, (Registry{{kVoltage, {&level}}}));
}

// ---- Reads and writes by DataType ---------------------------------------------------

TEST_F(CdsChannelAccessorTest, GetCValueOfValueReturnsStoreValueAsDelivered) {
    addUpsWithVoltage(kq::CValue(42u));
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    kq::CValue const value = accessor.getCValue();

    EXPECT_EQ(value.type(), kq::CValue::Type::Uint32);
    EXPECT_EQ(value, kq::CValue(42u));
    EXPECT_EQ(store.calls("getChannelCValue", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, GetCValueOfAlarmEnabledReturnsBool) {
    addUpsWithVoltage();
    store.setAlarmEnabled(kVoltage, true, false);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);

    EXPECT_EQ(accessor.getCValue(), kq::CValue(true));
    EXPECT_EQ(store.calls("getChannelAlarmEnabled", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, GetCValueOfThresholdsReadsEachTriggerAsFloat) {
    addUpsWithVoltage();
    store.setAlarmThreshold(kVoltage, cdsapi::TriggerLowCritical, 180.0f, false);
    store.setAlarmThreshold(kVoltage, cdsapi::TriggerLowWarning, 200.0f, false);
    store.setAlarmThreshold(kVoltage, cdsapi::TriggerHighWarning, 250.0f, false);
    store.setAlarmThreshold(kVoltage, cdsapi::TriggerHighCritical, 260.0f, false);
    CdsChannelAccessor t0(kUps, kVoltageName, DataType::AlarmThreshold0);
    CdsChannelAccessor t1(kUps, kVoltageName, DataType::AlarmThreshold1);
    CdsChannelAccessor t2(kUps, kVoltageName, DataType::AlarmThreshold2);
    CdsChannelAccessor t3(kUps, kVoltageName, DataType::AlarmThreshold3);

    EXPECT_EQ(t0.getCValue(), kq::CValue(180.0f));
    EXPECT_EQ(t1.getCValue(), kq::CValue(200.0f));
    EXPECT_EQ(t2.getCValue(), kq::CValue(250.0f));
    EXPECT_EQ(t3.getCValue(), kq::CValue(260.0f));
    EXPECT_EQ(store.calls("getChannelAlarmTriggerThreshold", kVoltage), 4u);
}

TEST_F(CdsChannelAccessorTest, GetCValueOfThresholdEnabledReturnsBool) {
    addUpsWithVoltage();
    store.setAlarmThresholdFlag(kVoltage, true, false);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmThresholdEnabled);

    EXPECT_EQ(accessor.getCValue(), kq::CValue(true));
    EXPECT_EQ(store.calls("getChannelAlarmTriggerThreshold", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, GetCValueOfHysteresisReturnsFloat) {
    addUpsWithVoltage();
    store.setAlarmHysteresis(kVoltage, 1.25f, false);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmHysteresis);

    EXPECT_EQ(accessor.getCValue(), kq::CValue(1.25f));
    EXPECT_EQ(store.calls("getChannelAlarmHysteresis", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, GetCValueOfAlarmLevelReturnsInt) {
    addUpsWithVoltage();
    store.setAlarmLevel(kVoltage, cdsapi::LevelWarning, false);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmLevel);

    kq::CValue const value = accessor.getCValue();

    EXPECT_EQ(value.type(), kq::CValue::Type::Int32);
    EXPECT_EQ(value, kq::CValue(5));
    EXPECT_EQ(store.calls("getChannelAlarmLevel", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, GetCValuePropagatesStoreFailure) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    store.failNext("getChannelCValue");

    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfValueWritesValueUnchanged) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    accessor.setCValue(kq::CValue("text"));

    EXPECT_EQ(store.channelValue(kVoltage), kq::CValue("text"));
    EXPECT_EQ(store.calls("setChannelCValue", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfAlarmEnabledWritesAsBool) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);

    accessor.setCValue(kq::CValue(3));

    EXPECT_TRUE(store.alarmSettings(kVoltage).enabled);
    EXPECT_EQ(store.calls("setChannelAlarmEnabled", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfThresholdsWritesEachTriggerAsFloat) {
    addUpsWithVoltage();
    CdsChannelAccessor t0(kUps, kVoltageName, DataType::AlarmThreshold0);
    CdsChannelAccessor t1(kUps, kVoltageName, DataType::AlarmThreshold1);
    CdsChannelAccessor t2(kUps, kVoltageName, DataType::AlarmThreshold2);
    CdsChannelAccessor t3(kUps, kVoltageName, DataType::AlarmThreshold3);

    t0.setCValue(kq::CValue(10));
    t1.setCValue(kq::CValue(11.5f));
    t2.setCValue(kq::CValue("12.25"));
    t3.setCValue(kq::CValue(13u));

    cdshost::AlarmSettings const alarm = store.alarmSettings(kVoltage);
    EXPECT_EQ(alarm.thresholds[0], 10.0f);
    EXPECT_EQ(alarm.thresholds[1], 11.5f);
    EXPECT_EQ(alarm.thresholds[2], 12.25f);
    EXPECT_EQ(alarm.thresholds[3], 13.0f);
    EXPECT_FALSE(alarm.thresholdFlag);
    EXPECT_EQ(store.calls("setChannelAlarmTriggerThreshold", kVoltage), 4u);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfThresholdEnabledWritesAsBool) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmThresholdEnabled);

    accessor.setCValue(kq::CValue(1.0f));

    cdshost::AlarmSettings const alarm = store.alarmSettings(kVoltage);
    EXPECT_TRUE(alarm.thresholdFlag);
    EXPECT_EQ(alarm.thresholds[0], 0.0f);
    EXPECT_EQ(store.calls("setChannelAlarmTriggerThreshold", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfHysteresisWritesAsFloat) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmHysteresis);

    accessor.setCValue(kq::CValue(2));

    EXPECT_EQ(store.alarmSettings(kVoltage).hysteresis, 2.0f);
    EXPECT_EQ(store.calls("setChannelAlarmHysteresis", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, SetCValueOfAlarmLevelWritesAsInt32) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmLevel);

    accessor.setCValue(kq::CValue(7.9f));

    EXPECT_EQ(store.alarmSettings(kVoltage).level, 7);
    EXPECT_EQ(store.calls("setChannelAlarmLevel", kVoltage), 1u);
}

TEST_F(CdsChannelAccessorTest, SetCValueWhileMissingDoesNothing) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);

    accessor.setCValue(kq::CValue(1.0f));

    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsChannelAccessorTest, SetCValuePropagatesStoreFailure) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmHysteresis);
    store.failNext("setChannelAlarmHysteresis");

    EXPECT_THROW(accessor.setCValue(kq::CValue(1.0f)), cdshost::InjectedFault);
}

TEST_F(CdsChannelAccessorTest, SetCValueCallsNoListener) {
    addUpsWithVoltage();
    // Its state subscription is still under id 0, so the write's own
    // notification cannot reach the listener either.
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::AlarmEnabled);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    accessor.setCValue(kq::CValue(true));

    EXPECT_EQ(recorder.values.size(), 1u);
    EXPECT_TRUE(store.alarmSettings(kVoltage).enabled);
}

// ---- Listener --------------------------------------------------------------------------

TEST_F(CdsChannelAccessorTest, SetUpdateCallbackCallsListenerAtOnceWithCurrentValue) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;

    accessor.setUpdateCallback(recorder.listener());

    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(230.5f)}));
}

TEST_F(CdsChannelAccessorTest, SetUpdateCallbackWhileMissingCallsListenerWithInvalidValue) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;

    accessor.setUpdateCallback(recorder.listener());

    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue()}));
}

TEST_F(CdsChannelAccessorTest, SetUpdateCallbackWithEmptyFunctionRemovesListenerAndCallsNothing) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store.resetCalls();

    accessor.setUpdateCallback({});
    store.setChannelValue(kVoltage, kq::CValue(1.0f));

    EXPECT_EQ(recorder.values.size(), 1u);
    EXPECT_EQ(store.calls("getChannelCValue", kVoltage), 1u);  // the notification's one read
}

TEST_F(CdsChannelAccessorTest, ListenerThatClearsItselfRunsToItsEnd) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    SelfChangingListener listener;
    // Call 1 comes from setUpdateCallback(), call 2 from the notification.
    accessor.setUpdateCallback(listener.listener(2, [&] { accessor.setUpdateCallback({}); }));

    store.setChannelValue(kVoltage, kq::CValue(1.0f));
    store.setChannelValue(kVoltage, kq::CValue(2.0f));

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 2);
}

TEST_F(CdsChannelAccessorTest, ListenerThatReplacesItselfRunsToItsEnd) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    SelfChangingListener listener;
    Recorder recorder;
    // Replaced from inside the call that setUpdateCallback() itself makes.
    accessor.setUpdateCallback(
        listener.listener(1, [&] { accessor.setUpdateCallback(recorder.listener()); }));

    store.setChannelValue(kVoltage, kq::CValue(1.0f));

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(230.5f), kq::CValue(1.0f)}));
}

TEST_F(CdsChannelAccessorTest, SetUpdateCallbackReplacesPreviousListener) {
    addUpsWithVoltage();
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder old;
    Recorder current;
    accessor.setUpdateCallback(old.listener());
    accessor.setUpdateCallback(current.listener());

    store.setChannelValue(kVoltage, kq::CValue(1.0f));

    EXPECT_EQ(old.values.size(), 1u);
    EXPECT_EQ(current.values, (std::vector<kq::CValue>{kq::CValue(230.5f), kq::CValue(1.0f)}));
}

TEST_F(CdsChannelAccessorTest, EveryFailedDetectionCallsListenerWithInvalidValue) {
    store.addDevice(kUpsName, kUps);
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());

    store.notifyDevice(kUps, kq::sub::DeviceChanged);
    store.notifyDevice(kUps, kq::sub::DeviceChanged);

    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue(), kq::CValue()}));
}

TEST_F(CdsChannelAccessorTest, CallbackUpdateChannelValueWithoutListenerDoesNothing) {
    CdsChannelAccessor accessor(kUps, kVoltageName, DataType::Value);
    EXPECT_NO_THROW(accessor.callbackUpdateChannelValue(kq::CValue(1.0f)));

    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    accessor.callbackUpdateChannelValue(kq::CValue(2.0f));
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(), kq::CValue(2.0f)}));
}

TEST_F(CdsChannelAccessorTest, IsExitingInCdsIsReachedThroughTheDataAccessorInterface) {
    store.addDevice(kUpsName, kUps);
    // The daemon holds accessors as CdsDataAccessor and calls them by this exact name.
    std::unique_ptr<modbus::CdsDataAccessor> const accessor =
        std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    EXPECT_FALSE(accessor->isExitingInCds());

    store.addChannel(kUps, kVoltageName, kq::CValue(1.0f), kVoltage);

    EXPECT_TRUE(accessor->isExitingInCds());
    EXPECT_EQ(accessor->getCValue(), kq::CValue(1.0f));
}

// ---- Destructor ------------------------------------------------------------------------

TEST_F(CdsChannelAccessorTest, DestroyingBoundAccessorLeavesEveryRegistry) {
    addUpsWithVoltage();
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::AlarmLevel);

    accessor.reset();

    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(settingsIds.empty());
    EXPECT_TRUE(deviceSettingsIds.empty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
    EXPECT_EQ(store.calls("unsubscribe"), 2u);
}

TEST_F(CdsChannelAccessorTest, DestroyingWaitingAccessorLeavesCreationRegistry) {
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);

    accessor.reset();

    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(creationIds.empty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, DestructorSwallowsUnsubscribeFailures) {
    addUpsWithVoltage();
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    store.failAlways("unsubscribe");

    EXPECT_NO_THROW(accessor.reset());

    EXPECT_EQ(store.calls("unsubscribe"), 2u);
    EXPECT_EQ(store.subscriptionCount(), 2u);
}

}  // namespace

// ---- Destruction leaves every registry, also entries detection left behind --------

TEST_F(CdsChannelAccessorTest, DestroyedAccessorLeavesAllOnesCreationEntryItWaitedUnder) {
    auto accessor = std::make_unique<CdsChannelAccessor>(kUpsName, kVoltageName, DataType::Value);
    store.addDevice(kUpsName, kUps);
    store.addChannel(kUps, kVoltageName, kq::CValue(230.5f), kVoltage);
    ASSERT_TRUE(accessor->isExitingInCds());
    ASSERT_EQ(creations.count(kAllOnes), 1u);

    accessor.reset();

    EXPECT_TRUE(registriesEmpty());
    EXPECT_TRUE(creationIds.empty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
    // A later creation must reach no destroyed accessor (the sanitizer build
    // would report a use after free here).
    store.addDevice("Outlet1", 300, kUps);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, DestroyedAlarmEnabledAccessorLeavesItsChannelZeroEntry) {
    addUpsWithVoltage();
    auto accessor =
        std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::AlarmEnabled);
    ASSERT_EQ(states.count(0), 1u);

    accessor.reset();

    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, DestroyedAccessorLeavesPreviousSubDeviceSettingsEntry) {
    store.addDevice(kUpsName, kUps);
    Id const module0 = store.addDevice("Module0", 110, kUps);
    store.addChannel(module0, kVoltageName, kq::CValue(1.0f), kVoltage);
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, std::vector<unsigned int>{0},
                                                         kVoltageName, DataType::Value);
    store.removeDevice(module0, false);
    Id const module0b = store.addDevice("Module0b", 112, kUps, false);
    store.addChannel(module0b, kVoltageName, kq::CValue(2.0f), kOtherChannel, false);
    store.notifyDevice(module0, kq::sub::DeviceChanged);
    ASSERT_EQ(deviceSettings.size(), 2u);

    accessor.reset();

    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, DestructorStillLeavesItsOwnRegistriesFirstInOrder) {
    addUpsWithVoltage();
    auto accessor = std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
    Id const updateSubscription = subscriptionIdOf(channelSub(kq::sub::ChannelValue, kVoltage));
    Id const settingsSubscription = subscriptionIdOf(deviceSub(kq::sub::DeviceChanged, kUps));
    store.resetCalls();

    accessor.reset();

    EXPECT_EQ(store.calls("unsubscribe"), 2u);
    EXPECT_EQ(store.calls("unsubscribe", updateSubscription), 1u);
    EXPECT_EQ(store.calls("unsubscribe", settingsSubscription), 1u);
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

// ---- Accessors destroyed by a listener during a notification ------------------------

namespace {

using MutuallyDestroyingPair = accessor_test::MutuallyDestroyingPair<CdsChannelAccessor>;

std::unique_ptr<CdsChannelAccessor> voltageValueAccessor() {
    return std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::Value);
}

TEST_F(CdsChannelAccessorTest, AccessorDestroyedByAnotherListenerDuringAValueUpdateIsNotCalled) {
    addUpsWithVoltage();
    MutuallyDestroyingPair pair(&voltageValueAccessor);
    pair.arm();

    store.setChannelValue(kVoltage, kq::CValue(1.0f));

    EXPECT_EQ(pair.called().size(), 1u);
    EXPECT_TRUE(pair.onlyOneWasCalled());
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_EQ(updates.at(kVoltage), (Accessors{pair.survivor()}));
    pair.destroyAll();
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, AccessorDestroyedByAnotherListenerDuringRedetectionIsNotDetected) {
    addUpsWithVoltage();
    MutuallyDestroyingPair pair(&voltageValueAccessor);
    pair.arm();
    // The update's read fails, so both accessors detect again; the first
    // detection finds the channel and its listener destroys the other.
    store.failNext("getChannelCValue", 1);

    store.setChannelValue(kVoltage, kq::CValue(1.0f));

    EXPECT_EQ(pair.called().size(), 1u);
    EXPECT_TRUE(pair.onlyOneWasCalled());
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest,
       AccessorDestroyedByAnotherListenerDuringDeviceCreationIsNotDetected) {
    MutuallyDestroyingPair pair(&voltageValueAccessor);
    pair.arm();
    // The device appears with its channel: one creation notification.
    store.addDevice(kUpsName, kUps, 0, false);
    store.addChannel(kUps, kVoltageName, kq::CValue(230.5f), kVoltage, false);

    store.notifyDevice(kUps, kq::sub::DeviceCreated);

    EXPECT_EQ(pair.called().size(), 1u);
    EXPECT_TRUE(pair.onlyOneWasCalled());
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, AccessorDestroyedByAnotherListenerDuringADeviceChangeIsNotDetected) {
    addUpsWithVoltage();
    MutuallyDestroyingPair pair(&voltageValueAccessor);
    pair.arm();

    store.removeChannel(kVoltage);

    EXPECT_EQ(pair.called().size(), 1u);
    EXPECT_TRUE(pair.onlyOneWasCalled());
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_FALSE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

}  // namespace

namespace {

TEST_F(CdsChannelAccessorTest,
       LastAccessorsOfAChannelDestroyedInsideItsUpdateCloseItsSubscription) {
    addUpsWithVoltage();
    std::unique_ptr<CdsChannelAccessor> accessors[2] = {voltageValueAccessor(),
                                                        voltageValueAccessor()};
    int calls = 0;
    for (auto& accessor : accessors) {
        accessor->setUpdateCallback([&](kq::CValue const& value) {
            if (value != kq::CValue(1.0f)) {
                return;
            }
            ++calls;
            // A listener that tears the whole map down: both accessors of the channel.
            accessors[0].reset();
            accessors[1].reset();
        });
    }

    store.setChannelValue(kVoltage, kq::CValue(1.0f));
    store.setChannelValue(kVoltage, kq::CValue(2.0f));

    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

}  // namespace

namespace {

// ---- Tearing down while memory runs out ---------------------------------------------

/* Destroys a freshly built accessor with the allocation after `successes`
 * ones failing; returns whether that allocation was reached. A destructor
 * must not throw, so a failing allocation inside it must neither leave it
 * nor end the process. */
template <typename Make>
bool destroyWithAllocationFailing(long successes, Make make) {
    std::unique_ptr<CdsChannelAccessor> accessor = make();
    failing_allocation::FailAllocationGuard const guard(successes);
    accessor.reset();
    return guard.failed();
}

TEST_F(CdsChannelAccessorTest, DestructorSurvivesEveryFailingAllocation) {
    addUpsWithVoltage();
    // A value accessor has never been in the state and settings registries:
    // finding that out while it is torn down must not need memory. (Counting
    // calls per id would take memory of the store's first.)
    store.countCallsPerId(false);
    long successes = 0;
    while (destroyWithAllocationFailing(successes, [] { return voltageValueAccessor(); })) {
        ++successes;
        ASSERT_LT(successes, 1000);
    }
    // The last destruction met no failure: it left everything behind it.
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST_F(CdsChannelAccessorTest, DestructorWithLeftoverEntriesSurvivesEveryFailingAllocation) {
    addUpsWithVoltage();
    long successes = 0;
    auto const alarmEnabled = [] {
        // Registered under channel id 0 by its first detection, and under the
        // channel's id after the next: the entry under 0 is a leftover.
        auto accessor =
            std::make_unique<CdsChannelAccessor>(kUps, kVoltageName, DataType::AlarmEnabled);
        cdshost::Store::instance().notifyDevice(kUps, kq::sub::DeviceChanged);
        return accessor;
    };
    while (destroyWithAllocationFailing(successes, alarmEnabled)) {
        ++successes;
        ASSERT_LT(successes, 1000);
    }
    // The last destruction met no failure: it left everything behind it.
    EXPECT_TRUE(registriesEmpty());
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

}  // namespace
