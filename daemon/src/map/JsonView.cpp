#include "JsonView.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace tarsel::daemon {

namespace {

using simdjson::dom::element_type;

/* Whether the text has the number -0: a '-' where a value may start (at the
 * beginning or after '[', ':', ',' or white space) followed by a '0' that no
 * digit, fraction or exponent continues. Inside a string such a "-0" counts
 * too, which only sends that document the slower way; "threshold-0" does not. */
bool hasNegativeZero(std::string const& text) {
    char const* const first = text.data();
    char const* const last = first + text.size();
    char const* at = first;
    while ((at = static_cast<char const*>(std::memchr(at, '-', last - at))) != nullptr) {
        char const before = at == first ? ' ' : at[-1];
        ++at;
        bool const startsValue = before == '[' || before == ':' || before == ',' || before == ' ' ||
                                 before == '\t' || before == '\n' || before == '\r';
        if (!startsValue || at == last || *at != '0') {
            continue;
        }
        char const next = at + 1 == last ? ' ' : at[1];
        bool const continues =
            (next >= '0' && next <= '9') || next == '.' || next == 'e' || next == 'E';
        if (!continues) {
            return true;
        }
    }
    return false;
}

/* Whether an object of the document, at any depth, names a field twice. */
class RepeatedNames {
  public:
    bool in(simdjson::dom::element element) {
        if (element.type() == element_type::ARRAY) {
            for (auto const child : simdjson::dom::array(element)) {
                if (in(child)) {
                    return true;
                }
            }
        } else if (element.type() == element_type::OBJECT) {
            return inObject(simdjson::dom::object(element));
        }
        return false;
    }

  private:
    // Objects up to this size are compared pair by pair, which costs less
    // than sorting their names.
    static constexpr std::size_t kPairwise = 16;

    bool inObject(simdjson::dom::object object) {
        std::size_t const first = m_names.size();
        for (auto const field : object) {
            m_names.push_back(field.key);
            if (in(field.value)) {
                return true;
            }
        }
        auto const begin = m_names.begin() + static_cast<std::ptrdiff_t>(first);
        bool repeated = false;
        if (m_names.size() - first <= kPairwise) {
            for (auto at = begin; !repeated && at != m_names.end(); ++at) {
                repeated = std::find(at + 1, m_names.end(), *at) != m_names.end();
            }
        } else {
            std::sort(begin, m_names.end());
            repeated = std::adjacent_find(begin, m_names.end()) != m_names.end();
        }
        m_names.resize(first);
        return repeated;
    }

    // The names of the objects being walked, innermost last.
    std::vector<std::string_view> m_names;
};

}  // namespace

bool JsonView::is_number_integer() const {
    auto const kind = type();
    return kind == element_type::INT64 || kind == element_type::UINT64;
}

bool JsonView::is_number_unsigned() const {
    auto const kind = type();
    return kind == element_type::UINT64 ||
           (kind == element_type::INT64 && std::int64_t(m_element) >= 0);
}

template <>
std::string JsonView::get<std::string>() const {
    return std::string(text_view());
}

template <>
double JsonView::get<double>() const {
    switch (type()) {
        case element_type::INT64:
            return static_cast<double>(std::int64_t(m_element));
        case element_type::UINT64:
            return static_cast<double>(std::uint64_t(m_element));
        default:
            return double(m_element);
    }
}

template <>
long long JsonView::get<long long>() const {
    switch (type()) {
        case element_type::INT64:
            return std::int64_t(m_element);
        case element_type::UINT64:
            return static_cast<long long>(std::uint64_t(m_element));
        default:
            return static_cast<long long>(double(m_element));
    }
}

template <>
unsigned long long JsonView::get<unsigned long long>() const {
    switch (type()) {
        case element_type::INT64:
            return static_cast<unsigned long long>(std::int64_t(m_element));
        case element_type::UINT64:
            return std::uint64_t(m_element);
        default:
            return static_cast<unsigned long long>(double(m_element));
    }
}

template <>
unsigned JsonView::get<unsigned>() const {
    return static_cast<unsigned>(get<unsigned long long>());
}

template <>
bool JsonView::get<bool>() const {
    return bool(m_element);
}

JsonView::Found JsonView::find(std::string_view key) const {
    if (!is_object()) {
        return Found();
    }
    for (auto const field : simdjson::dom::object(m_element)) {
        // Compared in line: field names are short, and most differ in length
        // or in their first letter.
        if (field.key.size() == key.size() &&
            std::equal(key.begin(), key.end(), field.key.begin())) {
            return Found(JsonView(field.value));
        }
    }
    return Found();
}

bool JsonView::operator==(int number) const {
    return is_number() && get<double>() == number;
}

bool JsonView::operator==(char const* text) const {
    return is_string() && text_view() == text;
}

std::size_t JsonView::size() const {
    switch (type()) {
        case element_type::ARRAY:
            return simdjson::dom::array(m_element).size();
        case element_type::OBJECT:
            return simdjson::dom::object(m_element).size();
        case element_type::NULL_VALUE:
            return 0;
        default:
            return 1;
    }
}

JsonView::ArrayIterator JsonView::begin() const {
    simdjson::dom::array const array(m_element);
    return ArrayIterator(array.begin(), array.end());
}

std::string JsonView::dump() const {
    return simdjson::minify(m_element);
}

nlohmann::json JsonView::toJson() const {
    using json = nlohmann::json;
    switch (type()) {
        case element_type::OBJECT: {
            json result = json::object();
            auto& fields = result.get_ref<json::object_t&>();
            // Assigned in the document's order, so that of a repeated name
            // the last stays, as in nlohmann's reading.
            for (auto const field : simdjson::dom::object(m_element)) {
                fields.insert_or_assign(std::string(field.key), JsonView(field.value).toJson());
            }
            return result;
        }
        case element_type::ARRAY: {
            json result = json::array();
            auto& elements = result.get_ref<json::array_t&>();
            for (auto const element : simdjson::dom::array(m_element)) {
                elements.push_back(JsonView(element).toJson());
            }
            return result;
        }
        case element_type::STRING:
            return json(text_view());
        case element_type::INT64: {
            std::int64_t const number(m_element);
            // JsonDocument refuses -0, so a number from 0 up had no sign.
            return number >= 0 ? json(static_cast<std::uint64_t>(number)) : json(number);
        }
        case element_type::UINT64:
            return json(std::uint64_t(m_element));
        case element_type::DOUBLE:
            return json(double(m_element));
        case element_type::BOOL:
            return json(bool(m_element));
        case element_type::NULL_VALUE:
            break;
    }
    return json();
}

std::optional<JsonDocument> JsonDocument::parse(std::string const& text) {
    if (hasNegativeZero(text)) {
        return std::nullopt;
    }
    JsonDocument document;
    document.m_parser = std::make_unique<simdjson::dom::parser>();
    // Always copied into simdjson's zero-padded buffer: parsing the string in
    // place would read the uninitialised bytes past its end, up to its capacity.
    constexpr bool kCopy = true;
    if (document.m_parser->parse(text.data(), text.size(), kCopy).get(document.m_root) !=
        simdjson::SUCCESS) {
        return std::nullopt;
    }
    return document;
}

bool JsonDocument::hasRepeatedNames() const {
    return RepeatedNames().in(m_root);
}

}  // namespace tarsel::daemon
