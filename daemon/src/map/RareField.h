// Fields that most entries of a map leave out (a unit, a composite's function,
// allow lists, a device name, a sub-device path): held on the heap only when set, so that each
// costs an entry one pointer instead of its full size. A map of thousands of
// entries keeps every entry's definition for as long as it is served.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarsel::daemon {

/* A text that is usually empty; reads as std::string. Empty texts take no
 * heap memory. */
class RareText {
  public:
    RareText() = default;
    RareText(std::string text) { assign(std::move(text)); }
    RareText(char const* text) : RareText(std::string(text)) {}
    RareText(RareText const& other) : RareText(other.str()) {}
    RareText(RareText&&) noexcept = default;
    RareText& operator=(RareText const& other) {
        assign(other.str());
        return *this;
    }
    RareText& operator=(RareText&&) noexcept = default;
    ~RareText() = default;

    std::string const& str() const { return m_text ? *m_text : none(); }
    operator std::string const&() const { return str(); }
    bool empty() const { return !m_text; }
    std::size_t size() const { return str().size(); }
    char const* c_str() const { return str().c_str(); }
    void clear() { m_text.reset(); }

    friend bool operator==(RareText const& a, RareText const& b) { return a.str() == b.str(); }
    friend bool operator==(RareText const& a, std::string const& b) { return a.str() == b; }
    friend bool operator==(std::string const& a, RareText const& b) { return a == b.str(); }
    friend bool operator==(RareText const& a, char const* b) { return a.str() == b; }
    friend bool operator==(char const* a, RareText const& b) { return a == b.str(); }
    template <typename Other>
    friend bool operator!=(RareText const& a, Other const& b) {
        return !(a == b);
    }

    friend std::string operator+(std::string const& a, RareText const& b) { return a + b.str(); }
    friend std::string operator+(RareText const& a, std::string const& b) { return a.str() + b; }
    friend std::string operator+(char const* a, RareText const& b) { return a + b.str(); }
    friend std::string operator+(RareText const& a, char const* b) { return a.str() + b; }
    friend std::ostream& operator<<(std::ostream& out, RareText const& text) {
        return out << text.str();
    }

  private:
    static std::string const& none() {
        static std::string const text;
        return text;
    }
    void assign(std::string text) {
        m_text = text.empty() ? nullptr : std::make_unique<std::string const>(std::move(text));
    }

    std::unique_ptr<std::string const> m_text;
};

/* An optional value that is usually absent; reads as std::optional does
 * (test, *, ->). Absent values take no heap memory. */
template <typename T>
class RareOptional {
  public:
    RareOptional() = default;
    RareOptional(std::nullopt_t) {}
    RareOptional(T value) : m_value(std::make_unique<T>(std::move(value))) {}
    RareOptional(std::optional<T> value) {
        if (value) {
            m_value = std::make_unique<T>(std::move(*value));
        }
    }
    RareOptional(RareOptional const& other)
        : m_value(other.m_value ? std::make_unique<T>(*other.m_value) : nullptr) {}
    RareOptional(RareOptional&&) noexcept = default;
    RareOptional& operator=(RareOptional const& other) {
        m_value = other.m_value ? std::make_unique<T>(*other.m_value) : nullptr;
        return *this;
    }
    RareOptional& operator=(RareOptional&&) noexcept = default;
    ~RareOptional() = default;

    bool has_value() const { return m_value != nullptr; }
    explicit operator bool() const { return has_value(); }
    T const& operator*() const { return *m_value; }
    T& operator*() { return *m_value; }
    T const* operator->() const { return m_value.get(); }
    T* operator->() { return m_value.get(); }
    /* Throws std::bad_optional_access when absent, as std::optional does. */
    T const& value() const {
        if (!m_value) {
            throw std::bad_optional_access();
        }
        return *m_value;
    }
    void reset() { m_value.reset(); }

    friend bool operator==(RareOptional const& a, std::nullopt_t) { return !a; }
    friend bool operator!=(RareOptional const& a, std::nullopt_t) { return bool(a); }

  private:
    std::unique_ptr<T> m_value;
};

/* A list that is usually empty (a device's path of sub-device indexes);
 * reads as the std::vector it holds. An empty list takes no heap memory and
 * one pointer in place of a vector's three. */
template <typename T>
class RareList {
  public:
    RareList() = default;
    RareList(std::initializer_list<T> items) { assign(std::vector<T>(items)); }
    RareList(RareList const& other) { assign(other.vector()); }
    RareList(RareList&&) noexcept = default;
    RareList& operator=(RareList const& other) {
        assign(other.vector());
        return *this;
    }
    RareList& operator=(RareList&&) noexcept = default;
    ~RareList() = default;

    std::vector<T> const& vector() const { return m_items ? *m_items : none(); }
    operator std::vector<T> const&() const { return vector(); }
    bool empty() const { return !m_items; }
    std::size_t size() const { return vector().size(); }
    T const& operator[](std::size_t index) const { return vector()[index]; }
    typename std::vector<T>::const_iterator begin() const { return vector().begin(); }
    typename std::vector<T>::const_iterator end() const { return vector().end(); }

    void push_back(T item) {
        if (!m_items) {
            m_items = std::make_unique<std::vector<T>>();
        }
        m_items->push_back(std::move(item));
    }

    friend bool operator==(RareList const& a, std::vector<T> const& b) { return a.vector() == b; }
    friend bool operator==(std::vector<T> const& a, RareList const& b) { return a == b.vector(); }
    friend bool operator==(RareList const& a, RareList const& b) {
        return a.vector() == b.vector();
    }
    template <typename Other>
    friend bool operator!=(RareList const& a, Other const& b) {
        return !(a == b);
    }
    friend std::ostream& operator<<(std::ostream& out, RareList const& list) {
        char const* separator = "";
        out << '[';
        for (T const& item : list) {
            out << separator << item;
            separator = ", ";
        }
        return out << ']';
    }

  private:
    static std::vector<T> const& none() {
        static std::vector<T> const items;
        return items;
    }
    void assign(std::vector<T> items) {
        m_items = items.empty() ? nullptr : std::make_unique<std::vector<T>>(std::move(items));
    }

    std::unique_ptr<std::vector<T>> m_items;
};

/* A list that almost always holds one element (an entry's data accessors:
 * more than one only for the composites): the first is kept in place, the
 * others on the heap only when there are any. Its elements are pointers,
 * never null: a null first one says that the list is empty, so the list
 * keeps no count of its own (two pointers in all). */
template <typename T>
class MostlyOne {
    static_assert(std::is_pointer_v<T>, "a list of pointers, a null one being no element");

  public:
    MostlyOne() = default;
    MostlyOne(std::initializer_list<T> items) { assign(items.begin(), items.end()); }
    MostlyOne& operator=(std::initializer_list<T> items) {
        assign(items.begin(), items.end());
        return *this;
    }

    /* Throws std::invalid_argument for a null element, keeping the list as
     * it was. */
    template <typename Iterator>
    void assign(Iterator first, Iterator last) {
        T head = nullptr;
        std::vector<T> more;
        for (; first != last; ++first) {
            T const item = *first;
            if (item == nullptr) {
                throw std::invalid_argument("MostlyOne holds no null element");
            }
            if (head == nullptr) {
                head = item;
            } else {
                more.push_back(item);
            }
        }
        m_more.reset();
        if (!more.empty()) {
            m_more = std::move(more);
        }
        m_first = head;
    }

    std::size_t size() const { return m_first == nullptr ? 0 : 1 + (m_more ? m_more->size() : 0); }
    bool empty() const { return m_first == nullptr; }
    T const& operator[](std::size_t index) const {
        return index == 0 ? m_first : (*m_more)[index - 1];
    }

  private:
    T m_first = nullptr;
    RareOptional<std::vector<T>> m_more;
};

}  // namespace tarsel::daemon
