// The client operations the simulated store counts and can make fail. Counting
// by enumerator keeps the accounting a counter increment on the hot path;
// tests name operations by the client's method names, looked up here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace cdshost {

enum class Operation : std::uint8_t {
    CdsAccessor,  // construction of a client connection
    getDeviceByName,
    getDevice,
    getSubDevicesIds,
    getChannelId,
    getCatchedChannelId,
    getChannel,
    getChannelCValue,
    setChannelCValue,
    getChannelAlarmEnabled,
    setChannelAlarmEnabled,
    getChannelAlarmTriggerThreshold,  // both overloads
    setChannelAlarmTriggerThreshold,  // likewise
    getChannelAlarmHysteresis,
    setChannelAlarmHysteresis,
    getChannelAlarmLevel,
    setChannelAlarmLevel,
    getDeviceAttribute,
    setDeviceAttribute,
    subscribeChannel,
    subscribeDevice,
    subscribeDeviceAlarms,
    unsubscribe,
};

inline constexpr std::size_t kOperationCount = static_cast<std::size_t>(Operation::unsubscribe) + 1;

inline constexpr std::array<std::string_view, kOperationCount> kOperationNames{
    "CdsAccessor",
    "getDeviceByName",
    "getDevice",
    "getSubDevicesIds",
    "getChannelId",
    "getCatchedChannelId",
    "getChannel",
    "getChannelCValue",
    "setChannelCValue",
    "getChannelAlarmEnabled",
    "setChannelAlarmEnabled",
    "getChannelAlarmTriggerThreshold",
    "setChannelAlarmTriggerThreshold",
    "getChannelAlarmHysteresis",
    "setChannelAlarmHysteresis",
    "getChannelAlarmLevel",
    "setChannelAlarmLevel",
    "getDeviceAttribute",
    "setDeviceAttribute",
    "subscribeChannel",
    "subscribeDevice",
    "subscribeDeviceAlarms",
    "unsubscribe",
};

constexpr std::string_view operationName(Operation operation) {
    return kOperationNames[static_cast<std::size_t>(operation)];
}

/* The operation a client method name stands for; nothing for a name the
 * client does not have. */
constexpr std::optional<Operation> operationNamed(std::string_view name) {
    for (std::size_t i = 0; i < kOperationCount; ++i) {
        if (kOperationNames[i] == name) {
            return static_cast<Operation>(i);
        }
    }
    return std::nullopt;
}

}  // namespace cdshost
