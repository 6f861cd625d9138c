// Expected registers of the daemon's 32-bit encoders in the four wire layouts:
// the one place the layout tests take them from. Each row is one value with
// its big-endian bit pattern (bytes A B C D, A the most significant) and the
// two registers each layout gives it: ABCD is register 0 = AB, register 1 = CD;
// CDAB exchanges the registers; BADC exchanges the bytes inside each register;
// DCBA does both. The words are literals, computed from the bit
// patterns with Python's struct module, independently of the code under test.
#pragma once

#include <array>
#include <cstdint>
#include <limits>

namespace golden {

using WirePair = std::array<std::uint16_t, 2>;

template <typename T>
struct Wire32Vector {
    char const* name;  // test-name suffix
    T value;
    std::uint32_t bits;
    WirePair abcd;
    WirePair cdab;
    WirePair badc;
    WirePair dcba;
};

inline constexpr float kQuietNaN = std::numeric_limits<float>::quiet_NaN();  // 0x7FC00000
inline constexpr std::int32_t kInt32Lowest = std::numeric_limits<std::int32_t>::min();

// clang-format off
inline constexpr Wire32Vector<float> kFloat32Vectors[] = {
    {"TwelvePointFive", 12.5f, 0x41480000u, {0x4148, 0x0000}, {0x0000, 0x4148}, {0x4841, 0x0000}, {0x0000, 0x4841}},
    {"MinusOne", -1.0f, 0xBF800000u, {0xBF80, 0x0000}, {0x0000, 0xBF80}, {0x80BF, 0x0000}, {0x0000, 0x80BF}},
    {"VoltageReading", 230.1f, 0x4366199Au, {0x4366, 0x199A}, {0x199A, 0x4366}, {0x6643, 0x9A19}, {0x9A19, 0x6643}},
    {"OneThousandth", 0.001f, 0x3A83126Fu, {0x3A83, 0x126F}, {0x126F, 0x3A83}, {0x833A, 0x6F12}, {0x6F12, 0x833A}},
    {"SmallestDenormal", 1.4e-45f, 0x00000001u, {0x0000, 0x0001}, {0x0001, 0x0000}, {0x0000, 0x0100}, {0x0100, 0x0000}},
    {"QuietNaN", kQuietNaN, 0x7FC00000u, {0x7FC0, 0x0000}, {0x0000, 0x7FC0}, {0xC07F, 0x0000}, {0x0000, 0xC07F}},
};

inline constexpr Wire32Vector<std::int32_t> kInt32Vectors[] = {
    {"MinusOneHundredTwenty", -120, 0xFFFFFF88u, {0xFFFF, 0xFF88}, {0xFF88, 0xFFFF}, {0xFFFF, 0x88FF}, {0x88FF, 0xFFFF}},
    {"OneHour", 3600, 0x00000E10u, {0x0000, 0x0E10}, {0x0E10, 0x0000}, {0x0000, 0x100E}, {0x100E, 0x0000}},
    {"Lowest", kInt32Lowest, 0x80000000u, {0x8000, 0x0000}, {0x0000, 0x8000}, {0x0080, 0x0000}, {0x0000, 0x0080}},
    {"Pattern", 0x12345678, 0x12345678u, {0x1234, 0x5678}, {0x5678, 0x1234}, {0x3412, 0x7856}, {0x7856, 0x3412}},
};

inline constexpr Wire32Vector<std::uint32_t> kUint32Vectors[] = {
    {"OneDay", 86400u, 0x00015180u, {0x0001, 0x5180}, {0x5180, 0x0001}, {0x0100, 0x8051}, {0x8051, 0x0100}},
    {"Highest", 0xFFFFFFFFu, 0xFFFFFFFFu, {0xFFFF, 0xFFFF}, {0xFFFF, 0xFFFF}, {0xFFFF, 0xFFFF}, {0xFFFF, 0xFFFF}},
    {"Pattern", 0x12345678u, 0x12345678u, {0x1234, 0x5678}, {0x5678, 0x1234}, {0x3412, 0x7856}, {0x7856, 0x3412}},
    {"EnergyCounter", 2000500u, 0x001E8674u, {0x001E, 0x8674}, {0x8674, 0x001E}, {0x1E00, 0x7486}, {0x7486, 0x1E00}},
};
// clang-format on

}  // namespace golden
