#include "IdentificationLoader.h"

#include <algorithm>
#include <array>

#include "DeviceIdentification.h"
#include "JsonView.h"

namespace tarsel::daemon {

namespace {

constexpr std::array<char const*, 7> kObjectNames = {
    "VendorName",  "ProductCode", "MajorMinorRevision", "VendorUrl",
    "ProductName", "ModelName",   "UserApplicationName"};
// Every device that answers Read Device Identification has these three.
constexpr std::uint8_t kBasicObjects = 3;

std::optional<std::uint8_t> objectId(std::string const& name) {
    for (std::size_t i = 0; i < kObjectNames.size(); ++i) {
        if (name == kObjectNames[i]) {
            return static_cast<std::uint8_t>(i);
        }
    }
    return std::nullopt;
}

/* A source the answer can read as text: a device attribute or a channel's
 * value. */
void checkSourceKind(SourceDefinition const& source, std::string const& where, JsonChecker& check) {
    if (source.kind == SourceKind::Alarm) {
        check.error(where + ".alarm",
                    "an alarm cannot identify a device; name an attribute or "
                    "a channel's value");
    } else if (source.kind == SourceKind::Channel && source.dataType != modbus::DataType::Value) {
        check.error(where + ".data", "only a channel's value can identify a device");
    }
}

template <class Json>
std::optional<IdentificationObjectDefinition> parseObject(Json const& value,
                                                          std::string const& where, std::uint8_t id,
                                                          JsonChecker& check,
                                                          SourceParser<Json> const& parseSource) {
    if (!check.expectObject(value, where)) {
        return std::nullopt;
    }
    check.unknownFields(value, where, {"text", "source", "comment"},
                        " of an identification object");
    check.text(value, "comment", where, false);
    IdentificationObjectDefinition object;
    object.id = id;
    auto const text = check.text(value, "text", where, false);
    object.text = text.value_or("");
    if (object.text.size() > identification::kMaxText) {
        check.error(where + ".text", std::to_string(object.text.size()) +
                                         " bytes do not fit in one answer (at most " +
                                         std::to_string(identification::kMaxText) + ")");
    }
    if (auto const source = value.find("source"); source != value.end()) {
        object.source = parseSource(*source, where + ".source");
        if (object.source) {
            checkSourceKind(*object.source, where + ".source", check);
        }
    } else if (!text) {
        check.error(where, "expected \"text\", \"source\" or both");
    }
    return object;
}

}  // namespace

std::optional<std::string> identificationObjectName(std::uint8_t id) {
    if (id >= kObjectNames.size()) {
        return std::nullopt;
    }
    return kObjectNames[id];
}

std::vector<std::string> identificationObjectNames() {
    return {kObjectNames.begin(), kObjectNames.end()};
}

template <class Json>
std::vector<IdentificationObjectDefinition> parseIdentification(
    Json const& section, JsonChecker& check, SourceParser<Json> const& parseSource) {
    std::vector<IdentificationObjectDefinition> objects;
    if (!check.expectObject(section, "identification")) {
        return objects;
    }
    std::array<bool, kObjectNames.size()> named{};
    check.text(section, "comment", "identification", false);
    for (auto const& item : section.items()) {
        std::string const name(item.key());
        std::string const where = "identification." + name;
        if (name == "comment") {
            continue;
        }
        auto const id = objectId(name);
        if (!id) {
            check.error(where, "unknown identification object; expected " +
                                   joinChoices(identificationObjectNames()));
            continue;
        }
        named[*id] = true;
        if (auto object = parseObject(item.value(), where, *id, check, parseSource)) {
            objects.push_back(std::move(*object));
        }
    }
    for (std::uint8_t id = 0; id < kBasicObjects; ++id) {
        if (!named[id]) {
            check.error("identification", std::string("missing object \"") + kObjectNames[id] +
                                              "\" (VendorName, ProductCode and "
                                              "MajorMinorRevision are always answered)");
        }
    }
    std::sort(objects.begin(), objects.end(),
              [](auto const& a, auto const& b) { return a.id < b.id; });
    return objects;
}

template std::vector<IdentificationObjectDefinition> parseIdentification(
    nlohmann::json const&, JsonChecker&, SourceParser<nlohmann::json> const&);
template std::vector<IdentificationObjectDefinition> parseIdentification(
    JsonView const&, JsonChecker&, SourceParser<JsonView> const&);

}  // namespace tarsel::daemon
