// A read-only value of a document parsed by simdjson, with the part of
// nlohmann::json's interface that the map's checks use, so that one checking
// code reads both: simdjson for the quick reading of a large map, nlohmann
// for the messages of one that has problems (see parseRegisterMap).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <simdjson.h>
#include <nlohmann/json.hpp>

namespace tarsel::daemon {

class JsonView {
  public:
    /* What end() returns: the end of an array's elements, or "no such
     * field" for find(). */
    struct End {};

    class Found;
    class ArrayIterator;
    class Item;
    class Items;

    JsonView() = default;
    explicit JsonView(simdjson::dom::element element) : m_element(element) {}

    bool is_object() const { return type() == simdjson::dom::element_type::OBJECT; }
    bool is_array() const { return type() == simdjson::dom::element_type::ARRAY; }
    bool is_string() const { return type() == simdjson::dom::element_type::STRING; }
    bool is_boolean() const { return type() == simdjson::dom::element_type::BOOL; }
    bool is_number_float() const { return type() == simdjson::dom::element_type::DOUBLE; }
    bool is_number_integer() const;
    bool is_number_unsigned() const;
    bool is_number() const { return is_number_integer() || is_number_float(); }

    /* The value converted as nlohmann converts it: numbers to any number
     * type, strings to std::string, booleans to bool. */
    template <class T>
    T get() const;

    /* A field of an object: the first of its name, where nlohmann's reading
     * keeps the last. The map is read this way only from a document without
     * repeated names (JsonDocument::hasRepeatedNames), where the two agree. */
    Found find(std::string_view key) const;
    bool contains(std::string_view key) const;
    /* The field, which must exist (as for a const nlohmann::json). There is
     * no element by position: that walks a simdjson array from its start, so
     * arrays are read with begin()/end(). */
    JsonView operator[](std::string_view key) const;
    std::size_t size() const;
    bool empty() const { return size() == 0; }
    ArrayIterator begin() const;
    End end() const { return End{}; }
    Items items() const;

    /* Compared as nlohmann compares: a number by its value whatever its
     * type (0.0 == 0), a string by its text. */
    bool operator==(int number) const;
    bool operator==(char const* text) const;

    /* The value as compact JSON text. */
    std::string dump() const;

    /* The value as the nlohmann::json that nlohmann's own parse of the text
     * gives: a non-negative integer unsigned, a negative one signed. */
    nlohmann::json toJson() const;

  private:
    simdjson::dom::element_type type() const { return m_element.type(); }
    std::string_view text_view() const { return std::string_view(m_element); }

    simdjson::dom::element m_element;
};

/* The result of find(): a field's value, or equal to end(). */
class JsonView::Found {
  public:
    Found() = default;
    explicit Found(JsonView value) : m_value(value) {}
    bool operator==(End) const { return !m_value; }
    bool operator!=(End) const { return m_value.has_value(); }
    JsonView const& operator*() const { return *m_value; }
    JsonView const* operator->() const { return &*m_value; }

  private:
    std::optional<JsonView> m_value;
};

/* An array's elements, in order. */
class JsonView::ArrayIterator {
  public:
    ArrayIterator(simdjson::dom::array::iterator at, simdjson::dom::array::iterator last)
        : m_at(at), m_last(last) {}
    JsonView operator*() const { return JsonView(*m_at); }
    ArrayIterator& operator++() {
        ++m_at;
        return *this;
    }
    bool operator!=(End) const { return m_at != m_last; }

  private:
    simdjson::dom::array::iterator m_at;
    simdjson::dom::array::iterator m_last;
};

/* One field of an object, as nlohmann's items() gives it. */
class JsonView::Item {
  public:
    explicit Item(simdjson::dom::key_value_pair field) : m_field(field) {}
    std::string_view key() const { return m_field.key; }
    JsonView value() const { return JsonView(m_field.value); }

  private:
    simdjson::dom::key_value_pair m_field;
};

/* An object's fields in the document's order. */
class JsonView::Items {
  public:
    class Iterator {
      public:
        explicit Iterator(simdjson::dom::object::iterator at) : m_at(at) {}
        Item operator*() const { return Item(*m_at); }
        Iterator& operator++() {
            ++m_at;
            return *this;
        }
        bool operator!=(Iterator const& other) const { return m_at != other.m_at; }

      private:
        simdjson::dom::object::iterator m_at;
    };
    explicit Items(simdjson::dom::object object) : m_object(object) {}
    Iterator begin() const { return Iterator(m_object.begin()); }
    Iterator end() const { return Iterator(m_object.end()); }

  private:
    simdjson::dom::object m_object;
};

inline bool JsonView::contains(std::string_view key) const {
    return find(key) != End{};
}

inline JsonView::Items JsonView::items() const {
    return Items(simdjson::dom::object(m_element));
}

inline JsonView JsonView::operator[](std::string_view key) const {
    return *find(key);
}

template <>
std::string JsonView::get<std::string>() const;
template <>
double JsonView::get<double>() const;
template <>
long long JsonView::get<long long>() const;
template <>
unsigned long long JsonView::get<unsigned long long>() const;
template <>
unsigned JsonView::get<unsigned>() const;
template <>
bool JsonView::get<bool>() const;

/* A parsed document whose values are read through JsonView. */
class JsonDocument {
  public:
    /* Parses text; nothing when simdjson finds it invalid or when it has
     * the number -0 (an integer that is not unsigned to nlohmann, which
     * simdjson cannot tell from 0). */
    static std::optional<JsonDocument> parse(std::string const& text);

    /* Whether an object, at any depth, names a field twice: nlohmann keeps
     * the last, JsonView::find() the first and items() both. */
    bool hasRepeatedNames() const;

    JsonView root() const { return JsonView(m_root); }

  private:
    JsonDocument() = default;

    // The parser owns the parsed document: root() reads into it.
    std::unique_ptr<simdjson::dom::parser> m_parser;
    simdjson::dom::element m_root;
};

}  // namespace tarsel::daemon
