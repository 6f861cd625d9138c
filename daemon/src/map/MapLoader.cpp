#include "MapLoader.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <set>

#include <nlohmann/json.hpp>

#include "Conversions.h"
#include "IdentificationLoader.h"
#include "JsonChecks.h"
#include "JsonNesting.h"
#include "JsonView.h"

namespace tarsel::daemon {

namespace {

using json = nlohmann::json;

// A read or write that covers only part of an entry is refused, so an entry
// larger than one request could never be read or written.
constexpr long long kMaxReadRegisters = 125;
constexpr long long kMaxWriteRegisters = 123;
constexpr long long kMaxReadBits = 2000;
constexpr long long kMaxWriteBits = 1968;
constexpr long long kTableSize = 65536;
// The range of a normal single-precision float, in which the encoders scale.
constexpr float kFloatMin = std::numeric_limits<float>::min();
constexpr float kFloatMax = std::numeric_limits<float>::max();

FieldNames const kCommonFields = {"name", "comment",     "table",     "address",   "encoder",
                                  "unit", "unavailable", "allowRead", "allowWrite"};

FieldNames encoderFields(EncoderKind kind) {
    switch (kind) {
        case EncoderKind::Float:
            return {"source", "multiplier", "byteOrder"};
        case EncoderKind::Int32:
        case EncoderKind::Uint32:
            return {"source", "byteOrder", "layout"};
        case EncoderKind::Float32:
            return {"source", "multiplier", "layout"};
        case EncoderKind::Float16:
            return {"source", "multiplier", "offset"};
        case EncoderKind::Int16:
            return {"source", "multiplier"};
        case EncoderKind::Uint16:
            return {"source", "multiplier", "bitmask", "mask", "default"};
        case EncoderKind::String:
            return {"source", "size"};
        case EncoderKind::NumericString:
            return {"source"};
        case EncoderKind::Boolean:
            return {"source", "invert"};
        case EncoderKind::CompositeRegisters:
            return {"sources", "function", "size", "description"};
        case EncoderKind::CompositeDiscretes:
            return {"sources", "function", "size"};
    }
    return {};
}

std::string quoted(std::string const& text) {
    return "\"" + text + "\"";
}

std::string unitOf(Table table) {
    return isRegisterTable(table) ? "registers" : "discretes";
}

/* Every field an entry of the encoder may have, and the words an unknown one
 * is reported with. */
struct EntryFields {
    FieldNames allowed;
    std::string context;  // " for encoder \"float\""
};

/* Built once per encoder, not once per entry (a map has thousands of entries
 * and a handful of encoders). */
EntryFields const& entryFields(EncoderKind kind) {
    // Maps are loaded on more than one thread (a reload, a UPS's own map).
    static std::mutex guard;
    static std::map<EncoderKind, EntryFields> built;
    std::lock_guard<std::mutex> lock(guard);
    auto found = built.find(kind);
    if (found == built.end()) {
        EntryFields fields{kCommonFields, " for encoder " + quoted(encoderName(kind))};
        auto const own = encoderFields(kind);
        fields.allowed.insert(own.begin(), own.end());
        found = built.emplace(kind, std::move(fields)).first;
    }
    // A node of a std::map stays where it is: the reference outlives the lock.
    return found->second;
}

FieldNames const kSourceFields = {"device",    "path",  "channel", "data",
                                  "attribute", "alarm", "comment"};

std::uint16_t fixedSize(EncoderKind kind) {
    switch (kind) {
        case EncoderKind::Float:
        case EncoderKind::Float32:
        case EncoderKind::Int32:
        case EncoderKind::Uint32:
            return 2;
        default:
            return 1;
    }
}

/* Reads a map from either reading of its JSON (see parseRegisterMap). */
template <class Json>
class MapParser {
  public:
    RegisterMapDefinition parse(Json const& root);
    std::vector<std::string> const& errors() const { return m_check.errors(); }

  private:
    UnavailablePolicy parsePolicy(Json const& value, std::string const& where,
                                  UnavailablePolicy policy);
    std::optional<CidrList> parseAllowList(Json const& entry, char const* key,
                                           std::string const& where);
    std::optional<EntryDefinition> parseEntry(Json const& value, std::string const& where,
                                              UnavailablePolicy const& mapPolicy);
    bool parseHeader(Json const& value, EntryDefinition& definition);
    void parseOptions(Json const& value, EntryDefinition& definition);
    void parseSingleSource(Json const& value, EntryDefinition& definition);
    void parseScaling(Json const& value, EntryDefinition& definition);
    void parseByteOrder(Json const& value, EntryDefinition& definition);
    void parseLayout(Json const& value, EntryDefinition& definition);
    void parseUint16Options(Json const& value, EntryDefinition& definition);
    void parseComposite(Json const& value, EntryDefinition& definition);
    void parseStringSize(Json const& value, EntryDefinition& definition);
    std::optional<SourceDefinition> parseSource(Json const& value, std::string const& where);
    bool parseDevice(Json const& value, std::string const& where, DeviceRef& device);
    void parseSourceKind(Json const& value, std::string const& where, SourceDefinition& source);
    bool checkFit(EntryDefinition const& definition);
    bool checkSourcesTakeWrites(EntryDefinition const& definition);
    void checkOverlaps(std::vector<EntryDefinition> const& entries);

    JsonChecker m_check;
    // The path of the entry being parsed ("entries[3]"), made once for all
    // of its messages: a definition holds only its position.
    std::string m_where;
};

template <class Json>
RegisterMapDefinition MapParser<Json>::parse(Json const& root) {
    RegisterMapDefinition map;
    if (!m_check.expectObject(root, "map")) {
        return map;
    }
    m_check.unknownFields(root, "",
                          {"description", "comment", "unavailable", "entries", "identification"},
                          " of the map");
    if (root.contains("identification")) {
        map.identification = parseIdentification<Json>(
            root["identification"], m_check, [this](Json const& value, std::string const& where) {
                return parseSource(value, where);
            });
    }
    map.description = m_check.text(root, "description", "", false).value_or("");
    if (root.contains("unavailable")) {
        map.unavailable = parsePolicy(root["unavailable"], "unavailable", map.unavailable);
    }
    auto const entries = root.find("entries");
    if (entries == root.end()) {
        m_check.error("map", "missing field \"entries\"");
        return map;
    }
    if (!entries->is_array()) {
        m_check.error("entries", "expected an array, got " + JsonChecker::shortDump(*entries));
        return map;
    }
    map.entries.reserve(entries->size());
    std::size_t index = 0;
    // Element by element: indexing a simdjson array walks it from the start.
    for (auto const& element : *entries) {
        std::string const where = "entries[" + std::to_string(index) + "]";
        if (auto entry = parseEntry(element, where, map.unavailable)) {
            entry->position = static_cast<std::uint32_t>(index);
            map.entries.push_back(std::move(*entry));
        }
        ++index;
    }
    checkOverlaps(map.entries);
    return map;
}

template <class Json>
UnavailablePolicy MapParser<Json>::parsePolicy(Json const& value, std::string const& where,
                                               UnavailablePolicy policy) {
    if (!m_check.expectObject(value, where)) {
        return policy;
    }
    m_check.unknownFields(value, where, {"mode", "word", "code"}, " of an unavailable policy");
    if (auto const mode = m_check.text(value, "mode", where, true)) {
        if (*mode == "sentinel") {
            policy.mode = UnavailablePolicy::Mode::Sentinel;
        } else if (*mode == "not-implemented") {
            policy.mode = UnavailablePolicy::Mode::NotImplemented;
        } else if (*mode == "exception") {
            policy.mode = UnavailablePolicy::Mode::Exception;
        } else {
            m_check.error(where + ".mode",
                          "expected \"sentinel\", \"not-implemented\" or \"exception\", got " +
                              quoted(*mode));
        }
    }
    if (auto const word = m_check.integer(value, "word", where, 0, 0xFFFF, false)) {
        policy.word = static_cast<std::uint16_t>(*word);
    }
    if (auto const code = m_check.integer(value, "code", where, 1, 11, false)) {
        policy.code = static_cast<std::uint8_t>(*code);
    }
    return policy;
}

/* An array of networks ("10.0.0.0/8", "192.168.1.7"); [] lets nobody. */
template <class Json>
std::optional<CidrList> MapParser<Json>::parseAllowList(Json const& entry, char const* key,
                                                        std::string const& where) {
    if (!entry.contains(key)) {
        return std::nullopt;
    }
    std::string const path = where + "." + key;
    Json const& value = entry[key];
    if (!value.is_array()) {
        m_check.error(path, "expected an array of IPv4 networks such as \"10.0.0.0/8\"");
        return std::nullopt;
    }
    CidrList list;
    std::size_t index = 0;
    // Element by element, as every array here (see parse).
    for (auto const& element : value) {
        auto const cidr =
            element.is_string() ? Cidr::parse(element.template get<std::string>()) : std::nullopt;
        if (!cidr) {
            m_check.error(path + "[" + std::to_string(index) + "]",
                          "expected an IPv4 address or network such as \"10.0.0.0/8\"");
        } else {
            list.push_back(*cidr);
        }
        ++index;
    }
    return list;
}

template <class Json>
std::optional<EntryDefinition> MapParser<Json>::parseEntry(Json const& value,
                                                           std::string const& where,
                                                           UnavailablePolicy const& mapPolicy) {
    if (!m_check.expectObject(value, where)) {
        return std::nullopt;
    }
    EntryDefinition definition;
    m_where = where;
    definition.unavailable = mapPolicy;
    std::size_t const errorsBefore = m_check.errors().size();
    if (!parseHeader(value, definition)) {
        return std::nullopt;
    }
    EntryFields const& fields = entryFields(definition.encoder);
    m_check.unknownFields(value, where, fields.allowed, fields.context);
    if (value.contains("unavailable")) {
        definition.unavailable =
            parsePolicy(value["unavailable"], where + ".unavailable", mapPolicy);
    }
    definition.allowRead = parseAllowList(value, "allowRead", where);
    definition.allowWrite = parseAllowList(value, "allowWrite", where);
    if (definition.allowWrite && !isWritableTable(definition.table)) {
        m_check.error(where + ".allowWrite", "entries of " + quoted(tableName(definition.table)) +
                                                 " cannot be written by anyone");
    }
    definition.size = fixedSize(definition.encoder);
    parseOptions(value, definition);
    if (m_check.errors().size() != errorsBefore || !checkFit(definition)) {
        return std::nullopt;
    }
    if (definition.name.empty()) {
        definition.name =
            std::string(tableName(definition.table)) + ":" + std::to_string(definition.address);
    }
    return definition;
}

/* Name, table, address and encoder; false when the rest cannot be checked. */
template <class Json>
bool MapParser<Json>::parseHeader(Json const& value, EntryDefinition& definition) {
    std::string const& where = m_where;
    definition.name = m_check.text(value, "name", where, false).value_or("");
    definition.unit = m_check.text(value, "unit", where, false).value_or("");
    m_check.text(value, "comment", where, false);
    if (auto const table = m_check.text(value, "table", where, true)) {
        if (auto const parsed = tableFromName(*table)) {
            definition.table = *parsed;
        } else {
            m_check.error(where + ".table", "unknown table " + quoted(*table) + "; expected " +
                                                joinChoices(tableNames()));
        }
    }
    if (auto const address = m_check.integer(value, "address", where, 0, kTableSize - 1, true)) {
        definition.address = static_cast<std::uint16_t>(*address);
    }
    auto const encoder = m_check.text(value, "encoder", where, true);
    if (!encoder) {
        return false;
    }
    auto const kind = encoderFromName(*encoder);
    if (!kind) {
        m_check.error(where + ".encoder", "unknown encoder " + quoted(*encoder) + "; expected " +
                                              joinChoices(encoderNames()));
        return false;
    }
    definition.encoder = *kind;
    return true;
}

template <class Json>
void MapParser<Json>::parseOptions(Json const& value, EntryDefinition& definition) {
    switch (definition.encoder) {
        case EncoderKind::CompositeRegisters:
        case EncoderKind::CompositeDiscretes:
            parseComposite(value, definition);
            return;
        case EncoderKind::String:
            parseStringSize(value, definition);
            break;
        case EncoderKind::Uint16:
            parseUint16Options(value, definition);
            break;
        case EncoderKind::Boolean:
            definition.invert = m_check.boolean(value, "invert", m_where, false).value_or(false);
            break;
        default:
            break;
    }
    parseSingleSource(value, definition);
    parseScaling(value, definition);
    parseByteOrder(value, definition);
    parseLayout(value, definition);
}

template <class Json>
void MapParser<Json>::parseSingleSource(Json const& value, EntryDefinition& definition) {
    auto const source = value.find("source");
    if (source == value.end()) {
        m_check.error(m_where, "missing field \"source\"");
        return;
    }
    if (auto parsed = parseSource(*source, m_where + ".source")) {
        definition.sources.push_back(std::move(*parsed));
    }
}

/* Whether a number read as a double is a normal single-precision float
 * once rounded to one, and so is its square when `squared`. */
bool scalesAsFloat(double value, bool squared) {
    if (!(std::fabs(value) <= double{kFloatMax})) {
        return false;  // beyond every float, or not a number
    }
    double const rounded = static_cast<float>(value);
    double const scale = squared ? rounded * rounded : std::fabs(rounded);
    return scale >= double{kFloatMin} && scale <= double{kFloatMax};
}

template <class Json>
void MapParser<Json>::parseScaling(Json const& value, EntryDefinition& definition) {
    // The encoders scale in single precision: a multiplier read as a double
    // must stay a normal float (1e-50 would become 0 and 1e50 an infinity,
    // serving 0 or NaN for every value; a subnormal one has no finite
    // reciprocal, by which writes are scaled). The library's float encoder
    // applies it twice, so its square must be one as well.
    if (auto const multiplier = m_check.number(value, "multiplier", m_where, false)) {
        bool const squared = definition.encoder == EncoderKind::Float;
        if (!scalesAsFloat(*multiplier, squared)) {
            m_check.error(m_where + ".multiplier",
                          std::string("must be a number other than 0 from about ") +
                              (squared ? "1.1e-19 to 1.8e+19" : "1.2e-38 to 3.4e+38") +
                              " in magnitude (a float scales by it" + (squared ? " twice" : "") +
                              "), got " + JsonChecker::shortDump(value["multiplier"]));
        } else {
            definition.multiplier = static_cast<float>(*multiplier);
        }
    }
    if (auto const offset = m_check.number(value, "offset", m_where, false)) {
        if (!(std::fabs(*offset) <= double{kFloatMax})) {
            m_check.error(m_where + ".offset",
                          "must be a number a float holds (at most about 3.4e+38 in magnitude), "
                          "got " +
                              JsonChecker::shortDump(value["offset"]));
        } else {
            definition.offset = static_cast<float>(*offset);
        }
    }
}

template <class Json>
void MapParser<Json>::parseByteOrder(Json const& value, EntryDefinition& definition) {
    auto const order = value.find("byteOrder");
    if (order == value.end()) {
        return;
    }
    if (*order == 0 || *order == "standard") {
        definition.byteOrder = 0;
    } else if (*order == 1 || *order == "word-swapped") {
        definition.byteOrder = 1;
    } else {
        m_check.error(m_where + ".byteOrder",
                      "expected 0, 1, \"standard\" or \"word-swapped\", got " +
                          JsonChecker::shortDump(*order));
    }
}

/* float32 always has a layout (ABCD unless named); int32 and uint32 have one
 * only when named, which selects the daemon's encoder over the library's. */
template <class Json>
void MapParser<Json>::parseLayout(Json const& value, EntryDefinition& definition) {
    if (definition.encoder == EncoderKind::Float32) {
        definition.layout = WireLayout::ABCD;
    }
    auto const name = m_check.text(value, "layout", m_where, false);
    if (!name) {
        return;
    }
    if (auto const layout = wireLayoutFromName(*name)) {
        definition.layout = *layout;
    } else {
        m_check.error(m_where + ".layout", "unknown layout " + quoted(*name) + "; expected " +
                                               joinChoices(wireLayoutNames()));
    }
    if (value.contains("byteOrder")) {
        m_check.error(m_where + ".byteOrder",
                      "cannot be combined with layout (byteOrder is the library encoder's, "
                      "layout the daemon's)");
    }
}

template <class Json>
void MapParser<Json>::parseUint16Options(Json const& value, EntryDefinition& definition) {
    definition.useBitmask =
        value.contains("bitmask") || value.contains("mask") || value.contains("default");
    if (!definition.useBitmask) {
        return;
    }
    if (value.contains("multiplier")) {
        m_check.error(m_where + ".multiplier",
                      "cannot be combined with bitmask, mask or default (the library's "
                      "bitmask constructor has no multiplier)");
    }
    if (auto const op = m_check.text(value, "bitmask", m_where, false)) {
        if (*op == "xor") {
            definition.bitmaskOp = modbus::BitmaskOp::Xor;
        } else if (*op != "none") {
            m_check.error(m_where + ".bitmask", "expected \"none\" or \"xor\", got " + quoted(*op));
        }
    }
    if (auto const mask = m_check.integer(value, "mask", m_where, 0, 0xFFFFFFFFLL, false)) {
        definition.mask = static_cast<std::uint32_t>(*mask);
    }
    if (auto const def = m_check.integer(value, "default", m_where, 0, 0xFFFFFFFFLL, false)) {
        definition.defaultValue = static_cast<unsigned int>(*def);
    }
}

template <class Json>
void MapParser<Json>::parseStringSize(Json const& value, EntryDefinition& definition) {
    if (auto const size = m_check.integer(value, "size", m_where, 1, kTableSize, true)) {
        definition.size = static_cast<std::uint16_t>(std::min<long long>(*size, 0xFFFF));
    }
}

template <class Json>
void MapParser<Json>::parseComposite(Json const& value, EntryDefinition& definition) {
    std::string const& where = m_where;
    definition.description = m_check.text(value, "description", where, false).value_or("");
    auto const sources = value.find("sources");
    if (sources == value.end()) {
        m_check.error(where, "missing field \"sources\"");
    } else if (!sources->is_array() || sources->empty()) {
        m_check.error(where + ".sources",
                      "expected a non-empty array, got " + JsonChecker::shortDump(*sources));
    } else {
        std::size_t index = 0;
        for (auto const& element : *sources) {
            auto source = parseSource(element, where + ".sources[" + std::to_string(index++) + "]");
            if (source) {
                definition.sources.push_back(std::move(*source));
            }
        }
    }
    auto const name = m_check.text(value, "function", where, true);
    if (!name) {
        return;
    }
    definition.function = *name;
    CompositeFunction const* function = findCompositeFunction(*name);
    bool const wantRegisters = definition.encoder == EncoderKind::CompositeRegisters;
    if (function == nullptr || function->registers != wantRegisters) {
        std::vector<std::string> choices;
        for (auto const& candidate : compositeFunctions()) {
            if (candidate.registers == wantRegisters) {
                choices.push_back(candidate.name);
            }
        }
        m_check.error(where + ".function", "unknown function " + quoted(*name) + " for encoder " +
                                               quoted(encoderName(definition.encoder)) +
                                               "; expected " + joinChoices(choices));
        return;
    }
    std::size_t const count = sources != value.end() && sources->is_array() ? sources->size() : 0;
    if (count != 0 && (count < function->minSources || count > function->maxSources)) {
        m_check.error(where + ".sources", "function " + quoted(*name) + " takes " +
                                              (function->minSources == function->maxSources
                                                   ? std::to_string(function->minSources)
                                                   : std::to_string(function->minSources) + " to " +
                                                         std::to_string(function->maxSources)) +
                                              " sources, got " + std::to_string(count));
    }
    definition.size = function->sizeFor(count);
    if (auto const size = m_check.integer(value, "size", where, 1, kTableSize, false)) {
        // Fewer registers or discretes than the function produces would cut
        // its value (a kilo-counter32 in one register serves its high word
        // alone, and a write of that register stores 65536 times it): more
        // are reserved space, served as 0, where nobody writes: the function
        // takes nothing from them, so a write there would be answered as
        // done and change nothing.
        std::string const produced = " what function " + quoted(*name) + " produces for " +
                                     std::to_string(count) + (count == 1 ? " source" : " sources") +
                                     " (" + std::to_string(definition.size) + ")";
        bool const written = isWritableTable(definition.table) &&
                             !(definition.allowWrite && definition.allowWrite->empty());
        if (*size < definition.size) {
            m_check.error(where + ".size", std::to_string(*size) + " " + unitOf(definition.table) +
                                               " cannot hold" + produced);
            return;
        }
        if (*size > definition.size && written) {
            m_check.error(where + ".size",
                          std::to_string(*size) + " " + unitOf(definition.table) +
                              " in a writable table: writes beyond" + produced +
                              " would change nothing; reserve them only where nobody writes "
                              "(a read-only table, or \"allowWrite\": [])");
            return;
        }
        definition.size = static_cast<std::uint16_t>(std::min<long long>(*size, 0xFFFF));
    }
}

template <class Json>
std::optional<SourceDefinition> MapParser<Json>::parseSource(Json const& value,
                                                             std::string const& where) {
    if (!m_check.expectObject(value, where)) {
        return std::nullopt;
    }
    m_check.unknownFields(value, where, kSourceFields, " of a source");
    SourceDefinition source;
    std::size_t const errorsBefore = m_check.errors().size();
    if (!parseDevice(value, where, source.device)) {
        return std::nullopt;
    }
    parseSourceKind(value, where, source);
    if (m_check.errors().size() != errorsBefore) {
        return std::nullopt;
    }
    return source;
}

template <class Json>
bool MapParser<Json>::parseDevice(Json const& value, std::string const& where, DeviceRef& device) {
    auto const it = value.find("device");
    if (it == value.end()) {
        m_check.error(where, "missing field \"device\"");
        return false;
    }
    if (it->is_number_unsigned() ||
        (it->is_number_integer() && it->template get<long long>() >= 0)) {
        device.id = it->template get<unsigned long long>();
    } else if (it->is_string() && !it->template get<std::string>().empty()) {
        device.name = it->template get<std::string>();
    } else {
        m_check.error(where + ".device",
                      "expected a device id (integer) or a device name (non-empty string), got " +
                          JsonChecker::shortDump(*it));
        return false;
    }
    auto const path = value.find("path");
    if (path == value.end()) {
        return true;
    }
    if (!device.id) {
        m_check.error(where + ".path", "a sub-device path needs a device id, not a device name");
        return false;
    }
    bool valid = path->is_array();
    if (valid) {
        for (auto const& element : *path) {
            valid = element.is_number_unsigned() &&
                    element.template get<unsigned long long>() <= 0xFFFFFFFFULL;
            if (!valid) {
                break;
            }
            device.path.push_back(element.template get<unsigned int>());
        }
    }
    if (!valid) {
        m_check.error(where + ".path",
                      "expected an array of sub-device indexes (integers from 0), "
                      "got " +
                          JsonChecker::shortDump(*path));
    }
    return valid;
}

template <class Json>
void MapParser<Json>::parseSourceKind(Json const& value, std::string const& where,
                                      SourceDefinition& source) {
    if (value.contains("attribute")) {
        source.kind = SourceKind::Attribute;
        for (char const* key : {"channel", "data", "alarm"}) {
            if (value.contains(key)) {
                m_check.error(where + "." + key, "not allowed with \"attribute\"");
            }
        }
        Json const& attribute = value["attribute"];
        if (attribute.is_number_unsigned() &&
            attribute.template get<unsigned long long>() <= 0xFFFFFFFFULL) {
            source.attribute =
                static_cast<cdsapi::DeviceAttribute>(attribute.template get<unsigned>());
        } else if (auto const named = attribute.is_string()
                                          ? attributeFromName(attribute.template get<std::string>())
                                          : std::nullopt) {
            source.attribute = *named;
        } else {
            m_check.error(where + ".attribute", "expected an attribute number or one of " +
                                                    joinChoices(attributeNames()) + ", got " +
                                                    JsonChecker::shortDump(attribute));
        }
        return;
    }
    auto const channel = m_check.text(value, "channel", where, true);
    source.channel = channel.value_or("");
    if (auto const alarm = m_check.text(value, "alarm", where, false)) {
        source.kind = SourceKind::Alarm;
        if (value.contains("data")) {
            m_check.error(where + ".data", "not allowed with \"alarm\"");
        }
        if (auto const type = alarmTypeFromName(*alarm)) {
            source.alarmType = *type;
        } else {
            m_check.error(where + ".alarm", "unknown alarm type " + quoted(*alarm) + "; expected " +
                                                joinChoices(alarmTypeNames()));
        }
        return;
    }
    if (auto const data = m_check.text(value, "data", where, false)) {
        if (auto const type = dataTypeFromName(*data)) {
            source.dataType = *type;
        } else {
            m_check.error(where + ".data", "unknown data " + quoted(*data) + "; expected " +
                                               joinChoices(dataTypeNames()));
        }
    }
}

/* Whether the encoder suits the table and the entry fits inside it. */
template <class Json>
bool MapParser<Json>::checkFit(EntryDefinition const& definition) {
    if (isRegisterEncoder(definition.encoder) != isRegisterTable(definition.table)) {
        m_check.error(
            m_where,
            std::string("encoder \"") + encoderName(definition.encoder) +
                "\" cannot be served from " + tableName(definition.table) + "; it needs " +
                (isRegisterEncoder(definition.encoder) ? "holding-registers or input-registers"
                                                       : "coils or discrete-inputs"));
        return false;
    }
    CompositeFunction const* function = findCompositeFunction(definition.function);
    if (function != nullptr && !function->writable && isWritableTable(definition.table)) {
        m_check.error(m_where + ".function",
                      "function \"" + definition.function + "\" is read-only; serve it from " +
                          (function->registers ? "input-registers" : "discrete-inputs"));
        return false;
    }
    if (!checkSourcesTakeWrites(definition)) {
        return false;
    }
    if (definition.end() > kTableSize) {
        m_check.error(m_where, std::string(tableName(definition.table)) + " " +
                                   std::to_string(definition.address) + ".." +
                                   std::to_string(definition.end() - 1) +
                                   " run past the end of the table (last address 65535)");
        return false;
    }
    bool const registers = isRegisterTable(definition.table);
    bool const writable = isWritableTable(definition.table);
    long long const limit = registers ? (writable ? kMaxWriteRegisters : kMaxReadRegisters)
                                      : (writable ? kMaxWriteBits : kMaxReadBits);
    if (definition.size > limit) {
        m_check.error(m_where + ".size",
                      std::to_string(definition.size) + " " + unitOf(definition.table) +
                          " do not fit in one request to " + tableName(definition.table) +
                          " (at most " + std::to_string(limit) + ")");
        return false;
    }
    return true;
}

/* What a write through the source would be dropped for, by the library's
 * design; nothing for a source that takes writes. */
std::optional<std::string> whyNotWritable(SourceDefinition const& source) {
    if (source.kind == SourceKind::Alarm) {
        return "an alarm cannot be written (the data store decides it)";
    }
    if (source.kind == SourceKind::Attribute &&
        source.attribute == cdsapi::AttributeSubDeviceCount) {
        return "the sub-device count cannot be written (the data store counts the sub-devices)";
    }
    return std::nullopt;
}

/* An entry of a writable table whose source cannot be written would answer
 * a write as done and change nothing: refused, unless nobody may write it. */
template <class Json>
bool MapParser<Json>::checkSourcesTakeWrites(EntryDefinition const& definition) {
    bool const nobodyWrites = definition.allowWrite && definition.allowWrite->empty();
    if (!isWritableTable(definition.table) || nobodyWrites) {
        return true;
    }
    bool const composite = !definition.function.empty();
    bool fine = true;
    for (std::size_t i = 0; i < definition.sources.size(); ++i) {
        if (auto const why = whyNotWritable(definition.sources[i])) {
            std::string const where = m_where + (composite ? ".sources[" + std::to_string(i) + "]"
                                                           : std::string(".source"));
            m_check.error(where, *why + "; serve the entry from " +
                                     (isRegisterTable(definition.table) ? "input-registers"
                                                                        : "discrete-inputs") +
                                     ", or refuse its writes with \"allowWrite\": []");
            fine = false;
        }
    }
    return fine;
}

template <class Json>
void MapParser<Json>::checkOverlaps(std::vector<EntryDefinition> const& entries) {
    std::map<Table, std::vector<EntryDefinition const*>> byTable;
    for (auto const& entry : entries) {
        byTable[entry.table].push_back(&entry);
    }
    for (auto& [table, list] : byTable) {
        std::stable_sort(list.begin(), list.end(),
                         [](auto const* a, auto const* b) { return a->address < b->address; });
        EntryDefinition const* reach = nullptr;  // the entry that reaches furthest so far
        for (EntryDefinition const* entry : list) {
            if (reach != nullptr && entry->address < reach->end()) {
                m_check.error(entry->path(), "\"" + entry->name + "\" at " + tableName(table) +
                                                 " " + std::to_string(entry->address) + ".." +
                                                 std::to_string(entry->end() - 1) + " overlaps " +
                                                 reach->path() + " \"" + reach->name + "\" at " +
                                                 std::to_string(reach->address) + ".." +
                                                 std::to_string(reach->end() - 1));
            }
            if (reach == nullptr || entry->end() > reach->end()) {
                reach = entry;
            }
        }
    }
}

}  // namespace

MapError::MapError(std::vector<std::string> errors)
    : std::runtime_error(errors.empty() ? std::string("invalid register map")
                                        : "invalid register map: " + errors.front()),
      m_errors(std::move(errors)) {}

std::optional<RegisterMapDefinition> parseRegisterMapQuickly(std::string const& text) {
    auto const document = JsonDocument::parse(text);
    if (!document || document->hasRepeatedNames()) {
        return std::nullopt;
    }
    MapParser<JsonView> parser;
    RegisterMapDefinition map = parser.parse(document->root());
    if (!parser.errors().empty()) {
        return std::nullopt;
    }
    return map;
}

RegisterMapDefinition parseRegisterMapWithNlohmann(std::string const& text) {
    if (nestsDeeperThan(text)) {
        throw MapError({"map: not read: " + tooDeeplyNested()});
    }
    json root;
    try {
        root = json::parse(text);
    } catch (json::exception const& error) {
        // A syntax error, or a number too large for a double (out_of_range).
        throw MapError({std::string("map: not valid JSON: ") + error.what()});
    }
    MapParser<json> parser;
    RegisterMapDefinition map = parser.parse(root);
    if (!parser.errors().empty()) {
        throw MapError(parser.errors());
    }
    return map;
}

RegisterMapDefinition parseRegisterMap(std::string const& text) {
    // simdjson reads a large map several times faster than nlohmann builds its
    // tree. A map it cannot read, or with any problem, is read again with
    // nlohmann, so the errors keep the wording, the syntax messages and the
    // order of fields that nlohmann's reading gives them.
    if (auto map = parseRegisterMapQuickly(text)) {
        return std::move(*map);
    }
    return parseRegisterMapWithNlohmann(text);
}

namespace {

TextFileTooLarge tooLarge(std::string const& path) {
    return TextFileTooLarge("\"" + path + "\" is larger than " +
                            std::to_string(kMaxTextFileBytes >> 20) +
                            " MiB, more than any map, scenario or settings file");
}

}  // namespace

std::string readTextFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    // Read straight into the string: a map or scenario of thousands of
    // entries is megabytes, which a string stream would copy. A regular
    // file's size lets it be read at once; anything else (a pipe, or a
    // directory, whose "size" on ext4 is 2^63 - 1) is read in blocks. The
    // size is only a hint: a file that grows meanwhile is read to its end.
    std::string text;
    std::error_code statError;
    std::uintmax_t const size = std::filesystem::is_regular_file(path, statError)
                                    ? std::filesystem::file_size(path, statError)
                                    : 0;
    if (!statError && size > kMaxTextFileBytes) {
        throw tooLarge(path);
    }
    if (!statError && size > 0) {
        text.resize(static_cast<std::size_t>(size));
        in.read(text.data(), static_cast<std::streamsize>(size));
        text.resize(static_cast<std::size_t>(in.gcount()));
    }
    char block[65536];
    while (in.read(block, sizeof block) || in.gcount() > 0) {
        text.append(block, static_cast<std::size_t>(in.gcount()));
        if (text.size() > kMaxTextFileBytes) {
            throw tooLarge(path);
        }
    }
    // A read that failed, not one that reached the end: a directory.
    if (in.bad()) {
        throw std::runtime_error("cannot read " + path);
    }
    return text;
}

}  // namespace tarsel::daemon
