#include "WireLayout.h"

#include <cstring>

namespace tarsel::daemon {

namespace {

constexpr char const* kNames[] = {"ABCD", "CDAB", "BADC", "DCBA"};
constexpr WireLayout kLayouts[] = {WireLayout::ABCD, WireLayout::CDAB, WireLayout::BADC,
                                   WireLayout::DCBA};

/* The bytes of each register exchanged. */
std::uint16_t swapBytes(std::uint16_t word) {
    return static_cast<std::uint16_t>(((word & 0x00FFu) << 8) | (word >> 8));
}

}  // namespace

char const* wireLayoutName(WireLayout layout) {
    return kNames[static_cast<int>(layout)];
}

std::optional<WireLayout> wireLayoutFromName(std::string const& name) {
    for (WireLayout const layout : kLayouts) {
        if (name == wireLayoutName(layout)) {
            return layout;
        }
    }
    return std::nullopt;
}

std::vector<std::string> wireLayoutNames() {
    return {std::begin(kNames), std::end(kNames)};
}

WordPair wordsOfBits(std::uint32_t bits, WireLayout layout) {
    auto const high = static_cast<std::uint16_t>(bits >> 16);     // AB
    auto const low = static_cast<std::uint16_t>(bits & 0xFFFFu);  // CD
    switch (layout) {
        case WireLayout::ABCD:
            return {high, low};
        case WireLayout::CDAB:
            return {low, high};
        case WireLayout::BADC:
            return {swapBytes(high), swapBytes(low)};
        case WireLayout::DCBA:
            return {swapBytes(low), swapBytes(high)};
    }
    return {high, low};
}

std::uint32_t bitsOfWords(WordPair words, WireLayout layout) {
    // Each layout is its own inverse up to which word holds AB: rebuild AB
    // and CD, then join them.
    std::uint16_t high = words[0];
    std::uint16_t low = words[1];
    switch (layout) {
        case WireLayout::ABCD:
            break;
        case WireLayout::CDAB:
            high = words[1];
            low = words[0];
            break;
        case WireLayout::BADC:
            high = swapBytes(words[0]);
            low = swapBytes(words[1]);
            break;
        case WireLayout::DCBA:
            high = swapBytes(words[1]);
            low = swapBytes(words[0]);
            break;
    }
    return (std::uint32_t{high} << 16) | low;
}

// A float and a uint32_t have the same width and byte order on every host
// this builds for; copying between the two (never into the register array)
// is the portable way to reach the bit pattern in C++17.
std::uint32_t bitsOfFloat(float value) {
    static_assert(sizeof(float) == sizeof(std::uint32_t), "IEEE-754 single precision");
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

float floatOfBits(std::uint32_t bits) {
    float value = 0.0f;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

std::int32_t int32OfWords(WordPair words, WireLayout layout) {
    std::uint32_t const bits = bitsOfWords(words, layout);
    // Two's complement by arithmetic, not by a cast of an out-of-range value.
    return bits <= 0x7FFFFFFFu ? static_cast<std::int32_t>(bits)
                               : -static_cast<std::int32_t>(~bits) - 1;
}

}  // namespace tarsel::daemon
