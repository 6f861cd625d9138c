// Host implementation of the data-store client's in-band operations: each one
// is counted, may be made to fail, and then acts on the simulated store.
#include "cdsapi/in_band_accessor.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "cdshost/store.h"
#include "read_path.h"
#include "store_impl.h"

namespace cdsapi {

namespace {

using cdshost::Id;
using cdshost::Operation;
using cdshost::StoreLock;
using Impl = cdshost::Store::Impl;
using Events = Impl::Events;

Impl& store() {
    return cdshost::Store::instance().impl();
}

void requireSubscriptionIdOut(unsigned long long* subscriptionId) {
    if (subscriptionId == nullptr) {
        throw std::invalid_argument("subscribe needs somewhere to write the subscription id");
    }
}

template <typename Callback>
void requireCallback(Callback const& callback) {
    if (!callback) {
        throw std::invalid_argument("subscribe needs a callback");
    }
}

/* A subscription of the calling client, not open yet. */
Impl::SubscriptionPtr newSubscription(Impl::Kind kind, int type, Id target,
                                      std::string const& clientName) {
    auto subscription = std::make_shared<Impl::Subscription>();
    subscription->kind = kind;
    subscription->type = type;
    subscription->target = target;
    subscription->clientName = store().clientNameLocked(clientName);
    return subscription;
}

/* Opens a subscription under the lock and writes its id before any
 * notification can reach it from another thread. */
void openSubscription(Impl& impl, Impl::SubscriptionPtr subscription,
                      unsigned long long* subscriptionId) {
    *subscriptionId = impl.subscribeLocked(std::move(subscription));
}

}  // namespace

InBandAccessor::InBandAccessor(std::string clientName) : m_clientName(std::move(clientName)) {}

kq::CDevice InBandAccessor::getDevice(unsigned long long deviceId) {
    return store().clientCall(Operation::getDevice, deviceId,
                              [&](Events&) { return store().deviceSnapshotLocked(deviceId); });
}

std::vector<unsigned long long> InBandAccessor::getSubDevicesIds(unsigned long long deviceId,
                                                                 unsigned int selector) {
    // The host store has one kind of sub-device list: every selector (0 and
    // 0x7FFFFFFF are the ones in use) gives the direct sub-devices in the
    // order they were added.
    // Device 0 is "no device": it has no sub-devices. A device accessor that
    // has not found its device yet asks about it when it counts sub-devices.
    // The selector is only noted, so that tests see which one was asked with.
    return store().clientCall(Operation::getSubDevicesIds, deviceId, [&](Events&) {
        store().lastSubDeviceSelectors[deviceId] = selector;
        return deviceId == 0 ? std::vector<unsigned long long>{}
                             : store().deviceLocked(deviceId).subDevices;
    });
}

unsigned long long InBandAccessor::getChannelId(unsigned long long deviceId,
                                                std::string const& channelName) {
    return store().clientCall(Operation::getChannelId, deviceId, [&](Events&) {
        store().deviceLocked(deviceId);  // a missing device is an error, a missing channel is 0
        return store().channelIdLocked(deviceId, channelName);
    });
}

unsigned long long InBandAccessor::getCatchedChannelId(unsigned long long deviceId,
                                                       std::string const& channelName) {
    // Answers from the store directly (the host client keeps no cache), with
    // the cache's marker for "not known", all ones, when the device or the
    // channel is missing.
    return store().clientCall(Operation::getCatchedChannelId, deviceId, [&](Events&) {
        Id const id = store().channelIdLocked(deviceId, channelName);
        return id != 0 ? id : cdshost::kAllOnes;
    });
}

kq::CChannel InBandAccessor::getChannel(unsigned long long deviceId,
                                        std::string const& channelName) {
    return store().clientCall(Operation::getChannel, deviceId, [&](Events&) {
        store().deviceLocked(deviceId);
        Id const id = store().channelIdLocked(deviceId, channelName);
        if (id == 0) {
            throw cdshost::NotFound("device " + std::to_string(deviceId) + " has no channel \"" +
                                    channelName + "\"");
        }
        return store().channelSnapshotLocked(id);
    });
}

TARSEL_READ_PATH kq::CValue InBandAccessor::getChannelCValue(unsigned long long channelId) {
    // The hottest call of a served map: one look-up of the store, for the
    // count and the value. A read changes nothing, so there is nothing to
    // deliver afterwards.
    return store().readChannelValue(channelId);
}

void InBandAccessor::setChannelCValue(unsigned long long channelId, kq::CValue const& value) {
    store().clientCall(Operation::setChannelCValue, channelId, [&](Events& events) {
        store().setChannelValueLocked(channelId, value, events);
    });
}

bool InBandAccessor::getChannelAlarmEnabled(unsigned long long channelId) {
    return store().clientCall(Operation::getChannelAlarmEnabled, channelId,
                              [&](Events&) { return store().alarmLocked(channelId).enabled; });
}

void InBandAccessor::setChannelAlarmEnabled(unsigned long long channelId, bool enabled) {
    store().clientCall(Operation::setChannelAlarmEnabled, channelId, [&](Events& events) {
        store().setAlarmEnabledLocked(channelId, enabled, events);
    });
}

float InBandAccessor::getChannelAlarmTriggerThreshold(unsigned long long channelId,
                                                      TriggerId trigger) {
    return store().clientCall(Operation::getChannelAlarmTriggerThreshold, channelId, [&](Events&) {
        auto const& alarm = store().alarmLocked(channelId);
        if (static_cast<std::uint32_t>(trigger) > 3) {
            throw std::out_of_range("trigger " + std::to_string(trigger) + " is not 0 to 3");
        }
        return alarm.thresholds[trigger];
    });
}

void InBandAccessor::setChannelAlarmTriggerThreshold(unsigned long long channelId,
                                                     TriggerId trigger, float threshold) {
    store().clientCall(Operation::setChannelAlarmTriggerThreshold, channelId, [&](Events& events) {
        store().setAlarmThresholdLocked(channelId, trigger, threshold, events);
    });
}

bool InBandAccessor::getChannelAlarmTriggerThreshold(unsigned long long channelId) {
    return store().clientCall(Operation::getChannelAlarmTriggerThreshold, channelId, [&](Events&) {
        return store().alarmLocked(channelId).thresholdFlag;
    });
}

void InBandAccessor::setChannelAlarmTriggerThreshold(unsigned long long channelId, bool flag) {
    store().clientCall(Operation::setChannelAlarmTriggerThreshold, channelId, [&](Events& events) {
        store().setAlarmThresholdFlagLocked(channelId, flag, events);
    });
}

float InBandAccessor::getChannelAlarmHysteresis(unsigned long long channelId) {
    return store().clientCall(Operation::getChannelAlarmHysteresis, channelId,
                              [&](Events&) { return store().alarmLocked(channelId).hysteresis; });
}

void InBandAccessor::setChannelAlarmHysteresis(unsigned long long channelId, float hysteresis) {
    store().clientCall(Operation::setChannelAlarmHysteresis, channelId, [&](Events& events) {
        store().setAlarmHysteresisLocked(channelId, hysteresis, events);
    });
}

LevelAlarm InBandAccessor::getChannelAlarmLevel(unsigned long long channelId) {
    return store().clientCall(Operation::getChannelAlarmLevel, channelId, [&](Events&) {
        // By value: a level the enumeration does not name passes through as is.
        return static_cast<LevelAlarm>(store().alarmLocked(channelId).level);
    });
}

void InBandAccessor::setChannelAlarmLevel(unsigned long long channelId, LevelAlarm level) {
    store().clientCall(Operation::setChannelAlarmLevel, channelId, [&](Events& events) {
        store().setAlarmLevelLocked(channelId, static_cast<std::int32_t>(level), events);
    });
}

std::string InBandAccessor::getDeviceAttribute(unsigned long long deviceId,
                                               DeviceAttribute attribute) {
    return store().clientCall(Operation::getDeviceAttribute, deviceId, [&](Events&) {
        return store().deviceAttributeTextLocked(deviceId, attribute);
    });
}

void InBandAccessor::setDeviceAttribute(unsigned long long deviceId, DeviceAttribute attribute,
                                        std::string const& value) {
    store().clientCall(Operation::setDeviceAttribute, deviceId, [&](Events& events) {
        store().setDeviceAttributeLocked(deviceId, attribute, value, events);
    });
}

void InBandAccessor::subscribeChannel(unsigned long long channelId,
                                      std::function<void(unsigned long long, kq::CValue)> callback,
                                      kq::sub::subscription_type type,
                                      unsigned long long* subscriptionId) {
    store().clientCall(Operation::subscribeChannel, channelId, [&](Events&) {
        requireSubscriptionIdOut(subscriptionId);
        requireCallback(callback);
        auto subscription = newSubscription(Impl::Kind::Channel, type, channelId, m_clientName);
        subscription->callback.emplace<Impl::ChannelCallback>(std::move(callback));
        openSubscription(store(), std::move(subscription), subscriptionId);
    });
}

void InBandAccessor::subscribeDevice(unsigned long long deviceId,
                                     std::function<void(unsigned long long)> callback,
                                     kq::sub::subscription_type type, bool includeSubDevices,
                                     unsigned long long* subscriptionId) {
    store().clientCall(Operation::subscribeDevice, deviceId, [&](Events&) {
        requireSubscriptionIdOut(subscriptionId);
        requireCallback(callback);
        auto subscription = newSubscription(Impl::Kind::Device, type, deviceId, m_clientName);
        subscription->includeSubDevices = includeSubDevices;
        subscription->callback.emplace<Impl::DeviceCallback>(std::move(callback));
        openSubscription(store(), std::move(subscription), subscriptionId);
    });
}

void InBandAccessor::subscribeDeviceAlarms(unsigned long long id,
                                           std::function<void(kq::CAlarmUpdate const&)> callback,
                                           unsigned long long* subscriptionId) {
    store().clientCall(Operation::subscribeDeviceAlarms, id, [&](Events&) {
        requireSubscriptionIdOut(subscriptionId);
        requireCallback(callback);
        auto subscription = newSubscription(Impl::Kind::Alarm, 0, id, m_clientName);
        subscription->callback.emplace<Impl::AlarmCallback>(std::move(callback));
        openSubscription(store(), std::move(subscription), subscriptionId);
    });
}

void InBandAccessor::unsubscribe(unsigned long long subscriptionId) {
    // Not through clientCall: ending a subscription may have to wait, with the
    // lock released, for a delivery on another thread.
    Impl& impl = store();
    std::unique_lock<StoreLock> lock(impl.mutex);
    impl.enterCallLocked(Operation::unsubscribe, subscriptionId);
    // 0 is never handed out: it is what a caller holds for a subscription that
    // was never opened, so there is nothing to end.
    if (subscriptionId == 0) {
        return;
    }
    impl.unsubscribeLocked(subscriptionId, lock);
}

}  // namespace cdsapi
