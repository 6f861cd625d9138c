// Expected registers and texts of the scaled one-register and string
// encoders: the one place their tests take literal words from. Each row was
// worked out by hand from the encoder's rule (noted per table), not taken
// from the code under test.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace golden {

inline constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kInf = std::numeric_limits<float>::infinity();
inline constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();
inline constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
inline constexpr std::uint32_t kUint32Max = std::numeric_limits<std::uint32_t>::max();

/* CdsFloatToOneRegisterAccessor reads. y = value * multiplier + offset (float);
 * register = low 16 bits of the saturated uint32 of roundf(|y|); text = the
 * low 16 bits of the saturated uint32 truncation of y, in decimal. */
struct FloatReadVector {
    char const* name;
    float multiplier;
    float offset;
    float value;
    std::uint16_t reg;
    char const* text;
};

// clang-format off
inline constexpr FloatReadVector kFloatReads[] = {
    // name                        mult       offset         value          reg     text
    {"Zero",                        1.0f,      0.0f,          0.0f,          0,      "0"},
    {"HalfRoundsUp",                1.0f,      0.0f,          0.5f,          1,      "0"},
    {"OneAndAHalf",                 1.0f,      0.0f,          1.5f,          2,      "1"},
    {"TwoAndAHalfAwayFromZero",     1.0f,      0.0f,          2.5f,          3,      "2"},
    {"MinusHalf",                   1.0f,      0.0f,         -0.5f,          1,      "0"},
    {"MinusTwoAndAHalf",            1.0f,      0.0f,         -2.5f,          3,      "0"},
    {"TwelvePointSeven",            1.0f,      0.0f,         12.7f,         13,      "12"},
    {"MinusThreePointSix",          1.0f,      0.0f,         -3.6f,          4,      "0"},
    {"Int16Max",                    1.0f,      0.0f,      32767.0f,     0x7FFF,      "32767"},
    {"Int16MaxAndAHalf",            1.0f,      0.0f,      32767.5f,     0x8000,      "32767"},
    {"Int16MaxPlusOne",             1.0f,      0.0f,      32768.0f,     0x8000,      "32768"},
    {"Uint16Max",                   1.0f,      0.0f,      65535.0f,     0xFFFF,      "65535"},
    {"Uint16MaxAndAHalfWraps",      1.0f,      0.0f,      65535.5f,     0x0000,      "65535"},
    {"Uint16MaxPlusOneWraps",       1.0f,      0.0f,      65536.0f,     0x0000,      "0"},
    {"SeventyThousandWraps",        1.0f,      0.0f,      70000.0f,       4464,      "4464"},
    {"TwoToThe31",                  1.0f,      0.0f, 2147483648.0f,     0x0000,      "0"},
    {"LargestFloatBelowTwoTo32",    1.0f,      0.0f, 4294967040.0f,     0xFF00,      "65280"},
    {"Uint32MaxSaturates",          1.0f,      0.0f, 4294967295.0f,     0xFFFF,      "65535"},
    {"HugeSaturates",               1.0f,      0.0f,         1e10f,     0xFFFF,      "65535"},
    {"MinusHugeMagnitudeSaturates", 1.0f,      0.0f,        -1e10f,     0xFFFF,      "0"},
    {"NaNIsZero",                   1.0f,      0.0f,          kNaN,          0,      "0"},
    {"PlusInfinitySaturates",       1.0f,      0.0f,          kInf,     0xFFFF,      "65535"},
    {"MinusInfinity",               1.0f,      0.0f,         -kInf,     0xFFFF,      "0"},
    {"TimesTenRoundsHalfUp",       10.0f,      0.0f,         1.25f,         13,      "12"},
    {"TimesTenNegative",           10.0f,      0.0f,        -1.25f,         13,      "0"},
    {"TimesTenWraps",              10.0f,      0.0f,       7000.0f,       4464,      "4464"},
    {"ZeroMultiplier",              0.0f,      0.0f,        123.0f,          0,      "0"},
    {"ZeroMultiplierTimesInfinity", 0.0f,      0.0f,          kInf,          0,      "0"},
    {"OffsetOnly",                  1.0f,      0.5f,          0.0f,          1,      "0"},
    {"TenthMinusForty",             0.1f,    -40.0f,        690.0f,         29,      "29"},
    {"NegativeAfterOffset",         2.0f,   -100.0f,         10.0f,         80,      "0"},
    // 4097 * 4097 = 16785409 rounds to the float 16785408 before the offset
    // is added; a fused multiply-add would leave 1.
    {"ProductRoundedBeforeOffset", 4097.0f, -16785408.0f,   4097.0f,          0,      "0"},
};
// clang-format on

/* CdsFloatToOneRegisterAccessor writes: (register - offset) * (1 / multiplier)
 * in float, the reciprocal first. `bits` is the IEEE-754 pattern stored;
 * `registers` empty means an empty write. */
struct FloatWriteVector {
    char const* name;
    float multiplier;
    float offset;
    std::vector<std::uint16_t> registers;
    std::uint32_t bits;
};

inline std::vector<FloatWriteVector> const& floatWrites() {
    // clang-format off
    static std::vector<FloatWriteVector> const vectors = {
        {"EmptyWriteStoresZero",      1.0f,   0.0f, {},             0x00000000u},  // 0.0
        {"OneToOne",                  1.0f,   0.0f, {12},           0x41400000u},  // 12.0
        {"Uint16Max",                 1.0f,   0.0f, {0xFFFF},       0x477FFF00u},  // 65535.0
        {"OnlyFirstRegisterCounts",   1.0f,   0.0f, {7, 9, 11},     0x40E00000u},  // 7.0
        // 1 / 0.1f is 10.0f exactly in float, so (650 + 40) * 10 = 6900.
        {"TenthMinusForty",           0.1f, -40.0f, {650},          0x45D7A000u},  // 6900.0
        // 5 * (1/3f) rounds to 1.66666675f; 5 / 3f would give 1.66666663f.
        {"ReciprocalFirst",           3.0f,   0.0f, {5},            0x3FD55556u},
        {"ZeroMultiplierInfinity",    0.0f,   0.0f, {5},            0x7F800000u},  // +inf
        {"NegativeMultiplier",       -2.0f,   0.0f, {8},            0xC0800000u},  // -4.0
    };
    // clang-format on
    return vectors;
}

/* CdsInt32ToOneRegisterAccessor reads. product = value * multiplier in double,
 * saturated and truncated to int32; register = its low 16 bits (two's
 * complement); text = the full product. */
struct Int32ReadVector {
    char const* name;
    float multiplier;
    std::int32_t value;
    std::uint16_t reg;
    char const* text;
};

// clang-format off
inline constexpr Int32ReadVector kInt32Reads[] = {
    // name                       mult      value        reg      text
    {"Zero",                       1.0f,          0,     0x0000,  "0"},
    {"One",                        1.0f,          1,     0x0001,  "1"},
    {"MinusOneWraps",              1.0f,         -1,     0xFFFF,  "-1"},
    {"Int16Max",                   1.0f,      32767,     0x7FFF,  "32767"},
    {"Int16MaxPlusOne",            1.0f,      32768,     0x8000,  "32768"},
    {"Int16Min",                   1.0f,     -32768,     0x8000,  "-32768"},
    {"Uint16Max",                  1.0f,      65535,     0xFFFF,  "65535"},
    {"Uint16MaxPlusOneWraps",      1.0f,      65536,     0x0000,  "65536"},
    {"SeventyThousandWraps",       1.0f,      70000,       4464,  "70000"},
    {"Int32Max",                   1.0f,  kInt32Max,     0xFFFF,  "2147483647"},
    {"Int32Min",                   1.0f,  kInt32Min,     0x0000,  "-2147483648"},
    {"HalfTruncatesDown",          0.5f,          7,          3,  "3"},
    {"HalfTruncatesTowardZero",    0.5f,         -7,     0xFFFD,  "-3"},
    {"MinusHalfIsZero",            0.5f,         -1,          0,  "0"},
    {"DoubleWraps",                2.0f,      40000,      14464,  "80000"},
    {"DoubleSaturatesHigh",        2.0f,  kInt32Max,     0xFFFF,  "2147483647"},
    {"DoubleSaturatesLow",         2.0f,  kInt32Min,     0x0000,  "-2147483648"},
    {"TenthOfTenIsOne",            0.1f,         10,          1,  "1"},
    {"TenthOfMinusTen",            0.1f,        -10,     0xFFFF,  "-1"},
    {"ZeroMultiplier",             0.0f,      12345,          0,  "0"},
    {"NaNMultiplier",              kNaN,          5,          0,  "0"},
    {"InfiniteMultiplier",         kInf,          1,     0xFFFF,  "2147483647"},
    {"InfiniteMultiplierNegative", kInf,         -1,     0x0000,  "-2147483648"},
    {"InfiniteMultiplierZero",     kInf,          0,          0,  "0"},
};
// clang-format on

/* CdsInt32ToOneRegisterAccessor writes: the register unsigned when the
 * multiplier is exactly 1, else register * (1 / multiplier) with the
 * reciprocal in float, saturated and truncated. */
struct Int32WriteVector {
    char const* name;
    float multiplier;
    std::vector<std::uint16_t> registers;
    std::int32_t stored;
};

inline std::vector<Int32WriteVector> const& int32Writes() {
    // clang-format off
    static std::vector<Int32WriteVector> const vectors = {
        {"EmptyWriteStoresZero",     1.0f,    {},          0},
        {"Uint16MaxIsNotSignExtended", 1.0f,  {0xFFFF},    65535},
        {"Int16MinBitsStayPositive", 1.0f,    {0x8000},    32768},
        {"OnlyFirstRegisterCounts",  1.0f,    {3, 4},      3},
        {"HalfDoubles",              0.5f,    {3},         6},
        {"HalfOfUint16Max",          0.5f,    {0xFFFF},    131070},
        {"DoubleTruncates",          2.0f,    {7},         3},
        {"TenthTimesTen",            0.1f,    {7},         70},
        // 1 / 0.3f rounds to 3.33333325f in float, so 3 gives 9.99999976: 9.
        {"FloatReciprocalTruncates", 0.3f,    {3},         9},
        {"NegativeMultiplier",      -1.0f,    {5},        -5},
        {"ZeroMultiplierSaturates",  0.0f,    {5},         kInt32Max},
        {"ZeroMultiplierZeroIsNaN",  0.0f,    {0},         0},
        {"TinyMultiplierSaturates",  1e-5f,   {0xFFFF},    kInt32Max},
        {"TinyNegativeSaturates",   -1e-5f,   {0xFFFF},    kInt32Min},
    };
    // clang-format on
    return vectors;
}

/* CdsUint32ToOneRegisterAccessor reads with mask and multiplier applied:
 * value XOR mask (Xor only), then the low 16 bits of the value itself
 * (multiplier exactly 1) or of the saturated uint32 of the double product. */
struct Uint32ReadVector {
    char const* name;
    float multiplier;
    bool xorMask;
    std::uint32_t mask;
    std::uint32_t value;
    std::uint16_t reg;
};

// clang-format off
inline constexpr Uint32ReadVector kUint32Reads[] = {
    // name                      mult    xor    mask          value         reg
    {"Zero",                      1.0f,  false, 0,            0,            0x0000},
    {"Uint16Max",                 1.0f,  false, 0,            65535,        0xFFFF},
    {"Uint16MaxPlusOneWraps",     1.0f,  false, 0,            65536,        0x0000},
    {"SeventyThousandWraps",      1.0f,  false, 0,            70000,        4464},
    {"Uint32Max",                 1.0f,  false, 0,            kUint32Max,   0xFFFF},
    {"HalfTruncates",             0.5f,  false, 0,            7,            3},
    {"HalfOfOneIsZero",           0.5f,  false, 0,            1,            0},
    {"DoubleWraps",               2.0f,  false, 0,            40000,        14464},
    {"DoubleSaturates",           2.0f,  false, 0,            2147483648u,  0xFFFF},
    {"DoubleOfUint32Max",         2.0f,  false, 0,            kUint32Max,   0xFFFF},
    {"NegativeSaturatesToZero",  -1.0f,  false, 0,            5,            0},
    {"ZeroMultiplier",            0.0f,  false, 0,            12345,        0},
    {"NaNMultiplier",             kNaN,  false, 0,            5,            0},
    {"InfiniteMultiplier",        kInf,  false, 0,            5,            0xFFFF},
    {"InfiniteMultiplierZero",    kInf,  false, 0,            0,            0},
    {"XorSetsClearBit",           1.0f,  true,  0x0001,       0,            1},
    {"XorClearsSetBit",           1.0f,  true,  0x0001,       1,            0},
    {"XorHighMaskLeavesLowWord",  1.0f,  true,  0xFFFF0000u,  0x12345678u,  0x5678},
    {"XorFullLowWord",            1.0f,  true,  0x0000FFFFu,  0,            0xFFFF},
};
// clang-format on

/* CdsUint32ToOneRegisterAccessor writes: an empty write stores 0; with Xor the
 * mask itself; else the register (multiplier exactly 1) or the saturated
 * uint32 of register * (1 / multiplier), the reciprocal in float. */
struct Uint32WriteVector {
    char const* name;
    float multiplier;
    bool xorMask;
    std::uint32_t mask;
    std::vector<std::uint16_t> registers;
    std::uint32_t stored;
};

inline std::vector<Uint32WriteVector> const& uint32Writes() {
    // clang-format off
    static std::vector<Uint32WriteVector> const vectors = {
        {"EmptyWriteStoresZero",     1.0f,   false, 0,      {},          0},
        {"Uint16Max",                1.0f,   false, 0,      {0xFFFF},    65535},
        {"OnlyFirstRegisterCounts",  1.0f,   false, 0,      {9, 1},      9},
        {"HalfDoubles",              0.5f,   false, 0,      {3},         6},
        {"DoubleTruncates",          2.0f,   false, 0,      {7},         3},
        {"NegativeSaturatesToZero", -1.0f,   false, 0,      {5},         0},
        {"ZeroMultiplierSaturates",  0.0f,   false, 0,      {5},         kUint32Max},
        {"ZeroMultiplierZeroIsNaN",  0.0f,   false, 0,      {0},         0},
        {"TinyMultiplierSaturates",  1e-5f,  false, 0,      {0xFFFF},    kUint32Max},
        {"XorStoresMaskForZero",     1.0f,   true,  0x0001, {0},         1},
        {"XorStoresMaskForAnything", 1.0f,   true,  0x0001, {12345},     1},
        {"XorEmptyWriteStoresZero",  1.0f,   true,  0x0001, {},          0},
    };
    // clang-format on
    return vectors;
}

/* CdsStringAccessor: character i into register i / 2, even ones high. */
struct StringPackVector {
    char const* name;
    std::string text;
    std::vector<std::uint16_t> registers;
};

inline std::vector<StringPackVector> const& stringPacks() {
    // clang-format off
    static std::vector<StringPackVector> const vectors = {
        {"Empty",          "",              {}},
        {"OneCharacter",   "A",             {0x4100}},
        {"TwoCharacters",  "AB",            {0x4142}},
        {"OddLength",      "ABC",           {0x4142, 0x4300}},
        {"HighBytes",      "\xFF\x80",      {0xFF80}},
        {"TenCharacters",  "0123456789",    {0x3031, 0x3233, 0x3435, 0x3637, 0x3839}},
    };
    // clang-format on
    return vectors;
}

/* CdsStringAccessor writes: the bytes, high first, up to the first zero. */
struct StringUnpackVector {
    char const* name;
    std::vector<std::uint16_t> registers;
    std::string text;
};

inline std::vector<StringUnpackVector> const& stringUnpacks() {
    // clang-format off
    static std::vector<StringUnpackVector> const vectors = {
        {"Empty",                 {},                        ""},
        {"PaddedWithZeros",       {0x4142, 0x4300, 0x0000},  "ABC"},
        {"LeadingZeroByte",       {0x0041},                  ""},
        {"NoZeroAtAll",           {0x4142},                  "AB"},
        {"ZeroInTheMiddleEnds",   {0x4100, 0x4200},          "A"},
        {"HighBytes",             {0xFF80},                  "\xFF\x80"},
    };
    // clang-format on
    return vectors;
}

/* CdsStringToOneRegisterAccessor reads: std::stoul base 10, low 16 bits. */
struct DecimalTextVector {
    char const* name;
    char const* text;
    std::uint16_t reg;
    char const* shown;  // getStrValue(): the register in decimal
};

// clang-format off
inline constexpr DecimalTextVector kDecimalTexts[] = {
    // name                      text            reg      shown
    {"Zero",                     "0",            0,       "0"},
    {"FortyTwo",                 "42",           42,      "42"},
    {"LeadingBlankTrailingJunk", " 7x",          7,       "7"},
    {"LeadingZeros",             "007",          7,       "7"},
    {"LeadingZeroIsNotOctal",    "010",          10,      "10"},
    {"HexPrefixStopsAtTheX",     "0x1A",         0,       "0"},
    {"PlusSign",                 "+12",          12,      "12"},
    {"MinusOneWraps",            "-1",           0xFFFF,  "65535"},
    {"Uint16Max",                "65535",        0xFFFF,  "65535"},
    {"Uint16MaxPlusOneWraps",    "65536",        0,       "0"},
    {"SeventyThousandWraps",     "70000",        4464,    "4464"},
    {"Uint32Max",                "4294967295",   0xFFFF,  "65535"},
    {"DecimalPointStops",        "12.9",         12,      "12"},
};
// clang-format on

/* Test output names a row by its name rather than by its bytes. */
inline void PrintTo(FloatReadVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(FloatWriteVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(Int32ReadVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(Int32WriteVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(Uint32ReadVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(Uint32WriteVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(StringPackVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(StringUnpackVector const& row, std::ostream* os) {
    *os << row.name;
}
inline void PrintTo(DecimalTextVector const& row, std::ostream* os) {
    *os << row.name;
}

}  // namespace golden
