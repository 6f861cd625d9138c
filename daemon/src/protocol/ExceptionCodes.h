// The Modbus exception codes the daemon answers with, under its own names
// and with libmodbus's numbers, so that every part that refuses a request
// (validation, the map, identification, NUT writes) says it the same way.
#pragma once

#include <modbus.h>

#include <cstdint>

namespace tarsel::daemon::exception_code {

constexpr std::uint8_t kIllegalFunction = MODBUS_EXCEPTION_ILLEGAL_FUNCTION;
constexpr std::uint8_t kIllegalDataAddress = MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS;
constexpr std::uint8_t kIllegalDataValue = MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE;
constexpr std::uint8_t kServerDeviceFailure = MODBUS_EXCEPTION_SLAVE_OR_SERVER_FAILURE;
constexpr std::uint8_t kServerDeviceBusy = MODBUS_EXCEPTION_SLAVE_OR_SERVER_BUSY;
constexpr std::uint8_t kGatewayPathUnavailable = MODBUS_EXCEPTION_GATEWAY_PATH;
constexpr std::uint8_t kGatewayTargetFailed = MODBUS_EXCEPTION_GATEWAY_TARGET;

}  // namespace tarsel::daemon::exception_code
