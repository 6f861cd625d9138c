// Value model of the card platform: devices, channels, alarm updates and the
// subscription kinds of the data store.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kq/value.h"

namespace kq {

/* The alarm record a channel carries while its alarm is active. */
struct CAlarmRecord {
    std::int32_t level = 0;  // severity; 7 is the highest level
    bool direction = false;  // true: the value crossed upwards (set); false: downwards (clear)

    friend bool operator==(CAlarmRecord const& a, CAlarmRecord const& b) {
        return a.level == b.level && a.direction == b.direction;
    }
};

/* A snapshot of a device as the data store describes it. */
struct CDevice {
    unsigned long long id = 0;
    std::string name;
    unsigned long long parentId = 0;  // 0 for a top-level device
    std::vector<unsigned long long> subDeviceIds;
};

/* A snapshot of a channel, with its optional alarm record. */
struct CChannel {
    unsigned long long id = 0;
    unsigned long long deviceId = 0;
    std::string name;
    CValue value;
    std::optional<CAlarmRecord> alarm;

    bool hasAlarm() const { return alarm.has_value(); }
};

/* What an alarm notification carries: the channel and its record after the
 * change (empty when the alarm was cleared). */
struct CAlarmUpdate {
    unsigned long long channelId = 0;
    std::optional<CAlarmRecord> alarm;
};

namespace sub {

/* Kinds of data-store subscription. The numbers are the store's own. */
enum subscription_type : int {
    ChannelSettings =
        2,               // a channel's alarm settings changed (thresholds, flag, hysteresis, level)
    DeviceChanged = 3,   // a device changed (attributes, channels, sub-devices, removal)
    ChannelState = 5,    // a channel's alarm enabled flag changed
    DeviceCreated = 13,  // a device came into existence
    ChannelValue = 15,   // a channel's value changed
};

}  // namespace sub
}  // namespace kq
