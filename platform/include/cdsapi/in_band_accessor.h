// In-band operations of the card platform's data-store client: channel values
// and alarm settings, device attributes, sub-device lists, subscriptions.
//
// Contract (what callers may rely on):
//  - getDevice() throws when the device does not exist.
//  - getChannelCValue() throws when the channel does not exist.
//  - getChannelId() returns 0 for a missing channel (and throws for a missing
//    device); getCatchedChannelId() answers from the client's cache and returns
//    all ones (0xFFFFFFFFFFFFFFFF), the cache's "not known", for a missing
//    channel or device.
//  - getSubDevicesIds() returns the sub-devices in a stable order, so that an
//    index names the same sub-device on every call; it throws for a missing
//    device, and answers an empty list for device 0 ("no device").
//  - subscribe...() write a unique, non-zero subscription id through their last
//    argument. Subscribing to an id that does not exist (yet) is allowed.
//  - unsubscribe() of an unknown id throws; unsubscribe(0) ends nothing and
//    returns (0 is never a subscription id).
//  - Callbacks may call back into the client (read, subscribe, unsubscribe)
//    from inside a notification.
// Any operation may throw an exception derived from std::exception on failure.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cdsapi/types.h"
#include "kq/model.h"
#include "kq/value.h"

namespace cdsapi {

class InBandAccessor {
  public:
    explicit InBandAccessor(std::string clientName);

    InBandAccessor(InBandAccessor const&) = delete;
    InBandAccessor& operator=(InBandAccessor const&) = delete;

    std::string const& clientName() const { return m_clientName; }

    kq::CDevice getDevice(unsigned long long deviceId);
    std::vector<unsigned long long> getSubDevicesIds(unsigned long long deviceId,
                                                     unsigned int selector);

    unsigned long long getChannelId(unsigned long long deviceId, std::string const& channelName);
    unsigned long long getCatchedChannelId(unsigned long long deviceId,
                                           std::string const& channelName);
    kq::CChannel getChannel(unsigned long long deviceId, std::string const& channelName);

    kq::CValue getChannelCValue(unsigned long long channelId);
    void setChannelCValue(unsigned long long channelId, kq::CValue const& value);

    bool getChannelAlarmEnabled(unsigned long long channelId);
    void setChannelAlarmEnabled(unsigned long long channelId, bool enabled);
    float getChannelAlarmTriggerThreshold(unsigned long long channelId, TriggerId trigger);
    void setChannelAlarmTriggerThreshold(unsigned long long channelId, TriggerId trigger,
                                         float threshold);
    bool getChannelAlarmTriggerThreshold(unsigned long long channelId);
    void setChannelAlarmTriggerThreshold(unsigned long long channelId, bool flag);
    float getChannelAlarmHysteresis(unsigned long long channelId);
    void setChannelAlarmHysteresis(unsigned long long channelId, float hysteresis);
    LevelAlarm getChannelAlarmLevel(unsigned long long channelId);
    void setChannelAlarmLevel(unsigned long long channelId, LevelAlarm level);

    std::string getDeviceAttribute(unsigned long long deviceId, DeviceAttribute attribute);
    void setDeviceAttribute(unsigned long long deviceId, DeviceAttribute attribute,
                            std::string const& value);

    void subscribeChannel(unsigned long long channelId,
                          std::function<void(unsigned long long, kq::CValue)> callback,
                          kq::sub::subscription_type type, unsigned long long* subscriptionId);
    void subscribeDevice(unsigned long long deviceId,
                         std::function<void(unsigned long long)> callback,
                         kq::sub::subscription_type type, bool includeSubDevices,
                         unsigned long long* subscriptionId);
    void subscribeDeviceAlarms(unsigned long long id,
                               std::function<void(kq::CAlarmUpdate const&)> callback,
                               unsigned long long* subscriptionId);
    void unsubscribe(unsigned long long subscriptionId);

  private:
    std::string m_clientName;
};

}  // namespace cdsapi
