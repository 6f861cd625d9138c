// The register pairs the linked libmodbus gives for floats, in both of the
// float encoder's byte orders and both directions. CdsFloatAccessor serves
// exactly these words, and they have changed between libmodbus releases, so a
// build against another libmodbus must fail here first, saying what it does.
#include <gtest/gtest.h>
#include <modbus.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>

#include "golden/float_vectors.h"

namespace golden {

/* GoogleTest shows a parameter by its name and bits instead of its raw bytes. */
void PrintTo(FloatVector const& vector, std::ostream* out) {
    *out << vector.name << " " << hex(vector.bits);
}

}  // namespace golden

namespace {

using golden::FloatVector;
using golden::hex;
using golden::Pair;

float floatOfBits(std::uint32_t bits) {
    float value = 0.0f;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

std::uint32_t bitsOfFloat(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

Pair setDcba(float value) {
    Pair pair{0, 0};
    modbus_set_float_dcba(value, pair.data());
    return pair;
}

Pair setBadc(float value) {
    Pair pair{0, 0};
    modbus_set_float_badc(value, pair.data());
    return pair;
}

std::uint32_t getDcbaBits(Pair const& pair) {
    return bitsOfFloat(modbus_get_float_dcba(pair.data()));
}
std::uint32_t getBadcBits(Pair const& pair) {
    return bitsOfFloat(modbus_get_float_badc(pair.data()));
}

/* Decodes the pair a getter reads as 12.5 by trying the four byte layouts of
 * 0x41480000 that the known releases use. */
Pair observedDecodePairOf12_5(std::uint32_t (*get)(Pair const&)) {
    Pair const candidates[] = {
        {0x4148, 0x0000}, {0x0000, 0x4148}, {0x4841, 0x0000}, {0x0000, 0x4841}};
    for (Pair const& candidate : candidates) {
        if (get(candidate) == 0x41480000u) {
            return candidate;
        }
    }
    return {0xFFFF, 0xFFFF};
}

/* What the linked library does with 12.5, which known layout that is, and
 * which libmodbus this binary is built and running against: printed with
 * every failure of this file. */
std::string linkedLayoutReport() {
    float const twelvePointFive = 12.5f;
    Pair const dcba = setDcba(twelvePointFive);
    Pair const badc = setBadc(twelvePointFive);
    Pair const readDcba = observedDecodePairOf12_5(getDcbaBits);
    Pair const readBadc = observedDecodePairOf12_5(getBadcBits);

    std::ostringstream report;
    report << "\n  linked libmodbus: built against " << LIBMODBUS_VERSION_STRING << ", running "
           << libmodbus_version_major << "." << libmodbus_version_minor << "."
           << libmodbus_version_micro << "\n  observed for 12.5: set_dcba " << hex(dcba)
           << ", set_badc " << hex(badc) << ", get_dcba reads it from " << hex(readDcba)
           << ", get_badc from " << hex(readBadc) << "\n  known layout: ";
    char const* name = "none of the known layouts";
    for (golden::KnownLayout const& known : golden::kKnownLayouts) {
        if (known.setDcba == dcba && known.setBadc == badc && known.getDcbaOf12_5 == readDcba &&
            known.getBadcOf12_5 == readBadc) {
            name = known.releases;
        }
    }
    report << name
           << "\n  (update tests/golden/float_vectors.h only if the new words are meant "
              "to go on the wire)";
    return report.str();
}

class LibmodbusFloatLayoutTest : public ::testing::TestWithParam<FloatVector> {};

TEST_P(LibmodbusFloatLayoutTest, SetFloatDcbaGivesPinnedPair) {
    FloatVector const& vector = GetParam();
    Pair const observed = setDcba(floatOfBits(vector.bits));
    EXPECT_EQ(observed, vector.setDcba)
        << "bits " << hex(vector.bits) << ": observed " << hex(observed) << ", pinned "
        << hex(vector.setDcba) << linkedLayoutReport();
}

TEST_P(LibmodbusFloatLayoutTest, SetFloatBadcGivesPinnedPair) {
    FloatVector const& vector = GetParam();
    Pair const observed = setBadc(floatOfBits(vector.bits));
    EXPECT_EQ(observed, vector.setBadc)
        << "bits " << hex(vector.bits) << ": observed " << hex(observed) << ", pinned "
        << hex(vector.setBadc) << linkedLayoutReport();
}

TEST_P(LibmodbusFloatLayoutTest, GetFloatDcbaDecodesPinnedPairBitForBit) {
    FloatVector const& vector = GetParam();
    std::uint32_t const observed = getDcbaBits(vector.getDcba);
    EXPECT_EQ(observed, vector.bits) << hex(vector.getDcba) << " decodes to " << hex(observed)
                                     << ", pinned " << hex(vector.bits) << linkedLayoutReport();
}

TEST_P(LibmodbusFloatLayoutTest, GetFloatBadcDecodesPinnedPairBitForBit) {
    FloatVector const& vector = GetParam();
    std::uint32_t const observed = getBadcBits(vector.getBadc);
    EXPECT_EQ(observed, vector.bits) << hex(vector.getBadc) << " decodes to " << hex(observed)
                                     << ", pinned " << hex(vector.bits) << linkedLayoutReport();
}

TEST_P(LibmodbusFloatLayoutTest, SetFloatBadcIsSetFloatDcbaWithRegistersExchanged) {
    FloatVector const& vector = GetParam();
    Pair const dcba = setDcba(floatOfBits(vector.bits));
    Pair const badc = setBadc(floatOfBits(vector.bits));
    EXPECT_EQ(badc[0], dcba[1]) << "dcba " << hex(dcba) << ", badc " << hex(badc)
                                << linkedLayoutReport();
    EXPECT_EQ(badc[1], dcba[0]) << "dcba " << hex(dcba) << ", badc " << hex(badc)
                                << linkedLayoutReport();
}

std::string vectorName(::testing::TestParamInfo<FloatVector> const& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(PinnedFloats, LibmodbusFloatLayoutTest,
                         ::testing::ValuesIn(golden::kFloatVectors), vectorName);

TEST(LibmodbusFloatLayout, PairWrittenByDcbaDoesNotDecodeBackToTheSameFloat) {
    Pair const written = setDcba(12.5f);
    std::uint32_t const readBack = getDcbaBits(written);
    EXPECT_EQ(readBack, golden::kTwelvePointFiveWrittenBackDcbaBits)
        << hex(written) << " decodes to " << hex(readBack) << linkedLayoutReport();
    EXPECT_NE(readBack, 0x41480000u) << linkedLayoutReport();
}

TEST(LibmodbusFloatLayout, PairWrittenByBadcDoesNotDecodeBackToTheSameFloat) {
    Pair const written = setBadc(12.5f);
    std::uint32_t const readBack = getBadcBits(written);
    EXPECT_EQ(readBack, golden::kTwelvePointFiveWrittenBackBadcBits)
        << hex(written) << " decodes to " << hex(readBack) << linkedLayoutReport();
    EXPECT_NE(readBack, 0x41480000u) << linkedLayoutReport();
}

TEST(LibmodbusFloatLayout, SingleRegisterWithZeroSecondWordDecodesToPinnedBits) {
    EXPECT_EQ(getDcbaBits(golden::kSingleRegister1234), golden::kSingleRegister1234DcbaBits)
        << linkedLayoutReport();
    EXPECT_EQ(getBadcBits(golden::kSingleRegister1234), golden::kSingleRegister1234BadcBits)
        << linkedLayoutReport();
}

TEST(LibmodbusFloatLayout, LinkedLibraryMatchesOneKnownLayout) {
    std::string const report = linkedLayoutReport();
    EXPECT_EQ(report.find("none of the known layouts"), std::string::npos) << report;
    EXPECT_NE(report.find("3.1.8 to 3.1.10"), std::string::npos) << report;
}

}  // namespace
