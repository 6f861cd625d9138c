#include "MapModel.h"

#include <sstream>
#include <utility>

namespace tarsel::daemon {

namespace {

template <typename T>
using NameTable = std::vector<std::pair<char const*, T>>;

NameTable<Table> const& tables() {
    static NameTable<Table> const names = {
        {"coils", Table::Coils},
        {"discrete-inputs", Table::DiscreteInputs},
        {"holding-registers", Table::HoldingRegisters},
        {"input-registers", Table::InputRegisters},
    };
    return names;
}

NameTable<EncoderKind> const& encoders() {
    static NameTable<EncoderKind> const names = {
        {"float", EncoderKind::Float},
        {"float32", EncoderKind::Float32},
        {"int32", EncoderKind::Int32},
        {"uint32", EncoderKind::Uint32},
        {"float16", EncoderKind::Float16},
        {"int16", EncoderKind::Int16},
        {"uint16", EncoderKind::Uint16},
        {"string", EncoderKind::String},
        {"numeric-string", EncoderKind::NumericString},
        {"boolean", EncoderKind::Boolean},
        {"composite-registers", EncoderKind::CompositeRegisters},
        {"composite-discretes", EncoderKind::CompositeDiscretes},
    };
    return names;
}

NameTable<modbus::DataType> const& dataTypes() {
    static NameTable<modbus::DataType> const names = {
        {"value", modbus::DataType::Value},
        {"alarm-enabled", modbus::DataType::AlarmEnabled},
        {"alarm-threshold-0", modbus::DataType::AlarmThreshold0},
        {"alarm-threshold-1", modbus::DataType::AlarmThreshold1},
        {"alarm-threshold-2", modbus::DataType::AlarmThreshold2},
        {"alarm-threshold-3", modbus::DataType::AlarmThreshold3},
        {"alarm-threshold-enabled", modbus::DataType::AlarmThresholdEnabled},
        {"alarm-hysteresis", modbus::DataType::AlarmHysteresis},
        {"alarm-level", modbus::DataType::AlarmLevel},
    };
    return names;
}

NameTable<cdsapi::DeviceAttribute> const& attributes() {
    static NameTable<cdsapi::DeviceAttribute> const names = {
        {"name", cdsapi::AttributeName},
        {"model", cdsapi::AttributeModel},
        {"serial-number", cdsapi::AttributeSerialNumber},
        {"firmware-version", cdsapi::AttributeFirmwareVersion},
        {"manufacturer", cdsapi::AttributeManufacturer},
        {"part-number", cdsapi::AttributePartNumber},
        {"hardware-version", cdsapi::AttributeHardwareVersion},
        {"location", cdsapi::AttributeLocation},
        {"contact", cdsapi::AttributeContact},
        {"description", cdsapi::AttributeDescription},
        {"nominal-power", cdsapi::AttributeNominalPower},
        {"nominal-voltage", cdsapi::AttributeNominalVoltage},
        {"nominal-frequency", cdsapi::AttributeNominalFrequency},
        {"battery-install-date", cdsapi::AttributeBatteryInstallDate},
        {"outlet-count", cdsapi::AttributeOutletCount},
        {"type", cdsapi::AttributeType},
        {"sub-device-count", cdsapi::AttributeSubDeviceCount},
        {"asset-tag", cdsapi::AttributeAssetTag},
    };
    return names;
}

NameTable<modbus::AlarmType> const& alarmTypes() {
    static NameTable<modbus::AlarmType> const names = {
        {"trigger", modbus::AlarmTypeTrigger},
        {"flag-clear", modbus::AlarmTypeFlagClear},
        {"flag-clear-level7", modbus::AlarmTypeFlagClearLevel7},
        {"flag-set", modbus::AlarmTypeFlagSet},
        {"flag-set-level7", modbus::AlarmTypeFlagSetLevel7},
    };
    return names;
}

template <typename T>
std::optional<T> lookup(NameTable<T> const& table, std::string const& name) {
    for (auto const& [text, value] : table) {
        if (name == text) {
            return value;
        }
    }
    return std::nullopt;
}

template <typename T>
char const* nameOf(NameTable<T> const& table, T value) {
    for (auto const& [text, candidate] : table) {
        if (candidate == value) {
            return text;
        }
    }
    return "?";
}

template <typename T>
std::vector<std::string> namesOf(NameTable<T> const& table) {
    std::vector<std::string> result;
    for (auto const& entry : table) {
        result.emplace_back(entry.first);
    }
    return result;
}

}  // namespace

char const* tableName(Table table) {
    return nameOf(tables(), table);
}
char const* encoderName(EncoderKind kind) {
    return nameOf(encoders(), kind);
}

bool isRegisterTable(Table table) {
    return table == Table::HoldingRegisters || table == Table::InputRegisters;
}

bool isWritableTable(Table table) {
    return table == Table::HoldingRegisters || table == Table::Coils;
}

bool isRegisterEncoder(EncoderKind kind) {
    return kind != EncoderKind::Boolean && kind != EncoderKind::CompositeDiscretes;
}

std::optional<Table> tableFromName(std::string const& name) {
    return lookup(tables(), name);
}
std::optional<EncoderKind> encoderFromName(std::string const& name) {
    return lookup(encoders(), name);
}
std::optional<modbus::DataType> dataTypeFromName(std::string const& name) {
    return lookup(dataTypes(), name);
}
std::optional<cdsapi::DeviceAttribute> attributeFromName(std::string const& name) {
    return lookup(attributes(), name);
}
std::optional<modbus::AlarmType> alarmTypeFromName(std::string const& name) {
    return lookup(alarmTypes(), name);
}

std::vector<std::string> tableNames() {
    return namesOf(tables());
}
std::vector<std::string> encoderNames() {
    return namesOf(encoders());
}
std::vector<std::string> dataTypeNames() {
    return namesOf(dataTypes());
}
std::vector<std::string> attributeNames() {
    return namesOf(attributes());
}
std::vector<std::string> alarmTypeNames() {
    return namesOf(alarmTypes());
}

std::string EntryDefinition::path() const {
    return "entries[" + std::to_string(position) + "]";
}

std::string describeDevice(DeviceRef const& device) {
    std::ostringstream out;
    if (device.id) {
        out << "device " << *device.id;
    } else {
        out << "device \"" << device.name << "\"";
    }
    if (!device.path.empty()) {
        out << " path [";
        for (std::size_t i = 0; i < device.path.size(); ++i) {
            out << (i ? "," : "") << device.path[i];
        }
        out << "]";
    }
    return out.str();
}

std::string describeSource(SourceDefinition const& source) {
    std::ostringstream out;
    out << describeDevice(source.device);
    switch (source.kind) {
        case SourceKind::Channel:
            out << " channel \"" << source.channel << "\"";
            if (source.dataType != modbus::DataType::Value) {
                out << " " << nameOf(dataTypes(), source.dataType);
            }
            break;
        case SourceKind::Attribute: {
            char const* name = nameOf(attributes(), source.attribute);
            out << " attribute ";
            if (std::string(name) == "?") {
                out << static_cast<unsigned>(source.attribute);
            } else {
                out << name;
            }
            break;
        }
        case SourceKind::Alarm:
            out << " alarm \"" << source.channel << "\" " << nameOf(alarmTypes(), source.alarmType);
            break;
    }
    return out.str();
}

}  // namespace tarsel::daemon
