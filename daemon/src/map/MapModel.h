// What a register map file describes, once parsed and validated: plain data,
// no data-store objects yet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Cidr.h"
#include "RareField.h"
#include "WireLayout.h"
#include "cdsapi/types.h"
#include "modbus/CdsAlarmToOneDiscreteAccessor.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"

namespace tarsel::daemon {

/* The four Modbus data tables. (A byte, as the enums below: a served map
 * keeps one definition per entry.) */
enum class Table : std::uint8_t { Coils, DiscreteInputs, HoldingRegisters, InputRegisters };

/* Every encoder a map entry can name. */
enum class EncoderKind : std::uint8_t {
    Float,               // CdsFloatAccessor
    Int32,               // CdsInt32Accessor
    Uint32,              // CdsUint32Accessor
    Float16,             // CdsFloatToOneRegisterAccessor
    Int16,               // CdsInt32ToOneRegisterAccessor
    Uint16,              // CdsUint32ToOneRegisterAccessor
    String,              // CdsStringAccessor
    NumericString,       // CdsStringToOneRegisterAccessor
    Boolean,             // CdsBooleanToOneDiscreteAccessor
    CompositeRegisters,  // CdsDataToRegistersAccessor
    CompositeDiscretes,  // CdsDataToDiscretesAccessor
    Float32,             // the daemon's Wire32Encoder, in an explicit layout
};

/* A device of the data store: by id (optionally followed by a path of
 * sub-device indexes) or by name. Few sources name a path: a list held only
 * when it has indexes keeps an entry's source within 80 bytes. */
struct DeviceRef {
    std::optional<unsigned long long> id;
    RareText name;
    RareList<unsigned int> path;
};

enum class SourceKind : std::uint8_t { Channel, Attribute, Alarm };

/* One data accessor of an entry. */
struct SourceDefinition {
    DeviceRef device;
    std::string channel;                                     // Channel, Alarm
    modbus::DataType dataType = modbus::DataType::Value;     // Channel
    cdsapi::DeviceAttribute attribute{};                     // Attribute
    modbus::AlarmType alarmType = modbus::AlarmTypeTrigger;  // Alarm
    // Last, where it fills what the alignment leaves after the enums above
    // (a definition keeps one source per entry).
    SourceKind kind = SourceKind::Channel;
};

/* What a read of an entry whose value is not available answers. */
struct UnavailablePolicy {
    // Sentinel: every register the word. NotImplemented: the value each wire
    // type reserves for "no value" (0x8000 for int16, NaN for float32, ...;
    // see UnavailableValues.h). Exception: the code.
    enum class Mode : std::uint8_t { Sentinel, NotImplemented, Exception };
    Mode mode = Mode::Sentinel;
    std::uint8_t code = 4;  // Server Device Failure
    // 0xFFFF reads as NaN in a float pair, as -1 or the maximum in integers,
    // and is outside every scaled value the shipped map produces.
    std::uint16_t word = 0xFFFF;
};

struct EntryDefinition {
    std::string name;
    // (Declared here and below in the order that leaves no padding: a served
    // map keeps one definition per entry, and a served entry with its
    // definition fits the allocator's 192-byte class; see ServedEntry.)
    Table table = Table::HoldingRegisters;
    EncoderKind encoder = EncoderKind::Float;
    std::uint16_t address = 0;
    std::uint16_t size = 1;      // registers or discretes
    std::uint8_t byteOrder = 0;  // 0 or 1, the library's standard or word-swapped order
    bool invert = false;
    UnavailablePolicy unavailable;
    std::uint32_t mask = 0;
    std::vector<SourceDefinition> sources;  // one, except for the composites
    float multiplier = 1.0f;
    float offset = 0.0f;
    std::optional<unsigned int> defaultValue;
    // Where the entry stands in the file's list of entries, the n of its
    // path "entries[n]": where the path's own text took 32 bytes an entry.
    std::uint32_t position = 0;
    // float32 always, int32 and uint32 when the map names one: the daemon's
    // own encoder in this layout instead of the library's byte order.
    std::optional<WireLayout> layout;
    bool useBitmask = false;  // the Uint16 constructor with bitmask and default
    modbus::BitmaskOp bitmaskOp = modbus::BitmaskOp::None;
    RareText unit;         // for the description: "V", "Hz", "%"; may be empty
    RareText function;     // composites
    RareText description;  // composite-registers: the representation label
    // Who may read or write this entry, on top of the listener's rules;
    // nothing: the listener's rules alone.
    RareOptional<CidrList> allowRead;
    RareOptional<CidrList> allowWrite;

    /* First address past the entry. */
    std::uint32_t end() const { return std::uint32_t{address} + size; }
    /* Where the entry stands in the file, e.g. "entries[3]", for messages. */
    std::string path() const;
};

/* One object of Read Device Identification: a static text, or a source read
 * at each request with the text answered while the source cannot be read. */
struct IdentificationObjectDefinition {
    std::uint8_t id = 0;  // 0x00 VendorName ... 0x06 UserApplicationName
    std::string text;
    std::optional<SourceDefinition> source;
};

struct RegisterMapDefinition {
    std::string description;
    UnavailablePolicy unavailable;
    std::vector<EntryDefinition> entries;
    // In object id order; empty when the map has no identification section.
    std::vector<IdentificationObjectDefinition> identification;
};

// ---- Names as they stand in map files and in the description --------------

char const* tableName(Table table);
char const* encoderName(EncoderKind kind);
bool isRegisterTable(Table table);
bool isWritableTable(Table table);
bool isRegisterEncoder(EncoderKind kind);
std::optional<Table> tableFromName(std::string const& name);
std::optional<EncoderKind> encoderFromName(std::string const& name);
std::optional<modbus::DataType> dataTypeFromName(std::string const& name);
std::optional<cdsapi::DeviceAttribute> attributeFromName(std::string const& name);
std::optional<modbus::AlarmType> alarmTypeFromName(std::string const& name);
std::vector<std::string> tableNames();
std::vector<std::string> encoderNames();
std::vector<std::string> dataTypeNames();
std::vector<std::string> attributeNames();
std::vector<std::string> alarmTypeNames();

/* "device 2 path [0] channel \"Outlet.Current\"", for the description. */
std::string describeSource(SourceDefinition const& source);
std::string describeDevice(DeviceRef const& device);

}  // namespace tarsel::daemon
