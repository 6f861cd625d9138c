#include "JsonChecks.h"

#include <cmath>

#include "JsonView.h"

namespace tarsel::daemon {

void JsonChecker::error(std::string const& where, std::string const& what) {
    m_errors.push_back(where + ": " + what);
}

std::string JsonChecker::field(std::string const& where, char const* key) {
    return where.empty() ? std::string(key) : where + "." + key;
}

namespace {

std::string shortened(std::string text) {
    constexpr std::size_t kLimit = 40;
    if (text.size() > kLimit) {
        text = text.substr(0, kLimit) + "...";
    }
    return text;
}

}  // namespace

template <class Json>
std::string JsonChecker::shortDump(Json const& value) {
    return shortened(value.dump());
}

void JsonChecker::missing(char const* key, std::string const& where) {
    error(where.empty() ? "map" : where, std::string("missing field \"") + key + "\"");
}

template <class Json, class Read>
auto JsonChecker::readField(Json const& object, char const* key, std::string const& where,
                            bool required, Read read) -> decltype(read(object)) {
    // The value lives in what find() returns (a JsonView makes it there):
    // it is read before that goes.
    auto const found = object.find(key);
    if (found == object.end()) {
        if (required) {
            missing(key, where);
        }
        return std::nullopt;
    }
    return read(*found);
}

template <class Value, class Json, class IsRight>
std::optional<Value> JsonChecker::typed(Json const& object, char const* key,
                                        std::string const& where, bool required, IsRight isRight,
                                        char const* expected) {
    return readField(object, key, where, required, [&](Json const& value) -> std::optional<Value> {
        if (!isRight(value)) {
            error(field(where, key),
                  std::string("expected ") + expected + ", got " + shortDump(value));
            return std::nullopt;
        }
        return value.template get<Value>();
    });
}

template <class Json>
std::optional<long long> JsonChecker::integer(Json const& object, char const* key,
                                              std::string const& where, long long min,
                                              long long max, bool required) {
    return readField(
        object, key, where, required, [&](Json const& value) -> std::optional<long long> {
            bool const isInteger =
                value.is_number_integer() ||
                (value.is_number_float() &&
                 std::floor(value.template get<double>()) == value.template get<double>());
            if (isInteger) {
                double const number = value.template get<double>();
                if (number >= static_cast<double>(min) && number <= static_cast<double>(max)) {
                    return static_cast<long long>(number);
                }
            }
            error(field(where, key), "expected an integer from " + std::to_string(min) + " to " +
                                         std::to_string(max) + ", got " + shortDump(value));
            return std::nullopt;
        });
}

template <class Json>
std::optional<double> JsonChecker::number(Json const& object, char const* key,
                                          std::string const& where, bool required) {
    return typed<double>(
        object, key, where, required, [](Json const& value) { return value.is_number(); },
        "a number");
}

template <class Json>
std::optional<std::string> JsonChecker::text(Json const& object, char const* key,
                                             std::string const& where, bool required) {
    return typed<std::string>(
        object, key, where, required, [](Json const& value) { return value.is_string(); },
        "a string");
}

template <class Json>
std::optional<bool> JsonChecker::boolean(Json const& object, char const* key,
                                         std::string const& where, bool required) {
    return typed<bool>(
        object, key, where, required, [](Json const& value) { return value.is_boolean(); },
        "true or false");
}

template <class Json>
void JsonChecker::unknownFields(Json const& object, std::string const& where,
                                FieldNames const& allowed, std::string const& context) {
    for (auto const& item : object.items()) {
        if (allowed.find(item.key()) == allowed.end()) {
            error(field(where, std::string(item.key()).c_str()), "unknown field" + context);
        }
    }
}

template <class Json>
bool JsonChecker::expectObject(Json const& value, std::string const& where) {
    if (value.is_object()) {
        return true;
    }
    error(where, "expected an object, got " + shortDump(value));
    return false;
}

/* The two readings the loaders check. */
#define TARSEL_JSON_CHECKER_READS(Json)                                                          \
    template std::optional<long long> JsonChecker::integer(                                      \
        Json const&, char const*, std::string const&, long long, long long, bool);               \
    template std::optional<double> JsonChecker::number(Json const&, char const*,                 \
                                                       std::string const&, bool);                \
    template std::optional<std::string> JsonChecker::text(Json const&, char const*,              \
                                                          std::string const&, bool);             \
    template std::optional<bool> JsonChecker::boolean(Json const&, char const*,                  \
                                                      std::string const&, bool);                 \
    template void JsonChecker::unknownFields(Json const&, std::string const&, FieldNames const&, \
                                             std::string const&);                                \
    template bool JsonChecker::expectObject(Json const&, std::string const&);                    \
    template std::string JsonChecker::shortDump(Json const&);

TARSEL_JSON_CHECKER_READS(nlohmann::json)
TARSEL_JSON_CHECKER_READS(JsonView)

#undef TARSEL_JSON_CHECKER_READS

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
