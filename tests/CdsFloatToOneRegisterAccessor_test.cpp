// CdsFloatToOneRegisterAccessor over a real channel accessor on the host
// store: scaled, offset and rounded floats in one register, the truncated
// text, the reciprocal on writes, availability, pushes and ownership.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "golden/one_register_vectors.h"
#include "listener_slot.h"
#include "modbus/CdsFloatToOneRegisterAccessor.h"

namespace {

using modbus::CdsFloatToOneRegisterAccessor;
using Registers = std::vector<std::uint16_t>;

std::uint32_t bitsOf(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

class CdsFloatToOneRegisterAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const channel = world.addChannel("Value", kq::CValue(0.0f));

    std::unique_ptr<CdsFloatToOneRegisterAccessor> encoder(float multiplier, float offset) {
        return std::make_unique<CdsFloatToOneRegisterAccessor>(world.newChannelAccessor("Value"),
                                                               multiplier, offset);
    }
    void store(float value) { world.store.setChannelValue(channel, kq::CValue(value)); }
    kq::CValue stored() const { return world.store.channelValue(channel); }
};

// ---- The edge cases of the rule, one by one ---------------------------------

TEST_F(CdsFloatToOneRegisterAccessorTest, TimesTenSendsTwelveAndAHalfAsThirteenButShowsTwelve) {
    auto const subject = encoder(10.0f, 0.0f);
    store(1.25f);
    EXPECT_EQ(subject->getData(), Registers{13});
    EXPECT_EQ(subject->getStrValue(), "12");
}

TEST_F(CdsFloatToOneRegisterAccessorTest, NegativeResultIsSentAsItsMagnitudeButShownAsZero) {
    auto const subject = encoder(10.0f, 0.0f);
    store(-1.25f);
    EXPECT_EQ(subject->getData(), Registers{13});
    EXPECT_EQ(subject->getStrValue(), "0");
}

TEST_F(CdsFloatToOneRegisterAccessorTest, SeventyThousandIsSentAsItsLowSixteenBits) {
    auto const subject = encoder(10.0f, 0.0f);
    store(7000.0f);
    EXPECT_EQ(subject->getData(), Registers{4464});
}

TEST_F(CdsFloatToOneRegisterAccessorTest, WriteSubtractsTheOffsetThenMultipliesByTheReciprocal) {
    auto const subject = encoder(0.1f, -40.0f);
    subject->setData({650});
    EXPECT_EQ(stored(), kq::CValue(6900.0f));
}

TEST_F(CdsFloatToOneRegisterAccessorTest, WriteComputesTheReciprocalBeforeMultiplying) {
    auto const subject = encoder(3.0f, 0.0f);
    subject->setData({5});
    // 5 * (1/3f) = 1.66666675f; dividing 5 by 3 would store 1.66666663f.
    EXPECT_EQ(bitsOf(stored().as_float()), 0x3FD55556u);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, TextIsTheTruncatedValueNotTheRoundedRegister) {
    auto const subject = encoder(1.0f, 0.0f);
    store(12.7f);
    EXPECT_EQ(subject->getData(), Registers{13});
    EXPECT_EQ(subject->getStrValue(), "12");
}

TEST_F(CdsFloatToOneRegisterAccessorTest, OffsetIsAddedAfterTheProductIsRounded) {
    auto const subject = encoder(4097.0f, -16785408.0f);
    EXPECT_EQ(subject->multiplyAndOffsetData(4097.0f), 0.0f);
    EXPECT_EQ(subject->buildArrayFromFloat(4097.0f), Registers{0});
}

TEST_F(CdsFloatToOneRegisterAccessorTest, EmptyWriteStoresZero) {
    store(5.0f);
    auto const subject = encoder(2.0f, 7.0f);
    subject->setData({});
    EXPECT_EQ(stored(), kq::CValue(0.0f));
}

TEST_F(CdsFloatToOneRegisterAccessorTest, WriteUsesOnlyTheFirstRegister) {
    auto const subject = encoder(1.0f, 0.0f);
    subject->setData({7, 9, 11});
    EXPECT_EQ(stored(), kq::CValue(7.0f));
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ZeroMultiplierWritesInfinityAndReadsZero) {
    auto const subject = encoder(0.0f, 0.0f);
    subject->setData({5});
    EXPECT_EQ(stored(), kq::CValue(std::numeric_limits<float>::infinity()));
    store(123.0f);
    EXPECT_EQ(subject->getData(), Registers{0});
    EXPECT_EQ(subject->getStrValue(), "0");
}

TEST_F(CdsFloatToOneRegisterAccessorTest, WriteStoresAFloatValue) {
    auto const subject = encoder(1.0f, 0.0f);
    subject->setData({12});
    EXPECT_EQ(stored().type(), kq::CValue::Type::Float);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ReportsInt16AndOneRegister) {
    auto const subject = encoder(1.0f, 0.0f);
    EXPECT_EQ(subject->getDataRepresentation(), "Int16");
    EXPECT_EQ(subject->getSizeInRegister(), 1u);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ByteOrderIsIgnored) {
    auto const subject = encoder(1.0f, 0.0f);
    store(12.5f);
    subject->setByteOrder(modbus::ByteOrder::ByteSwapped);
    EXPECT_EQ(subject->getData(), Registers{13});
    EXPECT_EQ(subject->getDataRepresentation(), "Int16");
    subject->setData({3});
    EXPECT_EQ(stored(), kq::CValue(3.0f));
}

// ---- Availability -------------------------------------------------------------

TEST_F(CdsFloatToOneRegisterAccessorTest, MissingItemReadsEmptyAndDropsWrites) {
    CdsFloatToOneRegisterAccessor subject(world.newChannelAccessor("Missing"), 1.0f, 0.0f);
    EXPECT_FALSE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Registers{});
    EXPECT_EQ(subject.getStrValue(), "");
    subject.setData({5});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(subject.getSizeInRegister(), 1u);
    EXPECT_EQ(subject.getDataRepresentation(), "Int16");
}

TEST_F(CdsFloatToOneRegisterAccessorTest, BecomesAvailableWhenTheChannelAppears) {
    CdsFloatToOneRegisterAccessor subject(world.newChannelAccessor("Later"), 1.0f, 0.0f);
    ASSERT_FALSE(subject.isDataAvailable());
    world.addChannel("Later", kq::CValue(42.4f));
    EXPECT_TRUE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Registers{42});
}

// ---- Pushes -------------------------------------------------------------------

TEST_F(CdsFloatToOneRegisterAccessorTest, PushEncodesTheNewValueForTheListener) {
    auto const subject = encoder(10.0f, 0.0f);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store(1.25f);
    EXPECT_EQ(pushes.received, std::vector<Registers>{{13}});
}

TEST_F(CdsFloatToOneRegisterAccessorTest, PushEncodesTheHandedOverValueWithoutReadingAgain) {
    auto const subject = encoder(1.0f, 0.0f);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.resetCalls();
    store(8.0f);
    // The channel accessor reads once for its notification; the encoder adds no read.
    EXPECT_EQ(world.store.calls("getChannelCValue"), 1u);
    EXPECT_EQ(pushes.received, std::vector<Registers>{{8}});
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ChangeBeforeAnyListenerIsDropped) {
    auto const subject = encoder(1.0f, 0.0f);
    store(1.0f);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store(2.0f);
    EXPECT_EQ(pushes.received, std::vector<Registers>{{2}});
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ChannelVanishingPushesTheRegisterOfAnInvalidValue) {
    auto const subject = encoder(1.0f, 5.0f);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.removeChannel(channel);
    ASSERT_FALSE(pushes.received.empty());
    // An invalid value reads as 0.0, which the offset turns into 5.
    EXPECT_EQ(pushes.received.back(), Registers{5});
    EXPECT_EQ(subject->getData(), Registers{});
}

// ---- Failures -----------------------------------------------------------------

TEST_F(CdsFloatToOneRegisterAccessorTest, ReadFailureOfTheStorePropagates) {
    auto const subject = encoder(1.0f, 0.0f);
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getStrValue(), cdshost::InjectedFault);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, WriteFailureOfTheStorePropagates) {
    auto const subject = encoder(1.0f, 0.0f);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({1}), cdshost::InjectedFault);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, ValueThatIsNoNumberThrowsTheConversionError) {
    auto const subject = encoder(1.0f, 0.0f);
    world.store.setChannelValue(channel, kq::CValue("abc"), false);
    EXPECT_THROW(subject->getData(), kq::ConversionError);
}

// ---- Ownership ----------------------------------------------------------------

TEST_F(CdsFloatToOneRegisterAccessorTest, DestroyingTheEncoderDestroysAnAdoptedAccessor) {
    auto subject = encoder(1.0f, 0.0f);
    ASSERT_EQ(world.valueSubscriptions(channel), 1u);
    subject.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 0u);
}

TEST_F(CdsFloatToOneRegisterAccessorTest, DestroyingTheEncoderLeavesASharedAccessorAlive) {
    auto const shared = world.sharedChannelAccessor("Value");
    auto subject = std::make_unique<CdsFloatToOneRegisterAccessor>(shared, 1.0f, 0.0f);
    subject.reset();
    shared->setUpdateCallback({});  // the encoder's binding is the sharer's to withdraw
    EXPECT_EQ(world.valueSubscriptions(channel), 1u);
    EXPECT_TRUE(shared->isExitingInCds());
}

// ---- Literal registers over boundary inputs ---------------------------------

class CdsFloatToOneRegisterAccessorReadTable
    : public CdsFloatToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::FloatReadVector> {};

TEST_P(CdsFloatToOneRegisterAccessorReadTable, RegisterAndTextMatchTheLiterals) {
    golden::FloatReadVector const& row = GetParam();
    auto const subject = encoder(row.multiplier, row.offset);
    store(row.value);
    EXPECT_EQ(subject->getData(), Registers{row.reg});
    EXPECT_EQ(subject->getStrValue(), row.text);
    EXPECT_EQ(subject->buildArrayFromFloat(row.value), Registers{row.reg});
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsFloatToOneRegisterAccessorReadTable,
                         ::testing::ValuesIn(golden::kFloatReads),
                         [](auto const& info) { return std::string(info.param.name); });

class CdsFloatToOneRegisterAccessorWriteTable
    : public CdsFloatToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::FloatWriteVector> {};

TEST_P(CdsFloatToOneRegisterAccessorWriteTable, StoredFloatMatchesTheLiteralBits) {
    golden::FloatWriteVector const& row = GetParam();
    store(-1.0f);
    auto const subject = encoder(row.multiplier, row.offset);
    subject->setData(row.registers);
    ASSERT_EQ(stored().type(), kq::CValue::Type::Float);
    EXPECT_EQ(bitsOf(stored().as_float()), row.bits);
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsFloatToOneRegisterAccessorWriteTable,
                         ::testing::ValuesIn(golden::floatWrites()),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Laws over generated inputs ----------------------------------------------

/* The register of a scaled value y: its magnitude rounded half away from zero,
 * saturated to 32 bits, modulo 65536. floor(|y| + 0.5) is exact in double for
 * every float y. */
std::uint16_t expectedRegister(float y) {
    if (std::isnan(y)) {
        return 0;
    }
    double const rounded = std::floor(std::fabs(static_cast<double>(y)) + 0.5);
    if (rounded >= 4294967295.0) {
        return 0xFFFF;
    }
    return static_cast<std::uint16_t>(static_cast<std::uint64_t>(rounded) % 65536u);
}

/* The text of y: truncated toward zero, negatives saturating to 0. */
std::string expectedText(float y) {
    double const truncated = std::trunc(static_cast<double>(y));
    if (std::isnan(y) || truncated <= 0.0) {
        return "0";
    }
    if (truncated >= 4294967295.0) {
        return "65535";
    }
    return std::to_string(static_cast<std::uint64_t>(truncated) % 65536u);
}

TEST_F(CdsFloatToOneRegisterAccessorTest,
       GeneratedReadsSendTheRoundedMagnitudeAndShowTheTruncation) {
    std::mt19937 random(1234u);
    std::uniform_real_distribution<float> values(-80000.0f, 80000.0f);
    std::uniform_real_distribution<float> multipliers(-50.0f, 50.0f);
    std::uniform_int_distribution<int> quarterOffsets(-400, 400);
    for (int i = 0; i < 40; ++i) {
        float const multiplier = multipliers(random);
        float const offset = static_cast<float>(quarterOffsets(random)) / 4.0f;
        auto const subject = encoder(multiplier, offset);
        for (int j = 0; j < 100; ++j) {
            float const value = values(random);
            world.store.setChannelValue(channel, kq::CValue(value), false);
            // The product rounded to float (exact in double first), then the
            // offset added and rounded again.
            auto const product = static_cast<float>(static_cast<double>(value) * multiplier);
            auto const y = static_cast<float>(static_cast<double>(product) + offset);
            ASSERT_EQ(subject->multiplyAndOffsetData(value), y) << value << " " << multiplier;
            ASSERT_EQ(subject->getData(), Registers{expectedRegister(y)}) << y;
            ASSERT_EQ(subject->getStrValue(), expectedText(y)) << y;
            if (y >= 0.0f && y < 65535.0f) {
                // The register is the text or one more, never anything else.
                int const shown = std::stoi(subject->getStrValue());
                int const sent = subject->getData()[0];
                ASSERT_TRUE(sent == shown || sent == shown + 1) << y;
            }
        }
    }
}

TEST_F(CdsFloatToOneRegisterAccessorTest, GeneratedWritesStoreTheOffsetRegisterTimesTheReciprocal) {
    std::mt19937 random(99u);
    std::uniform_int_distribution<int> registers(0, 65535);
    std::uniform_real_distribution<float> multipliers(0.01f, 100.0f);
    std::uniform_int_distribution<int> quarterOffsets(-400, 400);
    for (int i = 0; i < 40; ++i) {
        float const multiplier = multipliers(random);
        float const offset = static_cast<float>(quarterOffsets(random)) / 4.0f;
        auto const subject = encoder(multiplier, offset);
        auto const reciprocal = static_cast<float>(1.0 / static_cast<double>(multiplier));
        for (int j = 0; j < 60; ++j) {
            auto const reg = static_cast<std::uint16_t>(registers(random));
            subject->setData({reg});
            auto const shifted = static_cast<float>(static_cast<double>(reg) - offset);
            auto const expected = static_cast<float>(static_cast<double>(shifted) * reciprocal);
            ASSERT_EQ(bitsOf(stored().as_float()), bitsOf(expected)) << reg << " " << multiplier;
        }
    }
}

TEST_F(CdsFloatToOneRegisterAccessorTest,
       GeneratedWritesReadBackAsTheWrittenRegisterForExactScales) {
    std::mt19937 random(5u);
    std::uniform_int_distribution<int> registers(0, 65535);
    for (float const multiplier : {1.0f, 0.5f, 2.0f, 0.25f, 4.0f}) {
        for (float const offset : {0.0f, -40.0f, 12.5f}) {
            auto const subject = encoder(multiplier, offset);
            for (int j = 0; j < 200; ++j) {
                auto const reg = static_cast<std::uint16_t>(registers(random));
                subject->setData({reg});
                ASSERT_EQ(subject->getData(), Registers{reg}) << multiplier << " " << offset;
            }
        }
    }
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsFloatToOneRegisterAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsFloatToOneRegisterAccessor>(source, 1.0f, 0.0f);
}

TEST(CdsFloatToOneRegisterAccessorLifecycle,
     DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsFloatToOneRegisterAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsFloatToOneRegisterAccessorLifecycle,
     DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
