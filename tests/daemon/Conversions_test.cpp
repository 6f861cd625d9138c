// The named conversion functions of composite entries.
#include <gtest/gtest.h>

#include "Conversions.h"

namespace tarsel::daemon {
namespace {

TEST(ConversionsTest, StatusWordPacksSourceIAsBitI) {
    auto const f = makeRegisterConversions("status-word", 3);
    EXPECT_EQ(f.dataToRegisters({kq::CValue(true), kq::CValue(false), kq::CValue(true)}),
              (std::vector<uint16_t>{0x0005}));
    EXPECT_EQ(f.dataToString({kq::CValue(true), kq::CValue(false), kq::CValue(true)}), "0x0005");
}

TEST(ConversionsTest, StatusWordReadsInvalidAndUnparsableValuesAsClearBits) {
    auto const f = makeRegisterConversions("status-word", 3);
    EXPECT_EQ(f.dataToRegisters({kq::CValue(), kq::CValue("maybe"), kq::CValue(7)}),
              (std::vector<uint16_t>{0x0004}));
}

TEST(ConversionsTest, StatusWordWriteGivesOneBooleanPerSource) {
    auto const f = makeRegisterConversions("status-word", 3);
    EXPECT_EQ(f.registersToData({0x0006}),
              (std::vector<kq::CValue>{kq::CValue(false), kq::CValue(true), kq::CValue(true)}));
}

TEST(ConversionsTest, KiloCounterIsThousandsPlusUnitsHighWordFirst) {
    auto const f = makeRegisterConversions("kilo-counter32", 2);
    // 1234 kWh + 567 Wh = 1234567 Wh = 0x0012D687
    EXPECT_EQ(f.dataToRegisters({kq::CValue(1234u), kq::CValue(567u)}),
              (std::vector<uint16_t>{0x0012, 0xD687}));
    EXPECT_EQ(f.dataToString({kq::CValue(1234u), kq::CValue(567u)}), "1234567");
}

TEST(ConversionsTest, KiloCounterWriteSplitsTheValueBack) {
    auto const f = makeRegisterConversions("kilo-counter32", 2);
    EXPECT_EQ(f.registersToData({0x0012, 0xD687}),
              (std::vector<kq::CValue>{kq::CValue(1234u), kq::CValue(567u)}));
}

TEST(ConversionsTest, KiloCounterSaturatesAtTheLargestUint32) {
    auto const f = makeRegisterConversions("kilo-counter32", 2);
    EXPECT_EQ(f.dataToRegisters({kq::CValue(4294967295u), kq::CValue(999u)}),
              (std::vector<uint16_t>{0xFFFF, 0xFFFF}));
}

TEST(ConversionsTest, StatusBitsGiveOneDiscretePerSource) {
    auto const f = makeDiscreteConversions("status-bits", 3);
    EXPECT_EQ(f.dataToDiscretes({kq::CValue(false), kq::CValue(true), kq::CValue()}),
              (std::vector<bool>{false, true, false}));
    EXPECT_EQ(f.discretesToData({true, false}),
              (std::vector<kq::CValue>{kq::CValue(true), kq::CValue(false)}));
}

TEST(ConversionsTest, AnyTrueIsSetWhileOneSourceIsTrueAndCannotBeWritten) {
    auto const f = makeDiscreteConversions("any-true", 3);
    EXPECT_EQ(f.dataToDiscretes({kq::CValue(false), kq::CValue(), kq::CValue(true)}),
              (std::vector<bool>{true}));
    EXPECT_EQ(f.dataToDiscretes({kq::CValue(false), kq::CValue()}), (std::vector<bool>{false}));
    EXPECT_FALSE(f.discretesToData);
}

TEST(ConversionsTest, UnknownNamesAreRefused) {
    EXPECT_THROW(makeRegisterConversions("status-bits", 1), std::invalid_argument);
    EXPECT_THROW(makeDiscreteConversions("status-word", 1), std::invalid_argument);
}

TEST(ConversionsTest, EveryFunctionDeclaresAWorkingMaker) {
    for (auto const& function : compositeFunctions()) {
        if (function.registers) {
            EXPECT_NO_THROW(makeRegisterConversions(function.name, function.minSources));
        } else {
            EXPECT_NO_THROW(makeDiscreteConversions(function.name, function.minSources));
        }
    }
}

}  // namespace
}  // namespace tarsel::daemon
