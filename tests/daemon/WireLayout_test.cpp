// The four wire layouts of 32-bit values, both directions, against the
// golden table: the same value in ABCD, CDAB, BADC and DCBA.
#include <gtest/gtest.h>

#include <cmath>

#include "WireLayout.h"
#include "golden/wire_layout_vectors.h"

namespace tarsel::daemon {
namespace {

constexpr WireLayout kAll[] = {WireLayout::ABCD, WireLayout::CDAB, WireLayout::BADC,
                               WireLayout::DCBA};

template <typename T>
WordPair expected(golden::Wire32Vector<T> const& vector, WireLayout layout) {
    switch (layout) {
        case WireLayout::ABCD:
            return vector.abcd;
        case WireLayout::CDAB:
            return vector.cdab;
        case WireLayout::BADC:
            return vector.badc;
        case WireLayout::DCBA:
            return vector.dcba;
    }
    return {};
}

TEST(WireLayoutTest, FloatsEncodeToTheGoldenWordsInEveryLayout) {
    for (auto const& vector : golden::kFloat32Vectors) {
        EXPECT_EQ(bitsOfFloat(vector.value), vector.bits) << vector.name;
        for (WireLayout const layout : kAll) {
            EXPECT_EQ(wordsOfFloat(vector.value, layout), expected(vector, layout))
                << vector.name << " " << wireLayoutName(layout);
        }
    }
}

TEST(WireLayoutTest, GoldenWordsDecodeToTheSameFloatBitsInEveryLayout) {
    for (auto const& vector : golden::kFloat32Vectors) {
        for (WireLayout const layout : kAll) {
            // Compared as bits: NaN is not equal to itself.
            EXPECT_EQ(bitsOfFloat(floatOfWords(expected(vector, layout), layout)), vector.bits)
                << vector.name << " " << wireLayoutName(layout);
        }
    }
}

TEST(WireLayoutTest, SignedIntegersRoundTripThroughTheGoldenWordsInEveryLayout) {
    for (auto const& vector : golden::kInt32Vectors) {
        for (WireLayout const layout : kAll) {
            EXPECT_EQ(wordsOfInt32(vector.value, layout), expected(vector, layout))
                << vector.name << " " << wireLayoutName(layout);
            EXPECT_EQ(int32OfWords(expected(vector, layout), layout), vector.value)
                << vector.name << " " << wireLayoutName(layout);
        }
    }
}

TEST(WireLayoutTest, UnsignedIntegersRoundTripThroughTheGoldenWordsInEveryLayout) {
    for (auto const& vector : golden::kUint32Vectors) {
        for (WireLayout const layout : kAll) {
            EXPECT_EQ(wordsOfUint32(vector.value, layout), expected(vector, layout))
                << vector.name << " " << wireLayoutName(layout);
            EXPECT_EQ(uint32OfWords(expected(vector, layout), layout), vector.value)
                << vector.name << " " << wireLayoutName(layout);
        }
    }
}

TEST(WireLayoutTest, NamesAreTheFourLayoutsAndNothingElse) {
    for (WireLayout const layout : kAll) {
        EXPECT_EQ(wireLayoutFromName(wireLayoutName(layout)), layout);
    }
    EXPECT_EQ(wireLayoutNames(), (std::vector<std::string>{"ABCD", "CDAB", "BADC", "DCBA"}));
    EXPECT_FALSE(wireLayoutFromName("abcd"));
    EXPECT_FALSE(wireLayoutFromName("standard"));
}

}  // namespace
}  // namespace tarsel::daemon
