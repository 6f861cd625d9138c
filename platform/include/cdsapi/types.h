// Enumerations of the card platform's data-store client.
#pragma once

#include <cstdint>

namespace cdsapi {

/* Attributes of a device. Attributes are strings in the data store. The value
 * 16 is the count of sub-devices; clients that read it through the attribute
 * interface get the store's own text for it. */
enum DeviceAttribute : std::uint32_t {
    AttributeName = 0,
    AttributeModel = 1,
    AttributeSerialNumber = 2,
    AttributeFirmwareVersion = 3,
    AttributeManufacturer = 4,
    AttributePartNumber = 5,
    AttributeHardwareVersion = 6,
    AttributeLocation = 7,
    AttributeContact = 8,
    AttributeDescription = 9,
    AttributeNominalPower = 10,
    AttributeNominalVoltage = 11,
    AttributeNominalFrequency = 12,
    AttributeBatteryInstallDate = 13,
    AttributeOutletCount = 14,
    AttributeType = 15,
    AttributeSubDeviceCount = 16,
    AttributeAssetTag = 17,
};

/* The four alarm thresholds of a channel. */
enum TriggerId : std::uint32_t {
    TriggerLowCritical = 0,
    TriggerLowWarning = 1,
    TriggerHighWarning = 2,
    TriggerHighCritical = 3,
};

/* Severity of a channel's alarm. */
enum LevelAlarm : std::int32_t {
    LevelNone = 0,
    LevelInfo = 1,
    LevelNotice = 3,
    LevelWarning = 5,
    LevelCritical = 7,
};

}  // namespace cdsapi
