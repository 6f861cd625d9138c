// CdsDeviceAccessor against the host data store: detection and its outcomes,
// attribute 16, reads and writes, the three registries and their handlers.
#include "modbus/CdsDeviceAccessor.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cdshost/store.h"
#include "modbus/CdsInBandAccessor.h"
#include "value_recorder.h"

namespace {

using modbus::CdsDeviceAccessor;

constexpr unsigned long long kAllOnes = ~0ULL;
constexpr int kChanged = kq::sub::DeviceChanged;
constexpr int kCreated = kq::sub::DeviceCreated;

cdshost::Store& store() {
    return cdshost::Store::instance();
}

using accessor_test::Recorder;
using accessor_test::SelfChangingListener;

/* How many device subscriptions of a type are open for an id. */
std::size_t deviceSubs(int type, cdshost::Id id) {
    return store().subscriptionCount("device", type, id);
}

bool inUpdateRegistry(cdshost::Id id, CdsDeviceAccessor* accessor) {
    auto const entry = CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.find(id);
    return entry != CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.end() &&
           entry->second.count(accessor) != 0;
}
bool inSettingsRegistry(cdshost::Id id, CdsDeviceAccessor* accessor) {
    auto const entry = CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.find(id);
    return entry != CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.end() &&
           entry->second.count(accessor) != 0;
}
bool inCreationRegistry(cdshost::Id id, CdsDeviceAccessor* accessor) {
    auto const entry = CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.find(id);
    return entry != CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.end() &&
           entry->second.count(accessor) != 0;
}

/* Detected: update and settings under the device, nothing waiting for creation. */
void expectDetected(CdsDeviceAccessor* accessor, cdshost::Id device) {
    EXPECT_TRUE(accessor->isExitingInCds());
    EXPECT_TRUE(inUpdateRegistry(device, accessor));
    EXPECT_TRUE(inSettingsRegistry(device, accessor));
    EXPECT_EQ(deviceSubs(kChanged, device), 2u);  // one update, one settings subscription
}

/* Waiting for the configured device to be created; nothing else held. */
void expectWaitingForCreation(CdsDeviceAccessor* accessor, cdshost::Id configured) {
    EXPECT_FALSE(accessor->isExitingInCds());
    EXPECT_TRUE(inCreationRegistry(configured, accessor));
    EXPECT_EQ(deviceSubs(kCreated, configured), 1u);
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.empty());
}

class CdsDeviceAccessorTest : public ::testing::Test {
  protected:
    static constexpr cdshost::Id kUps = 10;

    void SetUp() override {
        store().addDevice("UPS", kUps);
        store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 1500");
        store().setDeviceAttribute(kUps, cdsapi::AttributeNominalPower, "1500");
    }

    /* Adds `count` sub-devices to `parent` and returns their ids in order. */
    static std::vector<cdshost::Id> addSubDevices(cdshost::Id parent, int count,
                                                  std::string const& prefix) {
        std::vector<cdshost::Id> ids;
        for (int i = 0; i < count; ++i) {
            ids.push_back(store().addDevice(prefix + std::to_string(i), 0, parent));
        }
        return ids;
    }
};

// ---- Construction and detection ----------------------------------------------

TEST_F(CdsDeviceAccessorTest, ByIdDetectsExistingDeviceAndReadsItsAttribute) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    expectDetected(&accessor, kUps);
    EXPECT_EQ(deviceSubs(kCreated, kUps), 0u);
    EXPECT_EQ(accessor.getCValue(), kq::CValue("Model 1500"));
    EXPECT_EQ(accessor.getCValue().type(), kq::CValue::Type::String);
}

TEST_F(CdsDeviceAccessorTest, DetectionUsesTheSharedModbusConnection) {
    CdsDeviceAccessor const first(kUps, cdsapi::AttributeModel);
    CdsDeviceAccessor const second(kUps, cdsapi::AttributeNominalPower);
    EXPECT_EQ(store().connections("modbus"), 1u);
    for (auto const& subscription : store().subscriptions()) {
        EXPECT_EQ(subscription.clientName, "modbus");
    }
}

TEST_F(CdsDeviceAccessorTest, AttributeIsHandedOnUnchanged) {
    store().setDeviceAttribute(kUps, cdsapi::AttributeLocation, "  Rack 4 ");
    CdsDeviceAccessor const accessor(kUps, cdsapi::AttributeLocation);
    EXPECT_EQ(accessor.getCValue(), kq::CValue("  Rack 4 "));
}

TEST_F(CdsDeviceAccessorTest, ByIdMissingDeviceWaitsForCreationAndReadsInvalid) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    expectWaitingForCreation(&accessor, 77);
    EXPECT_FALSE(accessor.getCValue().isValid());
    EXPECT_EQ(store().calls("getDeviceAttribute"), 0u);
}

TEST_F(CdsDeviceAccessorTest, WaitingAccessorIsDetectedWhenItsDeviceIsCreated) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    store().addDevice("Bypass", 77);
    expectDetected(&accessor, 77);
    EXPECT_EQ(deviceSubs(kCreated, 77), 0u);
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.empty());
}

TEST_F(CdsDeviceAccessorTest, CreationPassesTheFreshAttributeToTheCallback) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().addDevice("Bypass", 77, 0, false);
    store().setDeviceAttribute(77, cdsapi::AttributeModel, "BP-3", false);
    store().notifyDevice(77, kq::sub::DeviceCreated);
    ASSERT_EQ(recorder.values.size(), 2u);
    EXPECT_FALSE(recorder.values[0].isValid());  // installed while waiting
    EXPECT_EQ(recorder.values[1], kq::CValue("BP-3"));
}

TEST_F(CdsDeviceAccessorTest, ByNameLooksUpTheDeviceAndDetectsIt) {
    CdsDeviceAccessor accessor(std::string("UPS"), cdsapi::AttributeNominalPower);
    EXPECT_EQ(store().calls("getDeviceByName"), 1u);
    expectDetected(&accessor, kUps);
    EXPECT_EQ(accessor.getCValue(), kq::CValue("1500"));
}

TEST_F(CdsDeviceAccessorTest, ByNameLooksUpTheNameOnlyOnce) {
    CdsDeviceAccessor accessor(std::string("UPS"), cdsapi::AttributeModel);
    CdsDeviceAccessor::cdsDeviceSettings(kUps);
    EXPECT_EQ(store().calls("getDeviceByName"), 1u);
}

TEST_F(CdsDeviceAccessorTest, ByNameLookupFailureLeavesTheConstructor) {
    // Unlike the alarm accessor, a failed name look-up is not absorbed.
    EXPECT_THROW(CdsDeviceAccessor(std::string("No such device"), cdsapi::AttributeModel),
                 std::exception);
    store().failNext("getDeviceByName");
    EXPECT_THROW(CdsDeviceAccessor(std::string("UPS"), cdsapi::AttributeModel),
                 cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, ByNameAnswerForMissingDeviceWaitsForCreationOfThatId) {
    store().answerName("Ghost", 55);
    CdsDeviceAccessor accessor(std::string("Ghost"), cdsapi::AttributeModel);
    expectWaitingForCreation(&accessor, 55);
    EXPECT_EQ(deviceSubs(kCreated, kAllOnes), 0u);
}

TEST_F(CdsDeviceAccessorTest, IndexPathFollowsSubDevices) {
    auto const children = addSubDevices(kUps, 3, "Module");
    auto const grandChildren = addSubDevices(children[0], 2, "Cell");
    store().setDeviceAttribute(grandChildren[1], cdsapi::AttributeSerialNumber, "SN-0-1");
    CdsDeviceAccessor accessor(kUps, {0, 1}, cdsapi::AttributeSerialNumber);
    expectDetected(&accessor, grandChildren[1]);
    EXPECT_EQ(accessor.getCValue(), kq::CValue("SN-0-1"));
    EXPECT_EQ(store().calls("getSubDevicesIds", kUps), 1u);
    EXPECT_EQ(store().calls("getSubDevicesIds", children[0]), 1u);
}

TEST_F(CdsDeviceAccessorTest, IndexPathBeyondTheListIsNotFoundAndWaitsForTheConfiguredDevice) {
    auto const children = addSubDevices(kUps, 3, "Module");
    addSubDevices(children[0], 2, "Cell");
    CdsDeviceAccessor accessor(kUps, {0, 2}, cdsapi::AttributeSerialNumber);
    expectWaitingForCreation(&accessor, kUps);
    EXPECT_FALSE(accessor.getCValue().isValid());
}

TEST_F(CdsDeviceAccessorTest, GetDeviceFailureCountsAsNotFound) {
    store().failNext("getDevice");
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    expectWaitingForCreation(&accessor, kUps);
}

TEST_F(CdsDeviceAccessorTest, SubDeviceListFailureCountsAsNotFound) {
    addSubDevices(kUps, 1, "Module");
    store().failNext("getSubDevicesIds");
    CdsDeviceAccessor accessor(kUps, {0}, cdsapi::AttributeModel);
    expectWaitingForCreation(&accessor, kUps);
}

TEST_F(CdsDeviceAccessorTest, SubscriptionFailureLeavesTheConstructor) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor(kUps, cdsapi::AttributeModel), cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, ThrowingConstructorLeavesNoTrace) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor(kUps, cdsapi::AttributeModel), cdshost::InjectedFault);

    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.empty());
}

TEST_F(CdsDeviceAccessorTest, ThrowingConstructorIsNeverReachedByALaterDeviceChange) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor(kUps, cdsapi::AttributeModel), cdshost::InjectedFault);
    CdsDeviceAccessor survivor(kUps, cdsapi::AttributeModel);
    EXPECT_TRUE(inSettingsRegistry(kUps, &survivor));
    EXPECT_EQ(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.at(kUps).size(), 1u);

    EXPECT_NO_THROW(store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 3000"));
}

TEST_F(CdsDeviceAccessorTest, ListenerThatClearsItselfRunsToItsEnd) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    SelfChangingListener listener;
    accessor.setUpdateCallback(listener.listener(2, [&] { accessor.setUpdateCallback({}); }));

    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 3000");
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 4000");

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 2);
}

TEST_F(CdsDeviceAccessorTest, ListenerThatReplacesItselfRunsToItsEnd) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    SelfChangingListener listener;
    Recorder recorder;
    accessor.setUpdateCallback(
        listener.listener(1, [&] { accessor.setUpdateCallback(recorder.listener()); }));

    EXPECT_TRUE(listener.aliveAfterChange);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(std::string("Model 1500"))}));
}

TEST_F(CdsDeviceAccessorTest, CreationSubscriptionFailureLeavesTheConstructor) {
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor(77, cdsapi::AttributeModel), cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, DestructorClosesEverySubscription) {
    {
        CdsDeviceAccessor const detected(kUps, cdsapi::AttributeModel);
        CdsDeviceAccessor const waiting(77, cdsapi::AttributeModel);
        EXPECT_EQ(store().subscriptionCount(), 3u);
    }
    EXPECT_EQ(store().subscriptionCount(), 0u);
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriberId.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriberId.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriberId.empty());
}

TEST_F(CdsDeviceAccessorTest, AccessorsOfOneDeviceShareOneSubscriptionPerKind) {
    auto first = std::make_unique<CdsDeviceAccessor>(kUps, cdsapi::AttributeModel);
    auto second = std::make_unique<CdsDeviceAccessor>(kUps, cdsapi::AttributeNominalPower);
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
    first.reset();
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
    second.reset();
    EXPECT_EQ(deviceSubs(kChanged, kUps), 0u);
}

TEST_F(CdsDeviceAccessorTest, FailedUnsubscribeKeepsTheEntriesAndTheNextAccessorReusesThem) {
    // Intended: an id whose unsubscribe failed stays registered with an empty
    // set, and a later accessor of that id opens no second subscription.
    auto first = std::make_unique<CdsDeviceAccessor>(kUps, cdsapi::AttributeModel);
    store().failNext("unsubscribe");
    first.reset();
    ASSERT_EQ(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.count(kUps), 1u);
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.at(kUps).empty());
    EXPECT_EQ(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriberId.count(kUps), 1u);
    EXPECT_EQ(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.count(kUps), 0u);
    store().resetCalls();
    CdsDeviceAccessor const second(kUps, cdsapi::AttributeModel);
    EXPECT_EQ(store().calls("subscribeDevice"), 1u);  // settings only
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
}

// ---- Attribute 16 -------------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, Attribute16ReadsTheSubDeviceCountAsUnsigned64) {
    addSubDevices(kUps, 3, "Module");
    CdsDeviceAccessor const accessor(kUps, cdsapi::AttributeSubDeviceCount);
    store().resetCalls();
    kq::CValue const value = accessor.getCValue();
    EXPECT_EQ(value, kq::CValue(3ULL));
    EXPECT_EQ(value.type(), kq::CValue::Type::Uint64);
    EXPECT_EQ(store().calls("getSubDevicesIds", kUps), 1u);
    EXPECT_EQ(store().calls("getDeviceAttribute"), 0u);
}

TEST_F(CdsDeviceAccessorTest, Attribute16CountsWhatTheStoreListsForSelector7FFFFFFF) {
    auto const children = addSubDevices(kUps, 2, "Module");
    addSubDevices(children[1], 4, "Cell");
    CdsDeviceAccessor const accessor(kUps, cdsapi::AttributeSubDeviceCount);
    auto const listed =
        modbus::CdsInBandAccessor::getInstance().inBand().getSubDevicesIds(kUps, 0x7FFFFFFF);
    EXPECT_EQ(accessor.getCValue(), kq::CValue(static_cast<unsigned long long>(listed.size())));
}

TEST_F(CdsDeviceAccessorTest, Attribute16AsksTheStoreWithSelector7FFFFFFF) {
    addSubDevices(kUps, 2, "Module");
    CdsDeviceAccessor const accessor(kUps, cdsapi::AttributeSubDeviceCount);
    store().resetCalls();
    static_cast<void>(accessor.getCValue());
    EXPECT_EQ(store().lastSubDeviceSelector(kUps), 0x7FFFFFFFu);
}

TEST_F(CdsDeviceAccessorTest, IndexPathIsFollowedWithSelector0) {
    auto const children = addSubDevices(kUps, 2, "Module");
    addSubDevices(children[1], 1, "Cell");
    CdsDeviceAccessor const accessor(kUps, {1, 0}, cdsapi::AttributeModel);
    ASSERT_TRUE(accessor.isExitingInCds());
    EXPECT_EQ(store().lastSubDeviceSelector(kUps), 0u);
    EXPECT_EQ(store().lastSubDeviceSelector(children[1]), 0u);
}

TEST_F(CdsDeviceAccessorTest, Attribute16BeforeDetectionAsksAboutDevice0) {
    CdsDeviceAccessor const accessor(77, cdsapi::AttributeSubDeviceCount);
    store().resetCalls();
    // Device 0 is no device, so it has no sub-devices: the count is 0.
    EXPECT_EQ(accessor.getCValue(), kq::CValue(0ULL));
    EXPECT_EQ(store().calls("getSubDevicesIds", 0), 1u);
    EXPECT_EQ(store().calls("getSubDevicesIds"), 1u);
}

TEST_F(CdsDeviceAccessorTest, Attribute16IsNeverWritten) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeSubDeviceCount);
    ASSERT_TRUE(accessor.isExitingInCds());
    accessor.setCValue(kq::CValue("5"));
    EXPECT_EQ(store().calls("setDeviceAttribute"), 0u);
}

TEST_F(CdsDeviceAccessorTest, Attribute16CallbackOnDetectionGetsTheStoresOwnText) {
    // Intended: the listener's first value on detection is the raw attribute
    // read, a string, never the count that getCValue() gives for 16.
    CdsDeviceAccessor accessor(77, cdsapi::AttributeSubDeviceCount);
    Recorder recorder;
    // Installing it calls it at once with the count of device 0: no device, 0.
    accessor.setUpdateCallback(recorder.listener());
    ASSERT_EQ(recorder.values, (std::vector<kq::CValue>{kq::CValue(0ULL)}));
    recorder.values.clear();
    store().addDevice("Bypass", 77, 0, false);
    addSubDevices(77, 2, "Module");
    std::string const text = modbus::CdsInBandAccessor::getInstance().inBand().getDeviceAttribute(
        77, cdsapi::AttributeSubDeviceCount);
    store().resetCalls();
    store().notifyDevice(77, kq::sub::DeviceCreated);
    ASSERT_EQ(recorder.values.size(), 1u);
    EXPECT_EQ(recorder.values.back(), kq::CValue(text));
    EXPECT_EQ(text, "2");
    EXPECT_EQ(recorder.values.back().type(), kq::CValue::Type::String);
    EXPECT_EQ(store().calls("getDeviceAttribute", 77), 1u);
}

// ---- Reads and writes -----------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, GetCValueLetsStoreFailureThrough) {
    CdsDeviceAccessor const accessor(kUps, cdsapi::AttributeModel);
    store().failNext("getDeviceAttribute");
    EXPECT_THROW(accessor.getCValue(), cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, SetCValueWritesTheValueAsText) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeNominalPower);
    accessor.setCValue(kq::CValue(1800u));
    EXPECT_EQ(store().deviceAttribute(kUps, cdsapi::AttributeNominalPower),
              std::optional<std::string>("1800"));
    EXPECT_EQ(store().calls("setDeviceAttribute", kUps), 1u);
}

TEST_F(CdsDeviceAccessorTest, SetCValueOnAMissingDeviceWritesNothing) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    accessor.setCValue(kq::CValue("X"));
    EXPECT_EQ(store().calls("setDeviceAttribute"), 0u);
}

TEST_F(CdsDeviceAccessorTest, SetCValueLetsStoreFailureThrough) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    store().failNext("setDeviceAttribute");
    EXPECT_THROW(accessor.setCValue(kq::CValue("X")), cdshost::InjectedFault);
}

// ---- Listener ---------------------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, InstallingACallbackCallsItOnceWithTheCurrentValue) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    ASSERT_EQ(recorder.values.size(), 1u);
    EXPECT_EQ(recorder.values[0], kq::CValue("Model 1500"));
}

TEST_F(CdsDeviceAccessorTest, InstallingAnEmptyCallbackCallsNothingAndRemovesTheOldOne) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    accessor.setUpdateCallback({});
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_EQ(recorder.values.size(), 1u);
}

TEST_F(CdsDeviceAccessorTest, InstallingACallbackLetsAFailedReadThrough) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    store().failNext("getDeviceAttribute");
    Recorder recorder;
    EXPECT_THROW(accessor.setUpdateCallback(recorder.listener()), cdshost::InjectedFault);
    EXPECT_TRUE(recorder.values.empty());
}

// ---- Update notifications ------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, UpdateNotificationPassesTheFreshAttributeEveryTime) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000", false);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    ASSERT_EQ(recorder.values.size(), 3u);
    EXPECT_EQ(recorder.values[1], kq::CValue("Model 2000"));
    EXPECT_EQ(recorder.values[2], kq::CValue("Model 2000"));
    EXPECT_TRUE(accessor.isExitingInCds());
}

TEST_F(CdsDeviceAccessorTest, UpdateNotificationReadsEachAccessorsOwnAttribute) {
    CdsDeviceAccessor model(kUps, cdsapi::AttributeModel);
    CdsDeviceAccessor power(kUps, cdsapi::AttributeNominalPower);
    Recorder modelValues;
    Recorder powerValues;
    model.setUpdateCallback(modelValues.listener());
    power.setUpdateCallback(powerValues.listener());
    store().resetCalls();
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_EQ(modelValues.values.back(), kq::CValue("Model 1500"));
    EXPECT_EQ(powerValues.values.back(), kq::CValue("1500"));
    EXPECT_EQ(store().calls("getDeviceAttribute", kUps), 2u);
}

TEST_F(CdsDeviceAccessorTest, UpdateNotificationForAnUnregisteredIdThrowsMapAt) {
    try {
        CdsDeviceAccessor::cdsDeviceUpdate(4242);
        FAIL() << "expected std::out_of_range";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(CdsDeviceAccessorTest, UpdateReadFailureRedetectsOnlyTheFailingAccessor) {
    CdsDeviceAccessor a(kUps, cdsapi::AttributeModel);
    CdsDeviceAccessor b(kUps, cdsapi::AttributeNominalPower);
    // The handler walks in pointer order; the first read of the walk fails.
    CdsDeviceAccessor& failing = std::less<CdsDeviceAccessor*>()(&a, &b) ? a : b;
    CdsDeviceAccessor& other = &failing == &a ? b : a;
    Recorder failingValues;
    Recorder otherValues;
    failing.setUpdateCallback(failingValues.listener());
    other.setUpdateCallback(otherValues.listener());
    store().resetCalls();
    store().failNext("getDeviceAttribute", 1, kUps);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_EQ(store().calls("getDevice"), 1u);  // one re-detection
    // Found again under the same id: reported as not existing.
    EXPECT_FALSE(failing.isExitingInCds());
    EXPECT_FALSE(failingValues.values.back().isValid());
    EXPECT_TRUE(other.isExitingInCds());
    ASSERT_EQ(otherValues.values.size(), 2u);
    EXPECT_EQ(otherValues.values.back(), other.getCValue());
    EXPECT_TRUE(otherValues.values.back().isValid());
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
}

TEST_F(CdsDeviceAccessorTest, UpdateCallbackFailureRedetectsTheAccessor) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    int calls = 0;
    accessor.setUpdateCallback([&calls](kq::CValue const& value) {
        ++calls;
        if (value.isValid() && calls == 2) {
            throw std::runtime_error("listener failed");
        }
    });
    store().resetCalls();
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_EQ(calls, 3);  // the failing push, then the invalid value of the re-detection
    EXPECT_EQ(store().calls("getDevice", kUps), 1u);
    EXPECT_FALSE(accessor.isExitingInCds());
}

TEST_F(CdsDeviceAccessorTest,
       UpdateReadFailureOfAGoneDeviceWaitsForCreationAndKeepsTheUpdateSubscription) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    store().removeDevice(kUps, false);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_FALSE(accessor.isExitingInCds());
    EXPECT_TRUE(inCreationRegistry(kUps, &accessor));
    EXPECT_EQ(deviceSubs(kCreated, kUps), 1u);
    // The handler cleared the flag before detecting, so only settings were left.
    EXPECT_FALSE(inSettingsRegistry(kUps, &accessor));
    EXPECT_TRUE(inUpdateRegistry(kUps, &accessor));
    EXPECT_EQ(deviceSubs(kChanged, kUps), 1u);

    // Re-created under the same id: detected again, one subscription per kind.
    store().addDevice("UPS", kUps);
    expectDetected(&accessor, kUps);
    EXPECT_EQ(deviceSubs(kCreated, kUps), 0u);
}

TEST_F(CdsDeviceAccessorTest, DestroyedAfterItsDeviceVanishedLeavesTheKeptUpdateRegistration) {
    auto accessor = std::make_unique<CdsDeviceAccessor>(kUps, cdsapi::AttributeModel);
    store().removeDevice(kUps, false);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    ASSERT_TRUE(inUpdateRegistry(kUps, accessor.get()));
    accessor.reset();
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.empty());
    EXPECT_EQ(store().subscriptionCount(), 0u);
    // A later change of a device under that id reaches no destroyed accessor.
    store().addDevice("UPS", kUps);
    EXPECT_NO_THROW(store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000"));
}

TEST_F(CdsDeviceAccessorTest, UpdateRedetectionFailureLeavesTheHandler) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    store().removeDevice(kUps, false);
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor::cdsDeviceUpdate(kUps), cdshost::InjectedFault);
}

// ---- Settings notifications -------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, SettingsNotificationForAPresentDeviceReportsNotExisting) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().resetCalls();
    CdsDeviceAccessor::cdsDeviceSettings(kUps);
    // Intended: found again under the same id counts as not existing.
    EXPECT_FALSE(accessor.isExitingInCds());
    ASSERT_EQ(recorder.values.size(), 2u);
    EXPECT_FALSE(recorder.values[1].isValid());
    EXPECT_FALSE(accessor.getCValue().isValid());
    // Subscriptions are left as they were.
    EXPECT_TRUE(inUpdateRegistry(kUps, &accessor));
    EXPECT_TRUE(inSettingsRegistry(kUps, &accessor));
    EXPECT_EQ(deviceSubs(kChanged, kUps), 2u);
    EXPECT_EQ(store().calls("subscribeDevice"), 0u);
    EXPECT_EQ(store().calls("unsubscribe"), 0u);
}

TEST_F(CdsDeviceAccessorTest,
       AfterARepeatedDetectionUpdatesStillReachTheCallbackButReadsAndWritesAreDropped) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    CdsDeviceAccessor::cdsDeviceSettings(kUps);
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000", false);
    CdsDeviceAccessor::cdsDeviceUpdate(kUps);
    EXPECT_EQ(recorder.values.back(), kq::CValue("Model 2000"));
    EXPECT_FALSE(accessor.getCValue().isValid());
    accessor.setCValue(kq::CValue("Model 3000"));
    EXPECT_EQ(store().calls("setDeviceAttribute"), 0u);
}

TEST_F(CdsDeviceAccessorTest,
       AttributeChangeInTheStoreReachesTheCallbackAndLeavesTheAccessorNotExisting) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000");
    // Settings (opened first) re-detects the same device, then the update
    // handler pushes the fresh value.
    ASSERT_EQ(recorder.values.size(), 3u);
    EXPECT_FALSE(recorder.values[1].isValid());
    EXPECT_EQ(recorder.values[2], kq::CValue("Model 2000"));
    EXPECT_FALSE(accessor.isExitingInCds());
}

TEST_F(CdsDeviceAccessorTest, SettingsNotificationForARemovedDeviceWaitsForCreation) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().removeDevice(kUps);
    expectWaitingForCreation(&accessor, kUps);
    EXPECT_EQ(deviceSubs(kChanged, kUps), 0u);
    EXPECT_FALSE(recorder.values.back().isValid());

    store().addDevice("UPS", kUps, 0, false);
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000", false);
    store().notifyDevice(kUps, kq::sub::DeviceCreated);
    expectDetected(&accessor, kUps);
    EXPECT_EQ(recorder.values.back(), kq::CValue("Model 2000"));
}

TEST_F(CdsDeviceAccessorTest,
       DeviceFoundUnderANewIdMovesTheUpdateSubscriptionButKeepsTheOldSettings) {
    auto const children = addSubDevices(kUps, 2, "Module");
    CdsDeviceAccessor accessor(kUps, {0}, cdsapi::AttributeModel);
    expectDetected(&accessor, children[0]);
    store().removeDevice(children[0], false);  // the second module moves to index 0
    CdsDeviceAccessor::cdsDeviceSettings(children[0]);
    EXPECT_TRUE(accessor.isExitingInCds());
    EXPECT_TRUE(inUpdateRegistry(children[1], &accessor));
    EXPECT_TRUE(inSettingsRegistry(children[1], &accessor));
    EXPECT_FALSE(inUpdateRegistry(children[0], &accessor));
    // Intended: the old device's settings subscription is kept.
    EXPECT_TRUE(inSettingsRegistry(children[0], &accessor));
    EXPECT_EQ(deviceSubs(kChanged, children[0]), 1u);
    EXPECT_EQ(deviceSubs(kChanged, children[1]), 2u);
}

TEST_F(CdsDeviceAccessorTest, DestroyedAfterMovingToANewDeviceLeavesTheOldSettingsToo) {
    auto const children = addSubDevices(kUps, 2, "Module");
    auto accessor = std::make_unique<CdsDeviceAccessor>(kUps, std::vector<unsigned int>{0},
                                                        cdsapi::AttributeModel);
    store().removeDevice(children[0], false);
    CdsDeviceAccessor::cdsDeviceSettings(children[0]);
    ASSERT_TRUE(inSettingsRegistry(children[0], accessor.get()));
    accessor.reset();
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.empty());
    EXPECT_EQ(store().subscriptionCount(), 0u);
}

TEST_F(CdsDeviceAccessorTest, SettingsNotificationForAnUnregisteredIdDoesNothing) {
    store().resetCalls();
    EXPECT_NO_THROW(CdsDeviceAccessor::cdsDeviceSettings(4242));
    EXPECT_EQ(store().calls("getDevice"), 0u);
}

TEST_F(CdsDeviceAccessorTest, SettingsNotificationStopsAtTheFirstFailingAccessor) {
    CdsDeviceAccessor a(kUps, cdsapi::AttributeModel);
    CdsDeviceAccessor b(kUps, cdsapi::AttributeNominalPower);
    CdsDeviceAccessor& first = std::less<CdsDeviceAccessor*>()(&a, &b) ? a : b;
    CdsDeviceAccessor& second = &first == &a ? b : a;
    first.setUpdateCallback([](kq::CValue const& value) {
        if (!value.isValid()) {
            throw std::runtime_error("listener failed");
        }
    });
    store().resetCalls();
    EXPECT_NO_THROW(CdsDeviceAccessor::cdsDeviceSettings(kUps));
    EXPECT_EQ(store().calls("getDevice"), 1u);
    EXPECT_FALSE(first.isExitingInCds());
    EXPECT_TRUE(second.isExitingInCds());  // never detected again
}

TEST_F(CdsDeviceAccessorTest, SettingsNotificationSwallowsAFailedSubscription) {
    CdsDeviceAccessor accessor(kUps, cdsapi::AttributeModel);
    store().removeDevice(kUps, false);
    store().failNext("subscribeDevice");
    EXPECT_NO_THROW(CdsDeviceAccessor::cdsDeviceSettings(kUps));
    EXPECT_EQ(deviceSubs(kCreated, kUps), 0u);
}

// ---- Creation notifications --------------------------------------------------------

TEST_F(CdsDeviceAccessorTest, CreationNotificationForAnUnregisteredIdThrowsMapAt) {
    try {
        CdsDeviceAccessor::cdsDeviceCreation(4242);
        FAIL() << "expected std::out_of_range";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(CdsDeviceAccessorTest, CreationNotificationLetsAFailedAttributeReadThrough) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    Recorder recorder;
    accessor.setUpdateCallback(recorder.listener());
    store().addDevice("Bypass", 77, 0, false);
    store().failNext("getDeviceAttribute", 1, 77);
    EXPECT_THROW(CdsDeviceAccessor::cdsDeviceCreation(77), cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, CreationNotificationLetsAFailedSubscriptionThrough) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    store().addDevice("Bypass", 77, 0, false);
    store().failNext("subscribeDevice");
    EXPECT_THROW(CdsDeviceAccessor::cdsDeviceCreation(77), cdshost::InjectedFault);
}

TEST_F(CdsDeviceAccessorTest, CreationNotificationOfAStillMissingDeviceKeepsWaiting) {
    CdsDeviceAccessor accessor(77, cdsapi::AttributeModel);
    CdsDeviceAccessor::cdsDeviceCreation(77);
    expectWaitingForCreation(&accessor, 77);
}

TEST_F(CdsDeviceAccessorTest, CreationNotificationRedetectsEveryWaitingAccessor) {
    CdsDeviceAccessor a(77, cdsapi::AttributeModel);
    CdsDeviceAccessor b(77, cdsapi::AttributeNominalPower);
    store().addDevice("Bypass", 77);
    EXPECT_TRUE(a.isExitingInCds());
    EXPECT_TRUE(b.isExitingInCds());
    EXPECT_EQ(deviceSubs(kChanged, 77), 2u);
    EXPECT_EQ(deviceSubs(kCreated, 77), 0u);
}

// ---- Accessors destroyed by a listener during a notification ------------------------

using MutuallyDestroyingPair = accessor_test::MutuallyDestroyingPair<CdsDeviceAccessor>;

std::unique_ptr<CdsDeviceAccessor> upsModelAccessor() {
    return std::make_unique<CdsDeviceAccessor>(10, cdsapi::AttributeModel);
}

/* Both accessors gone: no registry entry and no subscription left. */
void expectNothingLeft() {
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber.empty());
    EXPECT_TRUE(CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber.empty());
    EXPECT_EQ(store().subscriptionCount(), 0u);
}

TEST_F(CdsDeviceAccessorTest,
       AccessorDestroyedByAnotherListenerDuringAnAttributeUpdateIsNotCalled) {
    // Only the attribute update carries a value: the settings notification
    // that comes with it hands the listeners the invalid value.
    MutuallyDestroyingPair pair(&upsModelAccessor, [](kq::CValue const& v) { return v.isValid(); });
    pair.arm();

    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000");

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(inUpdateRegistry(kUps, pair.survivor()));
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsDeviceAccessorTest, AccessorDestroyedByAnotherListenerDuringADeviceChangeIsNotDetected) {
    MutuallyDestroyingPair pair(&upsModelAccessor,
                                [](kq::CValue const& v) { return !v.isValid(); });
    pair.arm();

    store().notifyDevice(kUps, kq::sub::DeviceChanged);

    EXPECT_EQ(pair.called().size(), 1u);
    EXPECT_EQ(pair.alive(), 1u);
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsDeviceAccessorTest, AccessorDestroyedByAnotherListenerDuringDeviceCreationIsNotDetected) {
    static constexpr cdshost::Id kLater = 20;
    MutuallyDestroyingPair pair(
        [] { return std::make_unique<CdsDeviceAccessor>(kLater, cdsapi::AttributeModel); });
    pair.arm();

    store().addDevice("Later", kLater);

    EXPECT_EQ(pair.called().size(), 1u);
    ASSERT_EQ(pair.alive(), 1u);
    EXPECT_TRUE(pair.survivor()->isExitingInCds());
    pair.destroyAll();
    expectNothingLeft();
}

TEST_F(CdsDeviceAccessorTest, AccessorThatItsListenerDestroysBeforeThrowingIsNotDetectedAgain) {
    auto accessor = std::make_unique<CdsDeviceAccessor>(kUps, cdsapi::AttributeModel);
    bool called = false;
    accessor->setUpdateCallback([&](kq::CValue const& value) {
        if (!value.isValid() || value.as_string() != "Model 2000") {
            return;
        }
        called = true;
        accessor.reset();
        throw std::runtime_error("listener failed after destroying its accessor");
    });

    // The failure of a listener is not the store's to see: the handler keeps it.
    store().setDeviceAttribute(kUps, cdsapi::AttributeModel, "Model 2000");

    EXPECT_TRUE(called);
    EXPECT_EQ(accessor, nullptr);
    expectNothingLeft();
}

}  // namespace
