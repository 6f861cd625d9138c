// Reading and checking scenario files.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <set>

#include "JsonChecks.h"
#include "JsonNesting.h"
#include "JsonView.h"
#include "LogText.h"
#include "MapModel.h"
#include "Scenario.h"
#include "modbus/PowerDistributionAvailableAccessor.h"

namespace tarsel::daemon {

namespace {

using json = nlohmann::json;

std::map<std::string, FieldNames> const& actionFields() {
    static std::map<std::string, FieldNames> const fields = {
        {"add-device", {"device", "parent", "parentPath", "parentChanged"}},
        {"remove-device", {"device", "path"}},
        {"rename-device", {"device", "path", "name"}},
        {"set-channel", {"device", "path", "channel", "value", "values"}},
        {"add-channel", {"device", "path", "channel", "value"}},
        {"remove-channel", {"device", "path", "channel"}},
        {"set-attribute", {"device", "path", "attribute", "value", "values"}},
        {"raise-alarm", {"device", "path", "channel", "level", "direction"}},
        {"clear-alarm", {"device", "path", "channel"}},
        {"alarm-settings", {"device", "path", "channel", "settings"}},
        {"notify-device", {"device", "path", "event"}},
        {"log", {"text"}},
    };
    return fields;
}

std::optional<float> floatOf(json const& value);

/* Why the value cannot be a channel's value; nothing when it can. */
std::optional<std::string> valueProblem(json const& value) {
    try {
        valueFromJson(value);
    } catch (std::exception const& error) {
        return std::string(error.what());
    }
    return std::nullopt;
}

/* The explicit ids of devices created together (the devices of the start,
 * or one added device with its sub-devices), each with where it was given:
 * the store refuses a second device under an id in use. */
using IdsGiven = std::map<unsigned long long, std::string>;

/* The ids a device can have: 0 is none and all ones the store's "any";
 * the largest is also the largest integer the checks read as signed. */
constexpr long long kLargestDeviceId = std::numeric_limits<long long>::max();

bool isDeviceId(json const& value) {
    return value.is_number_unsigned() && value.get<unsigned long long>() >= 1 &&
           value.get<unsigned long long>() <= static_cast<unsigned long long>(kLargestDeviceId);
}

class ScenarioChecker {
  public:
    /* Takes the parsed file, whose devices it keeps. */
    Scenario parse(json root);
    std::vector<std::string> const& errors() const { return m_check.errors(); }

  private:
    void checkDevice(json const& device, std::string const& where, IdsGiven& ids);
    void checkId(json const& device, std::string const& where, IdsGiven& ids);
    void checkDeviceRef(json const& body, char const* key, std::string const& where);
    void checkPath(json const& body, char const* key, std::string const& where);
    void checkNamesReferred();
    void checkValue(json const& value, std::string const& where, bool text);
    void checkValues(json const& body, std::string const& where, bool required, bool texts);
    void checkSettings(json const& settings, std::string const& where);
    std::optional<ScenarioEvent> checkEvent(json const& value, std::string const& where);
    void checkAction(ScenarioEvent const& event);

    JsonChecker m_check;
    // Every device name the scenario creates, and the places that name one.
    std::set<std::string> m_names;
    std::vector<std::pair<std::string, std::string>> m_namesReferred;
};

Scenario ScenarioChecker::parse(json root) {
    Scenario scenario;
    if (!m_check.expectObject(root, "scenario")) {
        return scenario;
    }
    m_check.unknownFields(root, "", {"description", "comment", "devices", "events"},
                          " of the scenario");
    scenario.description = m_check.text(root, "description", "", false).value_or("");
    if (root.contains("devices")) {
        if (root["devices"].is_array()) {
            json const& devices = root["devices"];
            IdsGiven ids;
            for (std::size_t i = 0; i < devices.size(); ++i) {
                checkDevice(devices[i], "devices[" + std::to_string(i) + "]", ids);
            }
            // Moved, not copied: the devices of a large scenario are most of it.
            scenario.devices = std::move(root["devices"]);
        } else {
            m_check.error("devices", "expected an array of devices");
        }
    }
    if (root.contains("events") && !root["events"].is_array()) {
        m_check.error("events", "expected an array of events");
    } else if (root.contains("events")) {
        for (std::size_t i = 0; i < root["events"].size(); ++i) {
            if (auto event = checkEvent(root["events"][i], "events[" + std::to_string(i) + "]")) {
                scenario.events.push_back(std::move(*event));
            }
        }
    }
    checkNamesReferred();
    return scenario;
}

/* A name no device of the scenario has is never found: the store starts
 * empty and only the scenario adds devices. */
void ScenarioChecker::checkNamesReferred() {
    for (auto const& [where, name] : m_namesReferred) {
        if (m_names.count(name) == 0) {
            m_check.error(where, "no device of the scenario is named \"" + name + "\"");
        }
    }
}

void ScenarioChecker::checkId(json const& device, std::string const& where, IdsGiven& ids) {
    auto const id = m_check.integer(device, "id", where, 1, kLargestDeviceId, false);
    if (!id) {
        return;
    }
    auto const [given, added] = ids.emplace(static_cast<unsigned long long>(*id), where);
    if (!added) {
        m_check.error(where + ".id", "device id " + std::to_string(*id) + " is that of " +
                                         given->second + " already");
    }
}

void ScenarioChecker::checkDevice(json const& device, std::string const& where, IdsGiven& ids) {
    if (!m_check.expectObject(device, where)) {
        return;
    }
    m_check.unknownFields(
        device, where, {"id", "name", "attributes", "channels", "alarms", "subDevices", "comment"},
        " of a device");
    checkId(device, where, ids);
    if (auto const name = m_check.text(device, "name", where, true)) {
        m_names.insert(*name);
    }
    if (device.contains("attributes")) {
        json const& attributes = device["attributes"];
        if (!m_check.expectObject(attributes, where + ".attributes")) {
            return;
        }
        for (auto const& item : attributes.items()) {
            if (!attributeFromName(item.key())) {
                m_check.error(where + ".attributes." + item.key(), "unknown attribute");
            }
            if (!item.value().is_string()) {
                m_check.error(where + ".attributes." + item.key(), "expected a string");
            }
        }
    }
    if (device.contains("channels") &&
        m_check.expectObject(device["channels"], where + ".channels")) {
        for (auto const& item : device["channels"].items()) {
            // The path is built only for a wrong value: a device may have
            // thousands of channels.
            if (auto const problem = valueProblem(item.value())) {
                m_check.error(where + ".channels." + item.key(), *problem);
            }
        }
    }
    if (device.contains("alarms") && m_check.expectObject(device["alarms"], where + ".alarms")) {
        for (auto const& item : device["alarms"].items()) {
            checkSettings(item.value(), where + ".alarms." + item.key());
        }
    }
    if (device.contains("subDevices")) {
        json const& subs = device["subDevices"];
        if (!subs.is_array()) {
            m_check.error(where + ".subDevices", "expected an array of devices");
            return;
        }
        for (std::size_t i = 0; i < subs.size(); ++i) {
            checkDevice(subs[i], where + ".subDevices[" + std::to_string(i) + "]", ids);
        }
    }
}

void ScenarioChecker::checkDeviceRef(json const& body, char const* key, std::string const& where) {
    auto const it = body.find(key);
    if (it == body.end()) {
        m_check.error(where, std::string("missing field \"") + key + "\"");
    } else if (!isDeviceId(*it) && !(it->is_string() && !it->get<std::string>().empty())) {
        m_check.error(
            JsonChecker::field(where, key),
            "expected a device id (from 1) or a device name, got " + JsonChecker::shortDump(*it));
    } else if (it->is_string()) {
        m_namesReferred.emplace_back(JsonChecker::field(where, key), it->get<std::string>());
    }
}

/* A path to a sub-device: indexes into each device's sub-devices in turn. */
void ScenarioChecker::checkPath(json const& body, char const* key, std::string const& where) {
    auto const it = body.find(key);
    if (it == body.end()) {
        return;
    }
    bool valid = it->is_array();
    for (std::size_t i = 0; valid && i < it->size(); ++i) {
        valid = (*it)[i].is_number_unsigned();
    }
    if (!valid) {
        m_check.error(JsonChecker::field(where, key),
                      "expected an array of sub-device indexes (integers from 0), got " +
                          JsonChecker::shortDump(*it));
    }
}

/* text: the value must be a JSON string (an attribute's). */
void ScenarioChecker::checkValue(json const& value, std::string const& where, bool text) {
    if (text && !value.is_string()) {
        m_check.error(where, "expected a text, got " + JsonChecker::shortDump(value));
    } else if (auto const problem = valueProblem(value)) {
        m_check.error(where, *problem);
    }
}

void ScenarioChecker::checkValues(json const& body, std::string const& where, bool required,
                                  bool texts) {
    bool const one = body.contains("value");
    bool const many = body.contains("values");
    if (one == many && (required || one)) {
        m_check.error(where, "needs exactly one of \"value\" and \"values\"");
        return;
    }
    if (one) {
        checkValue(body["value"], where + ".value", texts);
    } else if (many && (!body["values"].is_array() || body["values"].empty())) {
        m_check.error(where + ".values", "expected a non-empty array");
    } else if (many) {
        for (std::size_t i = 0; i < body["values"].size(); ++i) {
            checkValue(body["values"][i], where + ".values[" + std::to_string(i) + "]", texts);
        }
    }
}

void ScenarioChecker::checkSettings(json const& settings, std::string const& where) {
    if (!m_check.expectObject(settings, where)) {
        return;
    }
    m_check.unknownFields(settings, where,
                          {"enabled", "thresholds", "thresholdFlag", "hysteresis", "level"},
                          " of alarm settings");
    m_check.boolean(settings, "enabled", where, false);
    m_check.boolean(settings, "thresholdFlag", where, false);
    if (m_check.number(settings, "hysteresis", where, false) && !floatOf(settings["hysteresis"])) {
        m_check.error(where + ".hysteresis", "expected a number a float holds, got " +
                                                 JsonChecker::shortDump(settings["hysteresis"]));
    }
    m_check.integer(settings, "level", where, -2147483648LL, 2147483647LL, false);
    if (settings.contains("thresholds")) {
        json const& thresholds = settings["thresholds"];
        bool valid = thresholds.is_array() && thresholds.size() == 4;
        for (std::size_t i = 0; valid && i < 4; ++i) {
            valid = thresholds[i].is_number() && floatOf(thresholds[i]);
        }
        if (!valid) {
            m_check.error(where + ".thresholds",
                          "expected an array of 4 numbers floats hold, got " +
                              JsonChecker::shortDump(thresholds));
        }
    }
}

std::optional<ScenarioEvent> ScenarioChecker::checkEvent(json const& value,
                                                         std::string const& where) {
    if (!m_check.expectObject(value, where)) {
        return std::nullopt;
    }
    ScenarioEvent event;
    event.path = where;
    event.body = value;
    std::size_t const before = m_check.errors().size();
    event.at = m_check.number(value, "at", where, true).value_or(0.0);
    event.every = m_check.number(value, "every", where, false).value_or(0.0);
    if (event.at < 0 || event.every < 0) {
        m_check.error(where, "\"at\" and \"every\" must not be negative");
    }
    if (event.every > 0 && event.every < kShortestPeriodSeconds) {
        m_check.error(where + ".every", "expected 0 or at least 0.001 seconds, got " +
                                            JsonChecker::shortDump(value["every"]));
    }
    auto const times = m_check.integer(value, "times", where, 0, 1000000000, false);
    event.times = times ? static_cast<std::size_t>(*times) : (event.every > 0 ? 0 : 1);
    if (event.times == 0 && event.every <= 0) {
        m_check.error(where + ".times", "0 (for ever) needs a positive \"every\"");
    }
    event.action = m_check.text(value, "do", where, true).value_or("");
    auto const fields = actionFields().find(event.action);
    if (fields == actionFields().end()) {
        if (value.contains("do")) {
            std::vector<std::string> names = scenarioActions();
            m_check.error(where + ".do", "unknown action \"" + event.action + "\"; expected " +
                                             joinChoices(names));
        }
        return std::nullopt;
    }
    auto allowed = fields->second;
    allowed.insert({"at", "every", "times", "do", "comment"});
    m_check.unknownFields(value, where, allowed, " for action \"" + event.action + "\"");
    checkAction(event);
    if (m_check.errors().size() != before) {
        return std::nullopt;
    }
    return event;
}

void ScenarioChecker::checkAction(ScenarioEvent const& event) {
    json const& body = event.body;
    std::string const& where = event.path;
    std::string const& action = event.action;
    if (action == "log") {
        m_check.text(body, "text", where, true);
        return;
    }
    if (action == "add-device") {
        if (!body.contains("device")) {
            m_check.error(where, "missing field \"device\"");
        } else {
            IdsGiven ids;
            checkDevice(body["device"], where + ".device", ids);
        }
        if (body.contains("parent")) {
            checkDeviceRef(body, "parent", where);
        } else if (body.contains("parentPath")) {
            m_check.error(where + ".parentPath", "needs a \"parent\"");
        }
        checkPath(body, "parentPath", where);
        m_check.boolean(body, "parentChanged", where, false);
        return;
    }
    checkDeviceRef(body, "device", where);
    checkPath(body, "path", where);
    if (action.find("channel") != std::string::npos || action.find("alarm") != std::string::npos) {
        m_check.text(body, "channel", where, true);
    }
    if (action == "set-channel" || action == "set-attribute") {
        checkValues(body, where, true, action == "set-attribute");
    } else if (action == "add-channel") {
        checkValues(body, where, false, false);
    } else if (action == "rename-device") {
        if (auto const name = m_check.text(body, "name", where, true)) {
            m_names.insert(*name);
        }
    } else if (action == "notify-device") {
        auto const kind = m_check.text(body, "event", where, true);
        if (kind && *kind != "created" && *kind != "changed") {
            m_check.error(where + ".event", "expected \"created\" or \"changed\"");
        }
    } else if (action == "raise-alarm") {
        m_check.integer(body, "level", where, -2147483648LL, 2147483647LL, true);
        m_check.boolean(body, "direction", where, false);
    } else if (action == "alarm-settings") {
        if (!body.contains("settings")) {
            m_check.error(where, "missing field \"settings\"");
        } else {
            checkSettings(body["settings"], where + ".settings");
        }
    }
    if (action == "set-attribute" && body.contains("attribute")) {
        json const& attribute = body["attribute"];
        // A number as the map takes one: the store's attributes are 32-bit.
        bool const number =
            attribute.is_number_unsigned() && attribute.get<unsigned long long>() <= 0xFFFFFFFFULL;
        if (!number &&
            !(attribute.is_string() && attributeFromName(attribute.get<std::string>()))) {
            m_check.error(where + ".attribute", "expected an attribute number or one of " +
                                                    joinChoices(attributeNames()));
        }
    } else if (action == "set-attribute") {
        m_check.error(where, "missing field \"attribute\"");
    }
}

/* The integer as T, when it is one that T holds; nothing otherwise. A JSON
 * integer from 0 up is unsigned, below 0 signed. */
template <class T>
std::optional<T> integerAs(json const& value) {
    using Limits = std::numeric_limits<T>;
    if (value.is_number_unsigned()) {
        auto const number = value.get<unsigned long long>();
        if (number <= static_cast<unsigned long long>(Limits::max())) {
            return static_cast<T>(number);
        }
    } else if (value.is_number_integer() && Limits::is_signed) {
        auto const number = value.get<long long>();
        if (number >= static_cast<long long>(Limits::min())) {
            return static_cast<T>(number);
        }
    }
    return std::nullopt;
}

/* The number as a float, when it is within a float's range. */
std::optional<float> floatOf(json const& value) {
    double const number = value.get<double>();
    if (std::fabs(number) <= static_cast<double>(std::numeric_limits<float>::max())) {
        return static_cast<float>(number);
    }
    return std::nullopt;
}

/* type: the alternative asked for by name, or what a plain number is read
 * as ("int64 (a plain integer)"). */
[[noreturn]] void outOfRange(std::string const& type, json const& value) {
    throw std::invalid_argument(JsonChecker::shortDump(value) + " is out of the range of " + type);
}

template <class T>
kq::CValue integerValue(std::string const& type, json const& value) {
    if (auto const number = integerAs<T>(value)) {
        return kq::CValue(*number);
    }
    outOfRange(type, value);
}

template <class T>
kq::CValue typedInteger(std::string const& type, json const& value) {
    return integerValue<T>("\"" + type + "\"", value);
}

/* {"uint32": 7} and the like: a value of the store's own alternative. An
 * integer or number that the alternative cannot hold is an error rather
 * than a value cut to fit: {"int32": 3000000000} is not -1294967296. */
std::optional<kq::CValue> typedValue(std::string const& type, json const& inner) {
    bool const integer = inner.is_number_integer();
    if (type == "bool" && inner.is_boolean()) {
        return kq::CValue(inner.get<bool>());
    }
    if (type == "int32" && integer) {
        return typedInteger<int>(type, inner);
    }
    if (type == "int64" && integer) {
        return typedInteger<long long>(type, inner);
    }
    if (type == "uint32" && integer && inner.is_number_unsigned()) {
        return typedInteger<unsigned>(type, inner);
    }
    if (type == "uint64" && integer && inner.is_number_unsigned()) {
        return typedInteger<unsigned long long>(type, inner);
    }
    if (type == "float" && inner.is_number()) {
        if (auto const number = floatOf(inner)) {
            return kq::CValue(*number);
        }
        outOfRange("\"float\"", inner);
    }
    if (type == "double" && inner.is_number()) {
        return kq::CValue(inner.get<double>());
    }
    if (type == "string" && inner.is_string()) {
        return kq::CValue(inner.get<std::string>());
    }
    return std::nullopt;
}

}  // namespace

ScenarioError::ScenarioError(std::vector<std::string> errors)
    : std::runtime_error(errors.empty() ? std::string("invalid scenario")
                                        : "invalid scenario: " + errors.front()),
      m_errors(std::move(errors)) {}

namespace {

/* Whether `text` is a key or a string anywhere in `value`. */
bool mentions(json const& value, std::string const& text) {
    if (value.is_string()) {
        return value.get_ref<std::string const&>() == text;
    }
    if (value.is_array()) {
        return std::any_of(value.begin(), value.end(),
                           [&text](json const& item) { return mentions(item, text); });
    }
    if (value.is_object()) {
        for (auto const& [key, item] : value.items()) {
            if (key == text || mentions(item, text)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

std::vector<std::string> scenarioWarnings(Scenario const& scenario) {
    using Status = modbus::PowerDistributionAvailableAccessor::OperatingStatusReader;
    std::string const channel = Status::kChannelName;
    bool const named = mentions(scenario.devices, channel) ||
                       std::any_of(scenario.events.begin(), scenario.events.end(),
                                   [&channel](ScenarioEvent const& event) {
                                       return mentions(event.body, channel);
                                   });
    if (named) {
        return {};
    }
    return {"no device and no event names the channel " + quotedValue(channel) + ", whose value " +
            std::to_string(Status::kAvailableStatus) + " on device " +
            std::to_string(Status::kDeviceId) +
            " tells that the UPS is there: the map will never be served"};
}

std::vector<std::string> scenarioActions() {
    std::vector<std::string> names;
    for (auto const& item : actionFields()) {
        names.push_back(item.first);
    }
    return names;
}

Scenario parseScenario(std::string const& text) {
    json root;
    // simdjson reads a large scenario several times faster than nlohmann; what
    // it refuses nlohmann reads, for its syntax messages.
    if (auto const document = JsonDocument::parse(text)) {
        root = document->root().toJson();
    } else {
        if (nestsDeeperThan(text)) {
            throw ScenarioError({"scenario: not read: " + tooDeeplyNested()});
        }
        try {
            root = json::parse(text);
        } catch (json::exception const& error) {
            // A syntax error, or a number too large for a double (out_of_range).
            throw ScenarioError({std::string("scenario: not valid JSON: ") + error.what()});
        }
    }
    ScenarioChecker checker;
    Scenario scenario = checker.parse(std::move(root));
    if (!checker.errors().empty()) {
        throw ScenarioError(checker.errors());
    }
    return scenario;
}

kq::CValue valueFromJson(json const& value) {
    if (value.is_boolean()) {
        return kq::CValue(value.get<bool>());
    }
    if (value.is_number_integer()) {
        // An int32, or an int64 when it needs one; beyond that, a uint64
        // must be asked for by name.
        if (auto const number = integerAs<int>(value)) {
            return kq::CValue(*number);
        }
        return integerValue<long long>("int64 (a plain integer)", value);
    }
    if (value.is_number()) {
        if (auto const number = floatOf(value)) {
            return kq::CValue(*number);
        }
        outOfRange("float (a plain number)", value);
    }
    if (value.is_string()) {
        return kq::CValue(value.get<std::string>());
    }
    if (value.is_object() && value.size() == 1) {
        auto const item = value.items().begin();
        if (auto typed = typedValue(item.key(), item.value())) {
            return *typed;
        }
    }
    if (value.is_null()) {
        return kq::CValue();
    }
    throw std::invalid_argument(
        "expected a value: a bool, number or string, or one of {\"bool\"|\"int32\"|\"int64\"|"
        "\"uint32\"|\"uint64\"|\"float\"|\"double\"|\"string\": value}, got " +
        JsonChecker::shortDump(value));
}

}  // namespace tarsel::daemon
