// What the library relies on where a 64-bit build host and the card's 32-bit
// ARM differ: the width of unsigned long (std::stoul's range), float-to-integer
// conversions out of range (undefined in C++, and x86 and ARM really do give
// different results), the signedness of plain char, and the widths of the
// identifier and value types. The suite runs on both; where the answers
// differ, the branch is chosen by the size of the type, so the host suite pins
// one branch and the armhf suite the other.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kq/value.h"
#include "modbus/CdsDataAccessor.h"
#include "modbus/CdsFloatToOneRegisterAccessor.h"
#include "modbus/CdsInt32ToOneRegisterAccessor.h"
#include "modbus/CdsStringAccessor.h"
#include "modbus/CdsStringToOneRegisterAccessor.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"
#include "registers/encoder_support.h"

namespace {

using modbus::detail::saturatingTruncate;

constexpr bool kUnsignedLongIs32Bit = sizeof(unsigned long) == 4;

using I32 = std::numeric_limits<std::int32_t>;
using U32 = std::numeric_limits<std::uint32_t>;
using I64 = std::numeric_limits<long long>;
using U64 = std::numeric_limits<unsigned long long>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

/* A data accessor that always holds one value and exists in the data store. */
class FixedValueAccessor : public modbus::CdsDataAccessor {
  public:
    explicit FixedValueAccessor(kq::CValue value) : m_value(std::move(value)) {}
    void setCValue(kq::CValue const& value) override { m_value = value; }
    kq::CValue getCValue() const override { return m_value; }
    bool isExitingInCds() const override { return true; }
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override {
        m_callback = std::move(callback);
    }

  private:
    kq::CValue m_value;
    std::function<void(kq::CValue const&)> m_callback;
};

std::shared_ptr<modbus::CdsDataAccessor> fixed(kq::CValue value) {
    return std::make_shared<FixedValueAccessor>(std::move(value));
}

// ---------------------------------------------------------------------------
// Type widths

TEST(Target32BitTest, TheBuildIsForTheExpectedWordSize) {
#if defined(__arm__)
    EXPECT_EQ(sizeof(void*), 4u);
    EXPECT_EQ(sizeof(unsigned long), 4u);
#elif defined(__x86_64__) || defined(__aarch64__)
    EXPECT_EQ(sizeof(void*), 8u);
    EXPECT_EQ(sizeof(unsigned long), 8u);
#endif
    // Both data models keep long as wide as a pointer.
    EXPECT_EQ(sizeof(unsigned long), sizeof(void*));
}

TEST(Target32BitTest, IdentifiersAreSixtyFourBitsOnEveryTarget) {
    EXPECT_EQ(sizeof(unsigned long long), 8u);
    // The "not known yet" device id: every bit set, not just the low 32.
    unsigned long long const unknownDevice = ~0ULL;
    EXPECT_EQ(unknownDevice, 0xFFFFFFFFFFFFFFFFULL);
    EXPECT_NE(unknownDevice, static_cast<unsigned long long>(U32::max()));
}

TEST(Target32BitTest, ValueTypesHaveTheirFixedWidths) {
    EXPECT_EQ(sizeof(int), 4u);
    EXPECT_EQ(sizeof(unsigned int), 4u);
    EXPECT_EQ(sizeof(long long), 8u);
    EXPECT_EQ(sizeof(float), 4u);
    EXPECT_EQ(sizeof(double), 8u);
    EXPECT_TRUE(std::numeric_limits<float>::is_iec559);
    EXPECT_TRUE(std::numeric_limits<double>::is_iec559);
}

// ---------------------------------------------------------------------------
// std::stoul, which parses the numeric strings of one-register string encoders

TEST(Target32BitTest, StoulReadsTheWhole32BitRange) {
    EXPECT_EQ(std::stoul("0"), 0ul);
    EXPECT_EQ(std::stoul("4294967295"), 4294967295ul);
    EXPECT_EQ(std::stoul(" 70000"), 70000ul);
}

TEST(Target32BitTest, StoulBeyond32BitsThrowsOnlyWhereUnsignedLongIs32Bit) {
    if (kUnsignedLongIs32Bit) {
        EXPECT_THROW(std::stoul("4294967296"), std::out_of_range);
    } else {
        EXPECT_EQ(std::stoul("4294967296"), 4294967296ull);
        EXPECT_EQ(std::stoul("18446744073709551615"), 18446744073709551615ull);
    }
    // Past 64 bits it throws everywhere.
    EXPECT_THROW(std::stoul("18446744073709551616"), std::out_of_range);
}

TEST(Target32BitTest, StoulOutOfRangeCarriesTheTextStoul) {
    char const* const tooLarge = kUnsignedLongIs32Bit ? "4294967296" : "18446744073709551616";
    try {
        std::stoul(tooLarge);
        FAIL() << "no exception for " << tooLarge;
    } catch (std::out_of_range const& e) {
        EXPECT_STREQ(e.what(), "stoul");
    }
}

TEST(Target32BitTest, StoulOfMinusOneIsAllOnesWhoseLow16BitsAreEqualEverywhere) {
    unsigned long const minusOne = std::stoul("-1");
    EXPECT_EQ(minusOne, std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(minusOne & 0xFFFFu, 0xFFFFu);
}

TEST(Target32BitTest, StoulOfANegative33BitNumberDependsOnTheWidth) {
    if (kUnsignedLongIs32Bit) {
        EXPECT_THROW(std::stoul("-4294967296"), std::out_of_range);
    } else {
        // Negated in 64 bits: 2^64 - 2^32.
        EXPECT_EQ(std::stoul("-4294967296"), 0xFFFFFFFF00000000ull);
    }
}

TEST(Target32BitTest, StoulWithoutDigitsThrowsInvalidArgumentEverywhere) {
    EXPECT_THROW(std::stoul(""), std::invalid_argument);
    EXPECT_THROW(std::stoul("abc"), std::invalid_argument);
    try {
        std::stoul("abc");
    } catch (std::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "stoul");
    }
}

// ---------------------------------------------------------------------------
// Saturating float-to-integer conversion: a plain cast out of range gives
// INT_MIN on x86 and saturates on ARM; the helper must saturate on both.

TEST(Target32BitTest, SaturatingTruncateToInt32AtTheLimits) {
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483647.0), I32::max());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483646.9), 2147483646);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(2147483648.0), I32::max());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(3.0e9), I32::max());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(1.0e300), I32::max());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(kInf), I32::max());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483648.0), I32::min());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483647.9), -2147483647);
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-2147483649.0), I32::min());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-3.0e9), I32::min());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(-kInf), I32::min());
    EXPECT_EQ(saturatingTruncate<std::int32_t>(kNaN), 0);
}

TEST(Target32BitTest, SaturatingTruncateToUint32AtTheLimits) {
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967295.0), U32::max());
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967294.5), 4294967294u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(4294967296.0), U32::max());
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(1.0e10), U32::max());
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(kInf), U32::max());
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-1.0), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-0.9), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-3.0e9), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(-kInf), 0u);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(kNaN), 0u);
}

TEST(Target32BitTest, SaturatingTruncateOfASinglePrecisionLimitSaturates) {
    // 4294967295 is not a float: it rounds up to 2^32, just out of range.
    float const justAbove = 4294967295.0f;
    EXPECT_EQ(static_cast<double>(justAbove), 4294967296.0);
    EXPECT_EQ(saturatingTruncate<std::uint32_t>(justAbove), U32::max());
    float const int32Edge = 2147483647.0f;  // likewise 2^31
    EXPECT_EQ(saturatingTruncate<std::int32_t>(int32Edge), I32::max());
}

TEST(Target32BitTest, RoundfRoundsHalvesAwayFromZeroEverywhere) {
    EXPECT_EQ(std::roundf(12.5f), 13.0f);
    EXPECT_EQ(std::roundf(-2.5f), -3.0f);
    EXPECT_EQ(std::roundf(0.49999997f), 0.0f);
    EXPECT_EQ(std::roundf(8388609.0f), 8388609.0f);
}

// ---------------------------------------------------------------------------
// kq::CValue conversions at the limits

TEST(Target32BitTest, CValueFloatToInt32Saturates) {
    EXPECT_EQ(kq::CValue(3.0e9f).as_int32(), I32::max());
    EXPECT_EQ(kq::CValue(-3.0e9f).as_int32(), I32::min());
    EXPECT_EQ(kq::CValue(3.0e9).as_int32(), I32::max());
    EXPECT_EQ(kq::CValue(-2147483648.0).as_int32(), I32::min());
    EXPECT_EQ(kq::CValue(2147483647.9).as_int32(), I32::max());
    EXPECT_EQ(kq::CValue(-7.9f).as_int32(), -7);
    EXPECT_EQ(kq::CValue(std::numeric_limits<float>::quiet_NaN()).as_int32(), 0);
    EXPECT_EQ(kq::CValue(std::numeric_limits<float>::infinity()).as_int32(), I32::max());
}

TEST(Target32BitTest, CValueFloatToUint32Saturates) {
    EXPECT_EQ(kq::CValue(1.0e20f).as_uint32(), U32::max());
    EXPECT_EQ(kq::CValue(4294967295.0).as_uint32(), U32::max());
    EXPECT_EQ(kq::CValue(4294967294.9).as_uint32(), 4294967294u);
    EXPECT_EQ(kq::CValue(-1.0f).as_uint32(), 0u);
    EXPECT_EQ(kq::CValue(-0.5).as_uint32(), 0u);
    EXPECT_EQ(kq::CValue(kNaN).as_uint32(), 0u);
}

TEST(Target32BitTest, CValueIntegerNarrowingSaturates) {
    EXPECT_EQ(kq::CValue(4294967295u).as_int32(), I32::max());
    EXPECT_EQ(kq::CValue(4294967295u).as_uint32(), 4294967295u);
    EXPECT_EQ(kq::CValue(-1).as_uint32(), 0u);
    EXPECT_EQ(kq::CValue(4294967296LL).as_uint32(), U32::max());
    EXPECT_EQ(kq::CValue(-4294967296LL).as_int32(), I32::min());
    EXPECT_EQ(kq::CValue(I64::min()).as_uint64(), 0u);
    EXPECT_EQ(kq::CValue(U64::max()).as_int64(), I64::max());
    EXPECT_EQ(kq::CValue(U64::max()).as_uint32(), U32::max());
    EXPECT_EQ(kq::CValue(U64::max()).as_uint64(), U64::max());
}

TEST(Target32BitTest, CValueDoubleToSixtyFourBitIntegersSaturates) {
    // 2^63 and 2^64 are exact doubles just past the ranges.
    EXPECT_EQ(kq::CValue(9223372036854775808.0).as_int64(), I64::max());
    EXPECT_EQ(kq::CValue(-9223372036854775808.0).as_int64(), I64::min());
    EXPECT_EQ(kq::CValue(-1.0e19).as_int64(), I64::min());
    EXPECT_EQ(kq::CValue(18446744073709551616.0).as_uint64(), U64::max());
    EXPECT_EQ(kq::CValue(1.0e19).as_uint64(), 10000000000000000000ull);
}

TEST(Target32BitTest, CValueTextToIntegerDoesNotDependOnTheWidthOfLong) {
    EXPECT_EQ(kq::CValue("4294967295").as_uint32(), 4294967295u);
    EXPECT_EQ(kq::CValue("4294967296").as_uint32(), U32::max());
    EXPECT_EQ(kq::CValue("4294967296").as_int64(), 4294967296LL);
    EXPECT_EQ(kq::CValue("4294967296").as_uint64(), 4294967296ull);
    EXPECT_EQ(kq::CValue("-1").as_uint32(), 0u);
    EXPECT_EQ(kq::CValue("-2147483649").as_int32(), I32::min());
    EXPECT_EQ(kq::CValue("18446744073709551615").as_uint64(), U64::max());
    EXPECT_EQ(kq::CValue("-9223372036854775808").as_int64(), I64::min());
    EXPECT_EQ(kq::CValue("9223372036854775808").as_int64(), I64::max());
    EXPECT_EQ(kq::CValue("4294967295.9").as_uint32(), 4294967295u);
    EXPECT_EQ(kq::CValue("1e10").as_uint32(), U32::max());
}

TEST(Target32BitTest, CValueWideIntegersPrintInFull) {
    EXPECT_EQ(kq::CValue(U64::max()).as_string(), "18446744073709551615");
    EXPECT_EQ(kq::CValue(I64::min()).as_string(), "-9223372036854775808");
    EXPECT_EQ(kq::CValue(4294967295u).as_string(), "4294967295");
    EXPECT_EQ(kq::CValue(I32::min()).as_string(), "-2147483648");
    EXPECT_EQ(kq::CValue(kq::CTimestamp{1LL << 40}).as_int64(), 1LL << 40);
    EXPECT_EQ(kq::CValue(kq::CTimestamp{1LL << 40}).as_string(), "1099511627776");
}

// ---------------------------------------------------------------------------
// The encoders at the limits: the same registers and texts on both targets

TEST(Target32BitTest, FloatToOneRegisterSaturatesAnOutOfRangeProduct) {
    // 1e9 x 10 is past 2^32: saturated, low 16 bits all ones. A raw cast gives
    // another register on x86.
    modbus::CdsFloatToOneRegisterAccessor encoder(fixed(1.0e9f), 10.0f, 0.0f);
    EXPECT_EQ(encoder.getData(), std::vector<uint16_t>{0xFFFF});
}

TEST(Target32BitTest, Int32ToOneRegisterSaturatesTheProduct) {
    modbus::CdsInt32ToOneRegisterAccessor up(fixed(3000000), 1000.0f);
    EXPECT_EQ(up.getData(), std::vector<uint16_t>{0xFFFF});
    EXPECT_EQ(up.getStrValue(), "2147483647");
    modbus::CdsInt32ToOneRegisterAccessor down(fixed(-3000000), 1000.0f);
    EXPECT_EQ(down.getData(), std::vector<uint16_t>{0x0000});
    EXPECT_EQ(down.getStrValue(), "-2147483648");
}

TEST(Target32BitTest, Uint32ToOneRegisterSaturatesTheProduct) {
    modbus::CdsUint32ToOneRegisterAccessor encoder(fixed(4000000000u), 2.0f);
    EXPECT_EQ(encoder.getData(), std::vector<uint16_t>{0xFFFF});
}

TEST(Target32BitTest, StringToOneRegisterBeyond32BitsFollowsTheWidthOfLong) {
    modbus::CdsStringToOneRegisterAccessor encoder(fixed("4294967296"));
    if (kUnsignedLongIs32Bit) {
        EXPECT_THROW(encoder.getData(), std::out_of_range);
    } else {
        EXPECT_EQ(encoder.getData(), std::vector<uint16_t>{0x0000});
    }
}

TEST(Target32BitTest, StringToOneRegisterOfMinusOneIsAllOnesEverywhere) {
    modbus::CdsStringToOneRegisterAccessor encoder(fixed("-1"));
    EXPECT_EQ(encoder.getData(), std::vector<uint16_t>{0xFFFF});
    EXPECT_EQ(encoder.getStrValue(), "65535");
}

TEST(Target32BitTest, StringBytesAreUnsignedWhateverTheSignednessOfChar) {
    // Plain char is signed on x86 and unsigned on ARM.
    modbus::CdsStringAccessor encoder(2, new FixedValueAccessor("\xC3\xA9\xFF"));
    EXPECT_EQ(encoder.getData(), (std::vector<uint16_t>{0xC3A9, 0xFF00}));
}

TEST(Target32BitTest, StringWriteKeepsHighBytes) {
    auto* accessor = new FixedValueAccessor("");
    modbus::CdsStringAccessor encoder(2, accessor);  // takes ownership
    encoder.setData({0xC3A9, 0x8000});
    EXPECT_EQ(accessor->getCValue(), kq::CValue("\xC3\xA9\x80"));
}

}  // namespace
