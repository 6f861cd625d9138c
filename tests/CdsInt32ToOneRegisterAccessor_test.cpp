// CdsInt32ToOneRegisterAccessor over a real channel accessor on the host
// store: an int32 scaled in double precision, saturated, wrapped into one
// register; the full value as text; unsigned registers written back.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "golden/one_register_vectors.h"
#include "listener_slot.h"
#include "modbus/CdsInt32ToOneRegisterAccessor.h"

namespace {

using modbus::CdsInt32ToOneRegisterAccessor;
using Registers = std::vector<std::uint16_t>;

class CdsInt32ToOneRegisterAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const channel = world.addChannel("Value", kq::CValue(0));

    std::unique_ptr<CdsInt32ToOneRegisterAccessor> encoder(float multiplier) {
        return std::make_unique<CdsInt32ToOneRegisterAccessor>(world.newChannelAccessor("Value"),
                                                               multiplier);
    }
    void store(int value) { world.store.setChannelValue(channel, kq::CValue(value)); }
    kq::CValue stored() const { return world.store.channelValue(channel); }
};

// ---- The edge cases of the rule, one by one ---------------------------------

TEST_F(CdsInt32ToOneRegisterAccessorTest, MinusOneReadsAsAllOnesButWritingAllOnesStores65535) {
    auto const subject = encoder(1.0f);
    store(-1);
    EXPECT_EQ(subject->getData(), Registers{0xFFFF});
    subject->setData({0xFFFF});
    EXPECT_EQ(stored(), kq::CValue(65535));
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, HalfMultiplierTruncatesSevenToThreeAndWritesThreeAsSix) {
    auto const subject = encoder(0.5f);
    store(7);
    EXPECT_EQ(subject->getData(), Registers{3});
    EXPECT_EQ(subject->getStrValue(), "3");
    subject->setData({3});
    EXPECT_EQ(stored(), kq::CValue(6));
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, TextIsTheFullProductNotTheSentLowWord) {
    auto const subject = encoder(1.0f);
    store(70000);
    EXPECT_EQ(subject->getData(), Registers{4464});
    EXPECT_EQ(subject->getStrValue(), "70000");
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, ProductSaturatesInsteadOfOverflowing) {
    auto const subject = encoder(2.0f);
    store(std::numeric_limits<int>::max());
    EXPECT_EQ(subject->getStrValue(), "2147483647");
    EXPECT_EQ(subject->multiplyData(std::numeric_limits<int>::min()),
              std::numeric_limits<int>::min());
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, WriteWithAScaleSaturatesTheResult) {
    auto const subject = encoder(0.0f);
    subject->setData({5});
    EXPECT_EQ(stored(), kq::CValue(std::numeric_limits<int>::max()));
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, EmptyWriteStoresZero) {
    store(9);
    auto const subject = encoder(0.5f);
    subject->setData({});
    EXPECT_EQ(stored(), kq::CValue(0));
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, WriteUsesOnlyTheFirstRegister) {
    auto const subject = encoder(1.0f);
    subject->setData({3, 4});
    EXPECT_EQ(stored(), kq::CValue(3));
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, WriteStoresAnInt32Value) {
    auto const subject = encoder(0.5f);
    subject->setData({3});
    EXPECT_EQ(stored().type(), kq::CValue::Type::Int32);
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, ReportsInt16AndOneRegister) {
    auto const subject = encoder(1.0f);
    EXPECT_EQ(subject->getDataRepresentation(), "Int16");
    EXPECT_EQ(subject->getSizeInRegister(), 1u);
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, ByteOrderIsIgnored) {
    auto const subject = encoder(1.0f);
    store(-2);
    subject->setByteOrder(modbus::ByteOrder::WordByteSwapped);
    EXPECT_EQ(subject->getData(), Registers{0xFFFE});
    subject->setData({0x0102});
    EXPECT_EQ(stored(), kq::CValue(0x0102));
}

// ---- Availability -------------------------------------------------------------

TEST_F(CdsInt32ToOneRegisterAccessorTest, MissingItemReadsEmptyAndDropsWrites) {
    CdsInt32ToOneRegisterAccessor subject(world.newChannelAccessor("Missing"), 1.0f);
    EXPECT_FALSE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Registers{});
    EXPECT_EQ(subject.getStrValue(), "");
    subject.setData({5});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(subject.getSizeInRegister(), 1u);
    EXPECT_EQ(subject.getDataRepresentation(), "Int16");
}

// ---- Pushes -------------------------------------------------------------------

TEST_F(CdsInt32ToOneRegisterAccessorTest, PushEncodesTheNewValueForTheListener) {
    auto const subject = encoder(0.5f);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store(-7);
    EXPECT_EQ(pushes.received, std::vector<Registers>{{0xFFFD}});
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, ReplacedListenerNoLongerHearsChanges) {
    auto const subject = encoder(1.0f);
    encoder_test::Pushes<std::uint16_t> first;
    encoder_test::Pushes<std::uint16_t> second;
    subject->setCallback(first.listener());
    store(1);
    subject->setCallback(second.listener());
    store(2);
    EXPECT_EQ(first.received, std::vector<Registers>{{1}});
    EXPECT_EQ(second.received, std::vector<Registers>{{2}});
}

// ---- Failures -----------------------------------------------------------------

TEST_F(CdsInt32ToOneRegisterAccessorTest, ReadAndWriteFailuresOfTheStorePropagate) {
    auto const subject = encoder(1.0f);
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({1}), cdshost::InjectedFault);
}

// ---- Ownership ----------------------------------------------------------------

TEST_F(CdsInt32ToOneRegisterAccessorTest, DestroyingTheEncoderDestroysAnAdoptedAccessor) {
    auto subject = encoder(1.0f);
    ASSERT_EQ(world.valueSubscriptions(channel), 1u);
    subject.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 0u);
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, DestroyingTheEncoderLeavesASharedAccessorAlive) {
    auto const shared = world.sharedChannelAccessor("Value");
    auto subject = std::make_unique<CdsInt32ToOneRegisterAccessor>(shared, 1.0f);
    subject.reset();
    shared->setUpdateCallback({});  // the encoder's binding is the sharer's to withdraw
    EXPECT_EQ(world.valueSubscriptions(channel), 1u);
    EXPECT_TRUE(shared->isExitingInCds());
}

// ---- Literal registers over boundary inputs ---------------------------------

class CdsInt32ToOneRegisterAccessorReadTable
    : public CdsInt32ToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::Int32ReadVector> {};

TEST_P(CdsInt32ToOneRegisterAccessorReadTable, RegisterAndTextMatchTheLiterals) {
    golden::Int32ReadVector const& row = GetParam();
    auto const subject = encoder(row.multiplier);
    store(row.value);
    EXPECT_EQ(subject->getData(), Registers{row.reg});
    EXPECT_EQ(subject->getStrValue(), row.text);
    EXPECT_EQ(subject->buildArrayFromInt32(row.value), Registers{row.reg});
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsInt32ToOneRegisterAccessorReadTable,
                         ::testing::ValuesIn(golden::kInt32Reads),
                         [](auto const& info) { return std::string(info.param.name); });

class CdsInt32ToOneRegisterAccessorWriteTable
    : public CdsInt32ToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::Int32WriteVector> {};

TEST_P(CdsInt32ToOneRegisterAccessorWriteTable, StoredValueMatchesTheLiteral) {
    golden::Int32WriteVector const& row = GetParam();
    store(-123);
    auto const subject = encoder(row.multiplier);
    subject->setData(row.registers);
    EXPECT_EQ(stored(), kq::CValue(static_cast<int>(row.stored)));
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsInt32ToOneRegisterAccessorWriteTable,
                         ::testing::ValuesIn(golden::int32Writes()),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Laws over generated inputs ----------------------------------------------

/* The double-precision product of value and multiplier, truncated toward
 * zero and clamped to int32, with NaN as 0. */
std::int64_t expectedProduct(std::int32_t value, float multiplier) {
    double const product = static_cast<double>(value) * static_cast<double>(multiplier);
    if (std::isnan(product)) {
        return 0;
    }
    double const truncated = std::trunc(product);
    if (truncated <= -2147483648.0) {
        return std::numeric_limits<std::int32_t>::min();
    }
    if (truncated >= 2147483647.0) {
        return std::numeric_limits<std::int32_t>::max();
    }
    return static_cast<std::int64_t>(truncated);
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, GeneratedReadsSendTheLowWordAndShowTheFullProduct) {
    std::mt19937 random(4242u);
    std::uniform_int_distribution<std::int32_t> values(std::numeric_limits<std::int32_t>::min(),
                                                       std::numeric_limits<std::int32_t>::max());
    std::uniform_int_distribution<std::int32_t> smallValues(-200000, 200000);
    std::uniform_real_distribution<float> multipliers(-4.0f, 4.0f);
    for (int i = 0; i < 30; ++i) {
        float const multiplier = i == 0 ? 1.0f : multipliers(random);
        auto const subject = encoder(multiplier);
        for (int j = 0; j < 100; ++j) {
            std::int32_t const value = j % 2 == 0 ? values(random) : smallValues(random);
            world.store.setChannelValue(channel, kq::CValue(value), false);
            std::int64_t const product = expectedProduct(value, multiplier);
            // Two's complement modulo 65536, computed on a non-negative number.
            auto const low = static_cast<std::uint16_t>((product % 65536 + 65536) % 65536);
            ASSERT_EQ(subject->getData(), Registers{low}) << value << " * " << multiplier;
            ASSERT_EQ(subject->getStrValue(), std::to_string(product));
        }
    }
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, GeneratedWritesWithMultiplierOneReadBackUnchanged) {
    std::mt19937 random(17u);
    std::uniform_int_distribution<int> registers(0, 65535);
    auto const subject = encoder(1.0f);
    for (int j = 0; j < 3000; ++j) {
        auto const reg = static_cast<std::uint16_t>(registers(random));
        subject->setData({reg});
        ASSERT_EQ(stored(), kq::CValue(static_cast<int>(reg)));  // never sign-extended
        ASSERT_EQ(subject->getData(), Registers{reg});
    }
}

TEST_F(CdsInt32ToOneRegisterAccessorTest, GeneratedScaledWritesTruncateRegisterTimesReciprocal) {
    std::mt19937 random(23u);
    std::uniform_int_distribution<int> registers(0, 65535);
    std::uniform_real_distribution<float> multipliers(-3.0f, 3.0f);
    for (int i = 0; i < 30; ++i) {
        float const multiplier = multipliers(random);
        auto const subject = encoder(multiplier);
        auto const reciprocal = static_cast<float>(1.0 / static_cast<double>(multiplier));
        for (int j = 0; j < 100; ++j) {
            auto const reg = static_cast<std::uint16_t>(registers(random));
            subject->setData({reg});
            double const exact = static_cast<double>(reg) * static_cast<double>(reciprocal);
            double const truncated = std::trunc(exact);
            int const expected = truncated >= 2147483647.0    ? std::numeric_limits<int>::max()
                                 : truncated <= -2147483648.0 ? std::numeric_limits<int>::min()
                                                              : static_cast<int>(truncated);
            ASSERT_EQ(stored(), kq::CValue(expected)) << reg << " / " << multiplier;
        }
    }
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsInt32ToOneRegisterAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsInt32ToOneRegisterAccessor>(source, 1.0f);
}

TEST(CdsInt32ToOneRegisterAccessorLifecycle,
     DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsInt32ToOneRegisterAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsInt32ToOneRegisterAccessorLifecycle,
     DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
