// The words an entry's encoder last pushed, as the served map keeps them.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <vector>

namespace tarsel::daemon {

/*
 * A short list of words: up to kInPlace of them are kept in the object, a
 * longer list (a string's registers) on the heap. A map of thousands of
 * entries keeps one list each, and nearly every entry is one or two
 * registers: a vector held each one's words in a heap block of its own (two
 * bytes of words taking the allocator's smallest block). Two thirds of a
 * vector's size, so that a served entry stays within its allocator class.
 */
class ImageWords {
  public:
    static constexpr std::size_t kInPlace = 3;

    ImageWords() = default;
    ImageWords(std::vector<std::uint16_t> const& words) { assign(words); }
    ImageWords(ImageWords const& other) { assign(other.begin(), other.end()); }
    ImageWords& operator=(ImageWords const& other) {
        if (this != &other) {
            assign(other.begin(), other.end());
        }
        return *this;
    }
    ImageWords(ImageWords&& other) noexcept { take(other); }
    ImageWords& operator=(ImageWords&& other) noexcept {
        if (this != &other) {
            take(other);
        }
        return *this;
    }
    ~ImageWords() = default;

    ImageWords& operator=(std::vector<std::uint16_t> const& words) {
        assign(words);
        return *this;
    }

    void assign(std::vector<std::uint16_t> const& words) {
        assign(words.data(), words.data() + words.size());
    }

    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::uint16_t const* begin() const { return m_heap ? m_heap.get() : m_inPlace.data(); }
    std::uint16_t const* end() const { return begin() + m_size; }
    std::uint16_t operator[](std::size_t index) const { return begin()[index]; }
    void clear() {
        m_heap.reset();
        m_size = 0;
    }

    /* A copy, for what wants a vector (logs, the description). */
    std::vector<std::uint16_t> vector() const { return {begin(), end()}; }

    friend bool operator==(ImageWords const& a, std::vector<std::uint16_t> const& b) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }
    friend bool operator==(std::vector<std::uint16_t> const& a, ImageWords const& b) {
        return b == a;
    }
    friend bool operator==(ImageWords const& a, ImageWords const& b) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }
    template <typename Other>
    friend bool operator!=(ImageWords const& a, Other const& b) {
        return !(a == b);
    }
    friend bool operator!=(std::vector<std::uint16_t> const& a, ImageWords const& b) {
        return !(b == a);
    }
    friend std::ostream& operator<<(std::ostream& out, ImageWords const& words) {
        char const* separator = "";
        out << '{';
        for (std::uint16_t const word : words) {
            out << separator << word;
            separator = ", ";
        }
        return out << '}';
    }

  private:
    // Entries are at most 65,535 words: a map addresses no more.
    void assign(std::uint16_t const* first, std::uint16_t const* last) {
        auto const count = static_cast<std::size_t>(last - first);
        std::unique_ptr<std::uint16_t[]> heap;
        if (count > kInPlace) {
            heap = std::make_unique<std::uint16_t[]>(count);
            std::copy(first, last, heap.get());
        } else {
            std::copy(first, last, m_inPlace.begin());
        }
        m_heap = std::move(heap);
        m_size = static_cast<std::uint16_t>(count);
    }

    void take(ImageWords& other) noexcept {
        m_heap = std::move(other.m_heap);
        m_inPlace = other.m_inPlace;
        m_size = other.m_size;
        other.m_size = 0;
    }

    std::unique_ptr<std::uint16_t[]> m_heap;  // only past kInPlace words
    std::array<std::uint16_t, kInPlace> m_inPlace{};
    std::uint16_t m_size = 0;
};

}  // namespace tarsel::daemon
