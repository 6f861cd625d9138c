// Texts in registers: two characters a register, and decimal numbers held as
// text in one register. Pure conversion code: nothing here touches the data
// store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace modbus::detail {

/* Character i into register i / 2, even characters in the high byte, bytes
 * taken unsigned. An odd length leaves the low byte of the last register 0.
 * No terminator is added and nothing is padded or cut: fitting the result
 * into the registers a map entry reserves is the daemon's business. */
inline std::vector<std::uint16_t> packTwoCharactersPerRegister(std::string const& text) {
    std::vector<std::uint16_t> registers;
    registers.reserve((text.size() + 1) / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        auto const high = static_cast<std::uint16_t>(static_cast<unsigned char>(text[i]));
        std::uint16_t const low =
            i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : std::uint16_t{0};
        registers.push_back(static_cast<std::uint16_t>((high << 8) | low));
    }
    return registers;
}

/* The text a register write carries: the registers' bytes, high byte first,
 * up to (not including) the first zero byte. The scratch buffer holds two
 * bytes a register plus a terminating zero, so the text always ends inside
 * it; a Modbus client pads a short text with zeros and this drops them. */
inline std::string unpackTextUpToFirstZero(std::vector<std::uint16_t> const& registers) {
    std::vector<char> scratch(registers.size() * 2 + 1, '\0');
    for (std::size_t i = 0; i < registers.size(); ++i) {
        scratch[2 * i] = static_cast<char>(registers[i] >> 8);
        scratch[2 * i + 1] = static_cast<char>(registers[i] & 0xFFu);
    }
    return std::string(scratch.data());
}

/* The register of a decimal number held as text: std::stoul in base 10
 * (leading blanks and a sign accepted, parsing stops at the first non-digit),
 * low 16 bits kept. "-1" parses to the largest unsigned long and so gives
 * 0xFFFF. A text without digits throws std::invalid_argument, a number beyond
 * unsigned long std::out_of_range; both are left to the caller. */
inline std::uint16_t parseDecimalToRegister(std::string const& text) {
    unsigned long const parsed = std::stoul(text, nullptr, 10);
    return static_cast<std::uint16_t>(parsed & 0xFFFFul);
}

}  // namespace modbus::detail
