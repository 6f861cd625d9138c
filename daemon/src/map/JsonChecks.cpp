#include "JsonChecks.h"

#include <cmath>

namespace tarsel::daemon {

void JsonChecker::error(std::string const& where, std::string const& what) {
    m_errors.push_back(where + ": " + what);
}

std::string JsonChecker::field(std::string const& where, char const* key) {
    return where.empty() ? std::string(key) : where + "." + key;
}

std::string JsonChecker::shortDump(json const& value) {
    std::string text = value.dump();
    constexpr std::size_t kLimit = 40;
    if (text.size() > kLimit) {
        text = text.substr(0, kLimit) + "...";
    }
    return text;
}

JsonChecker::json const* JsonChecker::find(json const& object, char const* key,
                                           std::string const& where, bool required) {
    auto const it = object.find(key);
    if (it == object.end()) {
        if (required) {
            error(where.empty() ? "map" : where, std::string("missing field \"") + key + "\"");
        }
        return nullptr;
    }
    return &*it;
}

std::optional<long long> JsonChecker::integer(json const& object, char const* key,
                                              std::string const& where, long long min,
                                              long long max, bool required) {
    json const* value = find(object, key, where, required);
    if (value == nullptr) {
        return std::nullopt;
    }
    bool const isInteger =
        value->is_number_integer() ||
        (value->is_number_float() && std::floor(value->get<double>()) == value->get<double>());
    if (isInteger) {
        double const number = value->get<double>();
        if (number >= static_cast<double>(min) && number <= static_cast<double>(max)) {
            return static_cast<long long>(number);
        }
    }
    error(field(where, key), "expected an integer from " + std::to_string(min) + " to " +
                                 std::to_string(max) + ", got " + shortDump(*value));
    return std::nullopt;
}

std::optional<double> JsonChecker::number(json const& object, char const* key,
                                          std::string const& where, bool required) {
    json const* value = find(object, key, where, required);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_number()) {
        error(field(where, key), "expected a number, got " + shortDump(*value));
        return std::nullopt;
    }
    return value->get<double>();
}

std::optional<std::string> JsonChecker::text(json const& object, char const* key,
                                             std::string const& where, bool required) {
    json const* value = find(object, key, where, required);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        error(field(where, key), "expected a string, got " + shortDump(*value));
        return std::nullopt;
    }
    return value->get<std::string>();
}

std::optional<bool> JsonChecker::boolean(json const& object, char const* key,
                                         std::string const& where, bool required) {
    json const* value = find(object, key, where, required);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_boolean()) {
        error(field(where, key), "expected true or false, got " + shortDump(*value));
        return std::nullopt;
    }
    return value->get<bool>();
}

void JsonChecker::unknownFields(json const& object, std::string const& where,
                                std::set<std::string> const& allowed, std::string const& context) {
    for (auto const& item : object.items()) {
        if (allowed.count(item.key()) == 0) {
            error(field(where, item.key().c_str()), "unknown field" + context);
        }
    }
}

bool JsonChecker::expectObject(json const& value, std::string const& where) {
    if (value.is_object()) {
        return true;
    }
    error(where, "expected an object, got " + shortDump(value));
    return false;
}

std::string joinChoices(std::vector<std::string> const& choices) {
    std::string text;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        if (i > 0) {
            text += i + 1 == choices.size() ? " or " : ", ";
        }
        text += choices[i];
    }
    return text;
}

}  // namespace tarsel::daemon
