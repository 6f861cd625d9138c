// The readers of kq::CValue: every conversion rule, the limits of each
// integer type, infinities and NaN, text parsing, equality and the names.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "kq/value.h"
#include "modbus/byte_order.h"

namespace {

using kq::ConversionError;
using kq::CTimestamp;
using kq::CValue;

constexpr int kInt32Min = std::numeric_limits<int>::min();
constexpr int kInt32Max = std::numeric_limits<int>::max();
constexpr unsigned kUint32Max = std::numeric_limits<unsigned>::max();
constexpr long long kInt64Min = std::numeric_limits<long long>::min();
constexpr long long kInt64Max = std::numeric_limits<long long>::max();
constexpr unsigned long long kUint64Max = std::numeric_limits<unsigned long long>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// ---- Alternatives and construction -------------------------------------------

TEST(KqValueTest, DefaultConstructedIsInvalid) {
    CValue const v;
    EXPECT_FALSE(v.isValid());
    EXPECT_EQ(v.type(), CValue::Type::Invalid);
    EXPECT_EQ(v.index(), 0u);
}

TEST(KqValueTest, EachConstructorSelectsItsAlternative) {
    EXPECT_EQ(CValue(true).type(), CValue::Type::Bool);
    EXPECT_EQ(CValue(1).type(), CValue::Type::Int32);
    EXPECT_EQ(CValue(1LL).type(), CValue::Type::Int64);
    EXPECT_EQ(CValue(1u).type(), CValue::Type::Uint32);
    EXPECT_EQ(CValue(1ULL).type(), CValue::Type::Uint64);
    EXPECT_EQ(CValue(1.0f).type(), CValue::Type::Float);
    EXPECT_EQ(CValue(1.0).type(), CValue::Type::Double);
    EXPECT_EQ(CValue(CTimestamp{1}).type(), CValue::Type::Timestamp);
    EXPECT_EQ(CValue(std::string("x")).type(), CValue::Type::String);
    EXPECT_EQ(CValue(CValue::Bytes{1}).type(), CValue::Type::ByteVector);
}

TEST(KqValueTest, StringLiteralBecomesStringNotBool) {
    CValue const v("abc");
    EXPECT_EQ(v.type(), CValue::Type::String);
    EXPECT_EQ(v.as_string(), "abc");
}

// ---- Invalid -------------------------------------------------------------------

TEST(KqValueTest, InvalidReadsAsZeroOfEveryTypeWithoutThrowing) {
    CValue const v;
    EXPECT_FALSE(v.as_bool());
    EXPECT_EQ(v.as_int32(), 0);
    EXPECT_EQ(v.as_int64(), 0);
    EXPECT_EQ(v.as_uint32(), 0u);
    EXPECT_EQ(v.as_uint64(), 0u);
    EXPECT_EQ(v.as_float(), 0.0f);
    EXPECT_EQ(v.as_double(), 0.0);
    EXPECT_EQ(v.as_string(), "");
    EXPECT_TRUE(v.as_bytes().empty());
}

// ---- Bool ----------------------------------------------------------------------

TEST(KqValueTest, BoolReadsAsZeroOrOne) {
    EXPECT_EQ(CValue(true).as_int32(), 1);
    EXPECT_EQ(CValue(false).as_int32(), 0);
    EXPECT_EQ(CValue(true).as_uint64(), 1u);
    EXPECT_EQ(CValue(true).as_float(), 1.0f);
    EXPECT_EQ(CValue(false).as_double(), 0.0);
    EXPECT_EQ(CValue(true).as_string(), "1");
    EXPECT_EQ(CValue(false).as_string(), "0");
    EXPECT_TRUE(CValue(true).as_bool());
    EXPECT_FALSE(CValue(false).as_bool());
}

TEST(KqValueTest, NumberAsBoolIsNonZeroTest) {
    EXPECT_TRUE(CValue(-1).as_bool());
    EXPECT_FALSE(CValue(0).as_bool());
    EXPECT_TRUE(CValue(kUint64Max).as_bool());
    EXPECT_TRUE(CValue(0.5f).as_bool());
    EXPECT_FALSE(CValue(0.0).as_bool());
    EXPECT_FALSE(CValue(-0.0).as_bool());
    EXPECT_TRUE(CValue(kInf).as_bool());
}

TEST(KqValueTest, NaNAsBoolIsFalse) {
    EXPECT_FALSE(CValue(kNaN).as_bool());
    EXPECT_FALSE(CValue(std::numeric_limits<float>::quiet_NaN()).as_bool());
}

// ---- Integer to integer: saturation at every bound -----------------------------

TEST(KqValueTest, Int64BeyondInt32SaturatesAtBothEnds) {
    EXPECT_EQ(CValue(static_cast<long long>(kInt32Max) + 1).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(static_cast<long long>(kInt32Min) - 1).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(kInt64Max).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(kInt64Min).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(static_cast<long long>(kInt32Max)).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(static_cast<long long>(kInt32Min)).as_int32(), kInt32Min);
}

TEST(KqValueTest, NegativeReadAsUnsignedGivesZero) {
    EXPECT_EQ(CValue(-1).as_uint32(), 0u);
    EXPECT_EQ(CValue(-1).as_uint64(), 0u);
    EXPECT_EQ(CValue(kInt64Min).as_uint32(), 0u);
    EXPECT_EQ(CValue(kInt32Min).as_uint64(), 0u);
}

TEST(KqValueTest, Uint32MaxSaturatesAsInt32AndKeepsAsWiderTypes) {
    CValue const v(kUint32Max);
    EXPECT_EQ(v.as_int32(), kInt32Max);
    EXPECT_EQ(v.as_uint32(), kUint32Max);
    EXPECT_EQ(v.as_int64(), static_cast<long long>(kUint32Max));
    EXPECT_EQ(v.as_uint64(), static_cast<unsigned long long>(kUint32Max));
}

TEST(KqValueTest, Uint64MaxSaturatesIntoEverySmallerType) {
    CValue const v(kUint64Max);
    EXPECT_EQ(v.as_int32(), kInt32Max);
    EXPECT_EQ(v.as_uint32(), kUint32Max);
    EXPECT_EQ(v.as_int64(), kInt64Max);
    EXPECT_EQ(v.as_uint64(), kUint64Max);
}

TEST(KqValueTest, Int64BoundsReadExactlyAsInt64) {
    EXPECT_EQ(CValue(kInt64Max).as_int64(), kInt64Max);
    EXPECT_EQ(CValue(kInt64Min).as_int64(), kInt64Min);
    EXPECT_EQ(CValue(kInt64Max).as_uint64(), static_cast<unsigned long long>(kInt64Max));
}

TEST(KqValueTest, Uint32BeyondRangeFromInt64Saturates) {
    EXPECT_EQ(CValue(static_cast<long long>(kUint32Max) + 1).as_uint32(), kUint32Max);
    EXPECT_EQ(CValue(static_cast<long long>(kUint32Max)).as_uint32(), kUint32Max);
}

TEST(KqValueTest, Int32BoundsReadExactly) {
    EXPECT_EQ(CValue(kInt32Max).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(kInt32Min).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(kInt32Min).as_int64(), static_cast<long long>(kInt32Min));
}

// ---- Floating point to integer -------------------------------------------------

TEST(KqValueTest, FloatingToIntegerTruncatesTowardZero) {
    EXPECT_EQ(CValue(12.9).as_int32(), 12);
    EXPECT_EQ(CValue(-12.9).as_int32(), -12);
    EXPECT_EQ(CValue(12.5f).as_uint32(), 12u);
    EXPECT_EQ(CValue(-0.5).as_int32(), 0);
}

TEST(KqValueTest, MinusHalfReadAsUnsignedGivesZero) {
    EXPECT_EQ(CValue(-0.5).as_uint32(), 0u);
    EXPECT_EQ(CValue(-0.5f).as_uint64(), 0u);
}

TEST(KqValueTest, InfinitiesSaturateEveryIntegerType) {
    EXPECT_EQ(CValue(kInf).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(-kInf).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(kInf).as_uint32(), kUint32Max);
    EXPECT_EQ(CValue(-kInf).as_uint32(), 0u);
    EXPECT_EQ(CValue(kInf).as_int64(), kInt64Max);
    EXPECT_EQ(CValue(-kInf).as_int64(), kInt64Min);
    EXPECT_EQ(CValue(kInf).as_uint64(), kUint64Max);
    EXPECT_EQ(CValue(-kInf).as_uint64(), 0u);
    EXPECT_EQ(CValue(std::numeric_limits<float>::infinity()).as_int32(), kInt32Max);
}

TEST(KqValueTest, NaNReadsAsZeroInEveryIntegerType) {
    EXPECT_EQ(CValue(kNaN).as_int32(), 0);
    EXPECT_EQ(CValue(kNaN).as_uint32(), 0u);
    EXPECT_EQ(CValue(kNaN).as_int64(), 0);
    EXPECT_EQ(CValue(kNaN).as_uint64(), 0u);
    EXPECT_EQ(CValue(std::numeric_limits<float>::quiet_NaN()).as_int32(), 0);
}

TEST(KqValueTest, DoublesJustOutsideIntegerRangesSaturate) {
    EXPECT_EQ(CValue(2147483648.0).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(2147483647.9).as_int32(), kInt32Max);
    EXPECT_EQ(CValue(-2147483648.9).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(-2147483649.0).as_int32(), kInt32Min);
    EXPECT_EQ(CValue(4294967296.0).as_uint32(), kUint32Max);
    EXPECT_EQ(CValue(4294967295.0).as_uint32(), kUint32Max);
    // 2^63 and 2^64 are the first doubles past the 64-bit maxima.
    EXPECT_EQ(CValue(9223372036854775808.0).as_int64(), kInt64Max);
    EXPECT_EQ(CValue(-9223372036854775808.0).as_int64(), kInt64Min);
    EXPECT_EQ(CValue(-1e30).as_int64(), kInt64Min);
    EXPECT_EQ(CValue(18446744073709551616.0).as_uint64(), kUint64Max);
    EXPECT_EQ(CValue(1e30f).as_uint64(), kUint64Max);
}

TEST(KqValueTest, LargeDoubleBelowTwoToTheSixtyFourReadsExactlyAsUint64) {
    double const d = std::ldexp(1.0, 63);  // 2^63 fits an unsigned 64-bit
    EXPECT_EQ(CValue(d).as_uint64(), 9223372036854775808ULL);
}

// ---- Number to floating point --------------------------------------------------

TEST(KqValueTest, IntegersReadAsFloatingPointKeepTheirValue) {
    EXPECT_EQ(CValue(-3).as_double(), -3.0);
    EXPECT_EQ(CValue(kInt64Min).as_double(), -9223372036854775808.0);
    EXPECT_EQ(CValue(kUint64Max).as_double(), 18446744073709551616.0);
    EXPECT_EQ(CValue(1500u).as_float(), 1500.0f);
}

TEST(KqValueTest, IntegerReadAsFloatIsRoundedOnceNotTwice) {
    // 2^60 + 2^36 + 1 lies just above the midpoint of two floats; rounding it
    // to a double first would land exactly on the midpoint and round down.
    unsigned long long const v = (1ULL << 60) + (1ULL << 36) + 1;
    float const expected = std::ldexp(1.0f, 60) + std::ldexp(1.0f, 37);
    EXPECT_EQ(CValue(v).as_float(), expected);
}

TEST(KqValueTest, DoubleBeyondFloatRangeSaturatesToLargestFloat) {
    EXPECT_EQ(CValue(1e300).as_float(), std::numeric_limits<float>::max());
    EXPECT_EQ(CValue(-1e300).as_float(), std::numeric_limits<float>::lowest());
}

TEST(KqValueTest, InfinityAndNaNStayAsFloatingPoint) {
    EXPECT_EQ(CValue(kInf).as_float(), std::numeric_limits<float>::infinity());
    EXPECT_EQ(CValue(-kInf).as_double(), -kInf);
    EXPECT_TRUE(std::isnan(CValue(kNaN).as_float()));
    EXPECT_TRUE(std::isnan(CValue(kNaN).as_double()));
}

TEST(KqValueTest, FloatReadsAsDoubleExactly) {
    EXPECT_EQ(CValue(0.1f).as_double(), static_cast<double>(0.1f));
    EXPECT_EQ(CValue(0.1f).as_float(), 0.1f);
}

// ---- Number to string ------------------------------------------------------------

TEST(KqValueTest, IntegersBecomeDecimalText) {
    EXPECT_EQ(CValue(-42).as_string(), "-42");
    EXPECT_EQ(CValue(kInt64Min).as_string(), "-9223372036854775808");
    EXPECT_EQ(CValue(kUint64Max).as_string(), "18446744073709551615");
    EXPECT_EQ(CValue(kUint32Max).as_string(), "4294967295");
}

TEST(KqValueTest, FloatingPointBecomesShortestTextThatReadsBack) {
    EXPECT_EQ(CValue(12.5f).as_string(), "12.5");
    EXPECT_EQ(CValue(0.1f).as_string(), "0.1");
    EXPECT_EQ(CValue(0.1).as_string(), "0.1");
    EXPECT_EQ(CValue(1e20).as_string(), "1e+20");
    EXPECT_EQ(CValue(3.0).as_string(), "3");
    EXPECT_EQ(CValue(kInf).as_string(), "inf");
    EXPECT_EQ(CValue(-kInf).as_string(), "-inf");
    EXPECT_EQ(CValue(kNaN).as_string(), "nan");
    EXPECT_EQ(CValue(-kNaN).as_string(), "nan");
}

TEST(KqValueTest, FloatTextReadsBackToTheSameFloat) {
    for (float const f : {0.1f, 1.0f / 3.0f, 123456.789f, -7.25e-12f, 3.4e38f}) {
        EXPECT_EQ(CValue(CValue(f).as_string()).as_float(), f) << f;
    }
    for (double const d : {0.1, 1.0 / 3.0, -2.2250738585072014e-308, 1.7976931348623157e308}) {
        EXPECT_EQ(CValue(CValue(d).as_string()).as_double(), d) << d;
    }
}

// ---- String to number -------------------------------------------------------------

TEST(KqValueTest, IntegerTextParses) {
    EXPECT_EQ(CValue("1500").as_int32(), 1500);
    EXPECT_EQ(CValue("-3").as_int32(), -3);
    EXPECT_EQ(CValue("+7").as_uint32(), 7u);
    EXPECT_EQ(CValue("1500").as_float(), 1500.0f);
}

TEST(KqValueTest, SurroundingWhiteSpaceIsAllowed) {
    EXPECT_EQ(CValue(" 42 ").as_int32(), 42);
    EXPECT_EQ(CValue("\t42\n").as_uint64(), 42u);
    EXPECT_EQ(CValue(" 2.5 ").as_double(), 2.5);
    EXPECT_TRUE(CValue(" yes ").as_bool());
}

TEST(KqValueTest, TextBeyondUint32SaturatesAsUint32) {
    EXPECT_EQ(CValue("4294967296").as_uint32(), kUint32Max);
    EXPECT_EQ(CValue("4294967296").as_int32(), kInt32Max);
    EXPECT_EQ(CValue("4294967296").as_int64(), 4294967296LL);
}

TEST(KqValueTest, TextOfSixtyFourBitBoundsParsesExactly) {
    EXPECT_EQ(CValue("18446744073709551615").as_uint64(), kUint64Max);
    EXPECT_EQ(CValue("-9223372036854775808").as_int64(), kInt64Min);
    EXPECT_EQ(CValue("9223372036854775807").as_int64(), kInt64Max);
}

TEST(KqValueTest, TextBeyondSixtyFourBitsSaturates) {
    EXPECT_EQ(CValue("99999999999999999999999").as_uint64(), kUint64Max);
    EXPECT_EQ(CValue("99999999999999999999999").as_int64(), kInt64Max);
    EXPECT_EQ(CValue("-99999999999999999999999").as_int64(), kInt64Min);
    EXPECT_EQ(CValue("-99999999999999999999999").as_uint64(), 0u);
}

TEST(KqValueTest, NegativeTextReadAsUnsignedGivesZero) {
    EXPECT_EQ(CValue("-1").as_uint32(), 0u);
    EXPECT_EQ(CValue("-0.5").as_uint32(), 0u);
}

TEST(KqValueTest, DecimalTextReadAsIntegerIsTruncated) {
    EXPECT_EQ(CValue("12.5").as_int32(), 12);
    EXPECT_EQ(CValue("-12.5").as_int32(), -12);
    EXPECT_EQ(CValue("1e3").as_int32(), 1000);
    EXPECT_EQ(CValue("1e30").as_int32(), kInt32Max);
    EXPECT_EQ(CValue(".5").as_int32(), 0);
    EXPECT_EQ(CValue("5.").as_uint32(), 5u);
}

TEST(KqValueTest, DecimalTextParsesAsFloatingPoint) {
    EXPECT_EQ(CValue("12.5").as_float(), 12.5f);
    EXPECT_EQ(CValue("0.1").as_float(), 0.1f);
    EXPECT_EQ(CValue("0.1").as_double(), 0.1);
    EXPECT_EQ(CValue("-1E-3").as_double(), -0.001);
}

TEST(KqValueTest, TextBeyondFloatingRangeSaturatesAndTinyTextGivesZero) {
    EXPECT_EQ(CValue("1e400").as_double(), std::numeric_limits<double>::max());
    EXPECT_EQ(CValue("-1e400").as_double(), std::numeric_limits<double>::lowest());
    EXPECT_EQ(CValue("1e39").as_float(), std::numeric_limits<float>::max());
    EXPECT_EQ(CValue("1e-400").as_double(), 0.0);
    EXPECT_EQ(CValue("0.0000000000000000000000000000000000000000000001").as_float(), 0.0f);
}

TEST(KqValueTest, InfAndNanTextReadBack) {
    EXPECT_EQ(CValue("inf").as_double(), kInf);
    EXPECT_EQ(CValue("-inf").as_float(), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(CValue("nan").as_double()));
    EXPECT_EQ(CValue("inf").as_int32(), kInt32Max);
    EXPECT_EQ(CValue("nan").as_int32(), 0);
}

TEST(KqValueTest, TextThatIsNoNumberThrowsConversionError) {
    for (char const* text :
         {"abc", "", "   ", "12abc", "1 2", "0x10", "--1", "+", "1e", ".", "e5", "1.2.3"}) {
        EXPECT_THROW(CValue(text).as_int32(), ConversionError) << '"' << text << '"';
        EXPECT_THROW(CValue(text).as_double(), ConversionError) << '"' << text << '"';
    }
}

TEST(KqValueTest, ConversionErrorNamesTextAndTargetType) {
    try {
        (void)CValue("abc").as_uint32();
        FAIL() << "no exception";
    } catch (ConversionError const& e) {
        std::string const what = e.what();
        EXPECT_NE(what.find("\"abc\""), std::string::npos) << what;
        EXPECT_NE(what.find("uint32"), std::string::npos) << what;
    }
}

TEST(KqValueTest, TextReadsAsBoolByWordOrNumber) {
    for (char const* text : {"true", "TRUE", "Yes", "on", "1", "-2", "0.5"}) {
        EXPECT_TRUE(CValue(text).as_bool()) << text;
    }
    for (char const* text : {"false", "False", "NO", "Off", "0", "0.0", "nan"}) {
        EXPECT_FALSE(CValue(text).as_bool()) << text;
    }
}

TEST(KqValueTest, OtherTextAsBoolThrowsConversionError) {
    EXPECT_THROW(CValue("maybe").as_bool(), ConversionError);
    EXPECT_THROW(CValue("").as_bool(), ConversionError);
    EXPECT_THROW(CValue("truthy").as_bool(), ConversionError);
}

// ---- Timestamps and bytes ------------------------------------------------------------

TEST(KqValueTest, TimestampReadsAsItsMicroseconds) {
    CValue const v(CTimestamp{1700000000123456LL});
    EXPECT_EQ(v.as_int64(), 1700000000123456LL);
    EXPECT_EQ(v.as_int32(), kInt32Max);
    EXPECT_EQ(v.as_string(), "1700000000123456");
    EXPECT_EQ(v.as_double(), 1700000000123456.0);
    EXPECT_TRUE(v.as_bool());
    EXPECT_FALSE(CValue(CTimestamp{0}).as_bool());
    EXPECT_EQ(CValue(CTimestamp{-5}).as_uint32(), 0u);
}

TEST(KqValueTest, BytesAndStringConvertIntoEachOther) {
    CValue::Bytes const bytes{'h', 'i', 0, 0xff};
    EXPECT_EQ(CValue(bytes).as_string(), std::string("hi\0\xff", 4));
    EXPECT_EQ(CValue(std::string("hi")).as_bytes(), (CValue::Bytes{'h', 'i'}));
    EXPECT_EQ(CValue(bytes).as_bytes(), bytes);
}

TEST(KqValueTest, BytesReadAsNumberOrBoolThrow) {
    CValue const v(CValue::Bytes{1, 2});
    EXPECT_THROW(v.as_bool(), ConversionError);
    EXPECT_THROW(v.as_int32(), ConversionError);
    EXPECT_THROW(v.as_int64(), ConversionError);
    EXPECT_THROW(v.as_uint32(), ConversionError);
    EXPECT_THROW(v.as_uint64(), ConversionError);
    EXPECT_THROW(v.as_float(), ConversionError);
    EXPECT_THROW(v.as_double(), ConversionError);
}

TEST(KqValueTest, NumberReadAsBytesThrows) {
    EXPECT_THROW(CValue(5).as_bytes(), ConversionError);
    EXPECT_THROW(CValue(true).as_bytes(), ConversionError);
}

// ---- Equality ---------------------------------------------------------------------------

TEST(KqValueTest, EqualWhenSameAlternativeAndContents) {
    EXPECT_EQ(CValue(5), CValue(5));
    EXPECT_EQ(CValue("a"), CValue(std::string("a")));
    EXPECT_EQ(CValue(), CValue());
    EXPECT_EQ(CValue(CTimestamp{3}), CValue(CTimestamp{3}));
    EXPECT_NE(CValue(5), CValue(6));
}

TEST(KqValueTest, DifferentAlternativesAreNeverEqual) {
    EXPECT_NE(CValue(1), CValue(true));
    EXPECT_NE(CValue(1), CValue(1u));
    EXPECT_NE(CValue(1), CValue(1LL));
    EXPECT_NE(CValue(1.0f), CValue(1.0));
    EXPECT_NE(CValue("1"), CValue(1));
    EXPECT_NE(CValue(), CValue(0));
    EXPECT_NE(CValue(""), CValue());
}

TEST(KqValueTest, NaNIsNotEqualToItself) {
    EXPECT_NE(CValue(kNaN), CValue(kNaN));
}

// ---- Names -----------------------------------------------------------------------------

TEST(KqValueTest, TypeNameNamesEachAlternative) {
    EXPECT_STREQ(kq::typeName(CValue::Type::Invalid), "invalid");
    EXPECT_STREQ(kq::typeName(CValue::Type::Bool), "bool");
    EXPECT_STREQ(kq::typeName(CValue::Type::Int32), "int32");
    EXPECT_STREQ(kq::typeName(CValue::Type::Int64), "int64");
    EXPECT_STREQ(kq::typeName(CValue::Type::Uint32), "uint32");
    EXPECT_STREQ(kq::typeName(CValue::Type::Uint64), "uint64");
    EXPECT_STREQ(kq::typeName(CValue::Type::Float), "float");
    EXPECT_STREQ(kq::typeName(CValue::Type::Double), "double");
    EXPECT_STREQ(kq::typeName(CValue::Type::Timestamp), "timestamp");
    EXPECT_STREQ(kq::typeName(CValue::Type::String), "string");
    EXPECT_STREQ(kq::typeName(CValue::Type::ByteVector), "bytes");
    EXPECT_STREQ(kq::typeName(static_cast<CValue::Type>(99)), "unknown");
}

TEST(KqValueTest, DebugStringShowsTypeAndValue) {
    EXPECT_EQ(CValue().toDebugString(), "invalid");
    EXPECT_EQ(CValue(12.5f).toDebugString(), "float 12.5");
    EXPECT_EQ(CValue("abc").toDebugString(), "string \"abc\"");
    EXPECT_EQ(CValue(true).toDebugString(), "bool true");
    EXPECT_EQ(CValue(-4).toDebugString(), "int32 -4");
    EXPECT_EQ(CValue(7ULL).toDebugString(), "uint64 7");
    EXPECT_EQ(CValue(CTimestamp{9}).toDebugString(), "timestamp 9");
    EXPECT_EQ(CValue(CValue::Bytes{0x01, 0xab}).toDebugString(), "bytes [01 ab]");
}

// ---- modbus::to_string(ByteOrder) --------------------------------------------------------

TEST(ByteOrderTest, ToStringNamesEachOrder) {
    EXPECT_EQ(modbus::to_string(modbus::ByteOrder::Standard), "Standard");
    EXPECT_EQ(modbus::to_string(modbus::ByteOrder::WordSwapped), "WordSwapped");
    EXPECT_EQ(modbus::to_string(modbus::ByteOrder::ByteSwapped), "ByteSwapped");
    EXPECT_EQ(modbus::to_string(modbus::ByteOrder::WordByteSwapped), "WordByteSwapped");
}

TEST(ByteOrderTest, ToStringOfUnknownValueShowsTheNumber) {
    EXPECT_EQ(modbus::to_string(static_cast<modbus::ByteOrder>(4)), "Unknown(4)");
    EXPECT_EQ(modbus::to_string(static_cast<modbus::ByteOrder>(65535)), "Unknown(65535)");
}

}  // namespace
