#include "DeviceLookup.h"

#include "modbus/CdsInBandAccessor.h"

namespace tarsel::daemon {

namespace {

/* The sub-device list as the library indexes it (selector 0). */
constexpr unsigned int kSubDeviceSelector = 0;

std::optional<unsigned long long> lookUp(DeviceRef const& device) {
    auto& connection = modbus::CdsInBandAccessor::getInstance();
    cdsapi::InBandAccessor& inBand = connection.inBand();
    unsigned long long id =
        device.id ? *device.id : connection.cdsAccessor().getDeviceByName(device.name);
    inBand.getDevice(id);  // throws when it is not there
    for (unsigned int const index : device.path) {
        auto const subDevices = inBand.getSubDevicesIds(id, kSubDeviceSelector);
        if (index >= subDevices.size()) {
            return std::nullopt;
        }
        id = subDevices[index];
    }
    return id;
}

std::optional<std::string> readText(SourceDefinition const& source) {
    auto const device = lookUp(source.device);
    if (!device) {
        return std::nullopt;
    }
    cdsapi::InBandAccessor& inBand = modbus::CdsInBandAccessor::getInstance().inBand();
    if (source.kind == SourceKind::Attribute) {
        return inBand.getDeviceAttribute(*device, source.attribute);
    }
    if (source.kind != SourceKind::Channel) {
        return std::nullopt;
    }
    unsigned long long const channel = inBand.getChannelId(*device, source.channel);
    if (channel == 0) {
        return std::nullopt;
    }
    kq::CValue const value = inBand.getChannelCValue(channel);
    return value.isValid() ? std::optional<std::string>(value.as_string()) : std::nullopt;
}

}  // namespace

// Every failure of the data store counts as "not there": the callers answer
// a fallback or try again later, and a foreign exception must not end the
// daemon.
std::optional<unsigned long long> findDevice(DeviceRef const& device) {
    try {
        return lookUp(device);
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::string> readSourceText(SourceDefinition const& source) {
    try {
        return readText(source);
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace tarsel::daemon
