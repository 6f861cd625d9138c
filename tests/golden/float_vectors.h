// Expected register words of the float encoder: the one place the tests of
// CdsFloatAccessor and of the linked libmodbus take them from.
//
// CdsFloatAccessor lays order 0 out with modbus_set_float_dcba() /
// modbus_get_float_dcba() and order 1 with the "badc" pair, so its words are
// whatever the linked libmodbus makes of them. The words below are literals,
// measured on the libmodbus these tests are built against (Debian 12's
// libmodbus 3.1.6-2.1+deb12u1, whose float helpers behave as the byte-wise
// ones of upstream 3.1.8 to 3.1.10) on a little-endian host (x86-64, and the
// card's 32-bit ARM). There the setters write the float's bytes in memory
// order and the getters read another layout, so a pair written back exactly
// as it was read does not decode to the same float.
//
// LibmodbusFloatLayout_test checks every vector against the linked library
// and, on a mismatch, names which known layout the library has instead.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace golden {

using Pair = std::array<std::uint16_t, 2>;

/* One float and its register pairs under the linked libmodbus. */
struct FloatVector {
    char const* name;    // test-name suffix
    std::uint32_t bits;  // IEEE-754 single-precision bit pattern
    Pair setDcba;        // modbus_set_float_dcba(): the encoder's order 0
    Pair setBadc;        // modbus_set_float_badc(): the encoder's order 1
    Pair getDcba;        // the pair modbus_get_float_dcba() decodes to `bits`
    Pair getBadc;        // the pair modbus_get_float_badc() decodes to `bits`
};

// clang-format off
inline constexpr FloatVector kFloatVectors[] = {
    //  name              bits         set dcba          set badc          get dcba          get badc
    {"TwelvePointFive",   0x41480000u, {0x0000, 0x4148}, {0x4148, 0x0000}, {0x0000, 0x4841}, {0x4841, 0x0000}},
    {"MinusOne",          0xBF800000u, {0x0000, 0xBF80}, {0xBF80, 0x0000}, {0x0000, 0x80BF}, {0x80BF, 0x0000}},
    {"Zero",              0x00000000u, {0x0000, 0x0000}, {0x0000, 0x0000}, {0x0000, 0x0000}, {0x0000, 0x0000}},
    {"OneThousandth",     0x3A83126Fu, {0x126F, 0x3A83}, {0x3A83, 0x126F}, {0x6F12, 0x833A}, {0x833A, 0x6F12}},
    {"SmallestDenormal",  0x00000001u, {0x0001, 0x0000}, {0x0000, 0x0001}, {0x0100, 0x0000}, {0x0000, 0x0100}},
    {"QuietNaN",          0x7FC00000u, {0x0000, 0x7FC0}, {0x7FC0, 0x0000}, {0x0000, 0xC07F}, {0xC07F, 0x0000}},
    {"QuietNaNPayload",   0x7FC12345u, {0x2345, 0x7FC1}, {0x7FC1, 0x2345}, {0x4523, 0xC17F}, {0xC17F, 0x4523}},
    {"OneHundredFifty",   0x43160000u, {0x0000, 0x4316}, {0x4316, 0x0000}, {0x0000, 0x1643}, {0x1643, 0x0000}},
    {"Fifteen",           0x41700000u, {0x0000, 0x4170}, {0x4170, 0x0000}, {0x0000, 0x7041}, {0x7041, 0x0000}},
    {"OnePointTwoFive",   0x3FA00000u, {0x0000, 0x3FA0}, {0x3FA0, 0x0000}, {0x0000, 0xA03F}, {0xA03F, 0x0000}},
};
// clang-format on

/* Index of a vector in kFloatVectors, for the encoder tests. */
enum FloatVectorIndex : std::size_t {
    kTwelvePointFive = 0,
    kMinusOne,
    kZero,
    kOneThousandth,
    kSmallestDenormal,
    kQuietNaN,
    kQuietNaNPayload,
    kOneHundredFifty,
    kFifteen,
    kOnePointTwoFive,
};

inline constexpr FloatVector const& floatVector(FloatVectorIndex index) {
    return kFloatVectors[index];
}

// What the linked getters make of a pair the setters wrote for 12.5 (bits
// 0x41480000): the bytes of each register come back exchanged, 197632.0.
inline constexpr std::uint32_t kTwelvePointFiveWrittenBackDcbaBits = 0x48410000u;
inline constexpr std::uint32_t kTwelvePointFiveWrittenBackBadcBits = 0x48410000u;

// The two pairs (order 0 get) below decode, under the linked library, to the
// bits given: a single register, and a register pair taken from a longer write.
inline constexpr Pair kSingleRegister1234 = {0x1234, 0x0000};
inline constexpr std::uint32_t kSingleRegister1234DcbaBits = 0x00003412u;
inline constexpr std::uint32_t kSingleRegister1234BadcBits = 0x34120000u;

/* The layout of 12.5 that each family of libmodbus releases gives on a
 * little-endian host, from the sources of each release: used to name what a
 * differently built library does when the pinned vectors fail. */
struct KnownLayout {
    char const* releases;
    Pair setDcba;
    Pair setBadc;
    Pair getDcbaOf12_5;
    Pair getBadcOf12_5;
};

// clang-format off
inline constexpr KnownLayout kKnownLayouts[] = {
    {"3.1.6/3.1.7 as released (setters and getters invert each other)",
        {0x4148, 0x0000}, {0x0000, 0x4148}, {0x4148, 0x0000}, {0x0000, 0x4148}},
    {"3.1.8 to 3.1.10, and Debian 12's 3.1.6 package (getters do not invert the setters)",
        {0x0000, 0x4148}, {0x4148, 0x0000}, {0x0000, 0x4841}, {0x4841, 0x0000}},
    {"3.1.11 and later (setters and getters invert each other)",
        {0x0000, 0x4841}, {0x4841, 0x0000}, {0x0000, 0x4841}, {0x4841, 0x0000}},
};
// clang-format on

/* "{0x0000, 0x4148}": a pair as test output shows it. */
inline std::string hex(Pair const& pair) {
    char text[32];
    std::snprintf(text, sizeof text, "{0x%04X, 0x%04X}", static_cast<unsigned>(pair[0]),
                  static_cast<unsigned>(pair[1]));
    return text;
}

/* "0x41480000": a bit pattern as test output shows it. */
inline std::string hex(std::uint32_t bits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(bits));
    return text;
}

}  // namespace golden
