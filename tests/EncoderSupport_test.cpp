// The pure conversion helpers of the encoders: saturating truncation, the low
// 16 bits of a register, and the scaled and text conversions of the
// one-register and string encoders. None of them touches the data store.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "registers/encoder_support.h"
#include "registers/scaled_register_conversions.h"
#include "registers/text_register_conversions.h"

namespace {

using modbus::detail::low16;
using modbus::detail::saturatingTruncate;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::uint32_t kUint32Max = std::numeric_limits<std::uint32_t>::max();

std::uint32_t bitsOf(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// ---- saturatingTruncate -----------------------------------------------------

TEST(EncoderSupportTest, SaturatingTruncateInt32TruncatesTowardZero) {
    EXPECT_EQ(saturatingTruncate<std::int32_t>(3.99), 3);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-3.99), -3);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(0.5), 0);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-0.5), 0);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-0.0), 0);
}

TEST(EncoderSupportTest, SaturatingTruncateInt32KeepsItsLimitsExactly) {
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483647.0), kInt32Max);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483646.9), 2147483646);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483648.0), kInt32Min);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483647.9), -2147483647);
}

TEST(EncoderSupportTest, SaturatingTruncateInt32SaturatesOutOfRange) {
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483648.0), kInt32Max);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(1e300), kInt32Max);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483649.0), kInt32Min);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-1e300), kInt32Min);
}

TEST(EncoderSupportTest, SaturatingTruncateInt32MapsNaNToZeroAndInfinitiesToLimits) {
    EXPECT_EQ(saturatingTruncate<std::int32_t>(kNaN), 0);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-kNaN), 0);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(kInf), kInt32Max);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-kInf), kInt32Min);
}

TEST(EncoderSupportTest, SaturatingTruncateUint32TruncatesAndClampsNegativesToZero) {
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(3.99), 3u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(0.99), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-0.5), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-1.0), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-1e300), 0u);
}

TEST(EncoderSupportTest, SaturatingTruncateUint32KeepsItsLimitsAndSaturatesAbove) {
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967295.0), kUint32Max);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967294.5), 4294967294u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967296.0), kUint32Max);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(2147483648.0), 2147483648u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(1e300), kUint32Max);
}

TEST(EncoderSupportTest, SaturatingTruncateUint32MapsNaNToZeroAndInfinitiesToLimits) {
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(kNaN), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(kInf), kUint32Max);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-kInf), 0u);
}

TEST(EncoderSupportTest, SaturatingTruncateAgreesWithACheckedConversionOnRandomDoubles) {
    std::mt19937 random(20240611u);
    std::uniform_real_distribution<double> spread(-6e9, 6e9);
    for (int i = 0; i < 4000; ++i) {
        double const value = spread(random);
        double const truncated = std::trunc(value);
        // Every int32 and uint32 limit is exact in double, so comparing the
        // truncated value with them decides the expected result.
        std::int32_t const expectedSigned =
            truncated < -2147483648.0
                ? kInt32Min
                : (truncated > 2147483647.0 ? kInt32Max : static_cast<std::int32_t>(truncated));
        std::uint32_t const expectedUnsigned =
            truncated < 0.0
                ? 0u
                : (truncated > 4294967295.0 ? kUint32Max : static_cast<std::uint32_t>(truncated));
        ASSERT_EQ(saturatingTruncate<std::int32_t>(value), expectedSigned) << value;
        ASSERT_EQ(saturatingTruncate<std::uint32_t>(value), expectedUnsigned) << value;
    }
}

// ---- low16 ---------------------------------------------------------------------

TEST(EncoderSupportTest, Low16KeepsTheValueModulo65536) {
    EXPECT_EQ(low16(std::uint32_t{0}), 0u);
    EXPECT_EQ(low16(std::uint32_t{65535}), 0xFFFFu);
    EXPECT_EQ(low16(std::uint32_t{65536}), 0u);
    EXPECT_EQ(low16(std::uint32_t{70000}), 4464u);
    EXPECT_EQ(low16(kUint32Max), 0xFFFFu);
}

TEST(EncoderSupportTest, Low16WrapsSignedValuesInTwosComplement) {
    EXPECT_EQ(low16(std::int32_t{-1}), 0xFFFFu);
    EXPECT_EQ(low16(std::int32_t{-32768}), 0x8000u);
    EXPECT_EQ(low16(std::int32_t{32767}), 0x7FFFu);
    EXPECT_EQ(low16(kInt32Min), 0x0000u);
    EXPECT_EQ(low16(kInt32Max), 0xFFFFu);
}

// ---- Scaled one-register conversions ---------------------------------------

TEST(EncoderSupportTest, ScaleAndOffsetRoundsTheProductBeforeAddingTheOffset) {
    // 4097 * 4097 = 16785409 is a tie between two floats and rounds to
    // 16785408; a fused multiply-add would give 1 instead of 0.
    EXPECT_EQ(modbus::detail::scaleAndOffset(4097.0f, 4097.0f, -16785408.0f), 0.0f);
}

TEST(EncoderSupportTest, RoundMagnitudeAgreesWithRoundfAcrossTheFloats) {
    using modbus::detail::roundMagnitude;
    auto const fromBits = [](std::uint32_t bits) {
        float value = 0.0f;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    };
    std::size_t checked = 0;
    // Every 251st non-negative float up to the infinity, then both sides of
    // every half below 2^17, where rounding decides the register.
    for (std::uint64_t bits = 0; bits <= 0x7F800000u; bits += 251) {
        float const value = fromBits(static_cast<std::uint32_t>(bits));
        ASSERT_EQ(roundMagnitude(value), std::round(value)) << value;
        ++checked;
    }
    for (int whole = 0; whole < (1 << 17); ++whole) {
        float const half = static_cast<float>(whole) + 0.5f;
        for (float const value : {std::nextafter(half, 0.0f), half, std::nextafter(half, 1e9f)}) {
            ASSERT_EQ(roundMagnitude(value), std::round(value)) << value;
            ++checked;
        }
    }
    EXPECT_GT(checked, 8'000'000u);
    float const infinity = std::numeric_limits<float>::infinity();
    EXPECT_EQ(roundMagnitude(infinity), infinity);
    EXPECT_TRUE(std::isnan(roundMagnitude(std::numeric_limits<float>::quiet_NaN())));
    EXPECT_EQ(roundMagnitude(8388607.5f), 8388608.0f);  // the last float with a fraction
}

TEST(EncoderSupportTest, RoundedMagnitudeRegisterRoundsHalvesAwayFromZero) {
    using modbus::detail::roundedMagnitudeRegister;
    EXPECT_EQ(roundedMagnitudeRegister(0.5f), 1u);
    EXPECT_EQ(roundedMagnitudeRegister(0.49999997f), 0u);
    EXPECT_EQ(roundedMagnitudeRegister(2.5f), 3u);
    EXPECT_EQ(roundedMagnitudeRegister(-2.5f), 3u);
    EXPECT_EQ(roundedMagnitudeRegister(-3.6f), 4u);
}

TEST(EncoderSupportTest, RoundedMagnitudeRegisterSaturatesAndMapsNaNToZero) {
    using modbus::detail::roundedMagnitudeRegister;
    EXPECT_EQ(roundedMagnitudeRegister(std::numeric_limits<float>::quiet_NaN()), 0u);
    EXPECT_EQ(roundedMagnitudeRegister(std::numeric_limits<float>::infinity()), 0xFFFFu);
    EXPECT_EQ(roundedMagnitudeRegister(-std::numeric_limits<float>::infinity()), 0xFFFFu);
    EXPECT_EQ(roundedMagnitudeRegister(std::numeric_limits<float>::max()), 0xFFFFu);
    EXPECT_EQ(roundedMagnitudeRegister(65535.5f), 0u);
}

TEST(EncoderSupportTest, TruncatedTextNeitherRoundsNorTakesTheMagnitude) {
    using modbus::detail::truncatedText;
    EXPECT_EQ(truncatedText(12.7f), "12");
    EXPECT_EQ(truncatedText(-3.6f), "0");
    EXPECT_EQ(truncatedText(-0.0f), "0");
    EXPECT_EQ(truncatedText(70000.0f), "4464");
    EXPECT_EQ(truncatedText(std::numeric_limits<float>::quiet_NaN()), "0");
    EXPECT_EQ(truncatedText(std::numeric_limits<float>::infinity()), "65535");
    EXPECT_EQ(truncatedText(-std::numeric_limits<float>::infinity()), "0");
}

TEST(EncoderSupportTest, UnscaleRegisterToFloatMultipliesByTheReciprocal) {
    // 5 * (1/3f) rounds to 0x3FD55556; 5 / 3f would round to 0x3FD55555.
    EXPECT_EQ(bitsOf(modbus::detail::unscaleRegisterToFloat(5, 3.0f, 0.0f)), 0x3FD55556u);
    EXPECT_EQ(modbus::detail::unscaleRegisterToFloat(650, 0.1f, -40.0f), 6900.0f);
}

TEST(EncoderSupportTest, UnscaleRegisterToFloatWithZeroMultiplierGivesInfinityOrNaN) {
    EXPECT_EQ(modbus::detail::unscaleRegisterToFloat(5, 0.0f, 0.0f),
              std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(modbus::detail::unscaleRegisterToFloat(0, 0.0f, 0.0f)));
}

TEST(EncoderSupportTest, ScaleInt32SaturatesInsteadOfOverflowing) {
    EXPECT_EQ(modbus::detail::scaleInt32(kInt32Max, 2.0f), kInt32Max);
    EXPECT_EQ(modbus::detail::scaleInt32(kInt32Min, 2.0f), kInt32Min);
    EXPECT_EQ(modbus::detail::scaleInt32(kInt32Min, -1.0f), kInt32Max);
    EXPECT_EQ(modbus::detail::scaleInt32(5, std::numeric_limits<float>::quiet_NaN()), 0);
}

TEST(EncoderSupportTest, UnscaleRegisterToInt32TakesTheRegisterUnsignedForMultiplierOne) {
    EXPECT_EQ(modbus::detail::unscaleRegisterToInt32(0xFFFF, 1.0f), 65535);
    EXPECT_EQ(modbus::detail::unscaleRegisterToInt32(0xFFFF, -1.0f), -65535);
}

TEST(EncoderSupportTest, UnscaleRegisterToUint32SaturatesNegativeAndInfiniteResults) {
    EXPECT_EQ(modbus::detail::unscaleRegisterToUint32(5, -1.0f), 0u);
    EXPECT_EQ(modbus::detail::unscaleRegisterToUint32(5, 0.0f), kUint32Max);
    EXPECT_EQ(modbus::detail::unscaleRegisterToUint32(0, 0.0f), 0u);
}

TEST(EncoderSupportTest, ScaleUint32RegisterWithMultiplierOneIsTheLowWord) {
    EXPECT_EQ(modbus::detail::scaleUint32Register(0x12345678u, 1.0f), 0x5678u);
    EXPECT_EQ(modbus::detail::scaleUint32Register(kUint32Max, 2.0f), 0xFFFFu);
}

// ---- Text conversions --------------------------------------------------------

TEST(EncoderSupportTest, PackTwoCharactersPerRegisterTakesBytesUnsigned) {
    EXPECT_EQ(modbus::detail::packTwoCharactersPerRegister("\xFF\x80\x7F"),
              (std::vector<std::uint16_t>{0xFF80, 0x7F00}));
}

TEST(EncoderSupportTest, UnpackTextUpToFirstZeroStopsAtALowByteZeroToo) {
    EXPECT_EQ(modbus::detail::unpackTextUpToFirstZero({0x4142, 0x4300, 0x4445}), "ABC");
    EXPECT_EQ(modbus::detail::unpackTextUpToFirstZero({0x4142, 0x4344}), "ABCD");
}

TEST(EncoderSupportTest, PackThenUnpackGivesTheTextBackForRandomTextsWithoutZeroBytes) {
    std::mt19937 random(7u);
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> byte(1, 255);
    for (int i = 0; i < 3000; ++i) {
        std::string text(static_cast<std::size_t>(length(random)), ' ');
        for (char& c : text) {
            c = static_cast<char>(byte(random));
        }
        std::vector<std::uint16_t> const registers =
            modbus::detail::packTwoCharactersPerRegister(text);
        ASSERT_EQ(registers.size(), (text.size() + 1) / 2);
        ASSERT_EQ(modbus::detail::unpackTextUpToFirstZero(registers), text);
    }
}

TEST(EncoderSupportTest, ParseDecimalToRegisterKeepsTheLowWordOfTheParsedNumber) {
    EXPECT_EQ(modbus::detail::parseDecimalToRegister("70000"), 4464u);
    EXPECT_EQ(modbus::detail::parseDecimalToRegister("-1"), 0xFFFFu);
    EXPECT_EQ(modbus::detail::parseDecimalToRegister("  12abc"), 12u);
}

TEST(EncoderSupportTest, ParseDecimalToRegisterLetsTheParseErrorsThrough) {
    EXPECT_THROW(modbus::detail::parseDecimalToRegister(""), std::invalid_argument);
    EXPECT_THROW(modbus::detail::parseDecimalToRegister("abc"), std::invalid_argument);
    EXPECT_THROW(modbus::detail::parseDecimalToRegister("99999999999999999999999"),
                 std::out_of_range);
}

}  // namespace
