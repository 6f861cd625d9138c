// How a 32-bit value lies in two registers, named by where the value's
// big-endian bytes A B C D (A the most significant) end up on the wire:
// ABCD is register 0 = AB, register 1 = CD. Pure conversions on 16-bit words
// by shifts and masks, so every host gives the same registers, whatever
// libmodbus is linked.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarsel::daemon {

// A byte, as the map model's other enums: a served map keeps one per entry.
enum class WireLayout : std::uint8_t { ABCD, CDAB, BADC, DCBA };

using WordPair = std::array<std::uint16_t, 2>;

/* "ABCD", ... */
char const* wireLayoutName(WireLayout layout);
std::optional<WireLayout> wireLayoutFromName(std::string const& name);
std::vector<std::string> wireLayoutNames();

/* The two registers of a 32-bit pattern in the layout. */
WordPair wordsOfBits(std::uint32_t bits, WireLayout layout);
/* The 32-bit pattern two registers in the layout carry. */
std::uint32_t bitsOfWords(WordPair words, WireLayout layout);

/* The IEEE-754 single-precision pattern of a float, and back. */
std::uint32_t bitsOfFloat(float value);
float floatOfBits(std::uint32_t bits);

inline WordPair wordsOfFloat(float value, WireLayout layout) {
    return wordsOfBits(bitsOfFloat(value), layout);
}
inline float floatOfWords(WordPair words, WireLayout layout) {
    return floatOfBits(bitsOfWords(words, layout));
}
inline WordPair wordsOfInt32(std::int32_t value, WireLayout layout) {
    return wordsOfBits(static_cast<std::uint32_t>(value), layout);
}
std::int32_t int32OfWords(WordPair words, WireLayout layout);
inline WordPair wordsOfUint32(std::uint32_t value, WireLayout layout) {
    return wordsOfBits(value, layout);
}
inline std::uint32_t uint32OfWords(WordPair words, WireLayout layout) {
    return bitsOfWords(words, layout);
}

}  // namespace tarsel::daemon
