// CdsUint32ToOneRegisterAccessor over a real channel accessor on the host
// store: scaled or XOR-masked uint32 values in one register, the mask
// written on Xor writes, and the optional default with its availability rule.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "golden/one_register_vectors.h"
#include "listener_slot.h"
#include "modbus/CdsUint32ToOneRegisterAccessor.h"

namespace {

using modbus::BitmaskOp;
using modbus::CdsUint32ToOneRegisterAccessor;
using Registers = std::vector<std::uint16_t>;

/* A real channel accessor that also counts the writes it is given, so a test
 * can see a write reach it while its item is missing (when it drops it). */
class CountingChannelAccessor : public modbus::CdsChannelAccessor {
  public:
    CountingChannelAccessor(cdshost::Id device, std::string const& name, int& writes)
        : CdsChannelAccessor(device, name, modbus::DataType::Value), m_writes(writes) {}
    void setCValue(kq::CValue const& value) override {
        ++m_writes;
        CdsChannelAccessor::setCValue(value);
    }

  private:
    int& m_writes;
};

/* The encoder as a subclass that reports its value unavailable sees it: the
 * only way to reach the configured default. */
class AlwaysUnavailable : public CdsUint32ToOneRegisterAccessor {
  public:
    using CdsUint32ToOneRegisterAccessor::CdsUint32ToOneRegisterAccessor;
    bool isDataAvailable() const override { return false; }
};

/* The encoder with getData() replaced, to see which path getStrValue() takes. */
class FixedRegisters : public CdsUint32ToOneRegisterAccessor {
  public:
    FixedRegisters(modbus::CdsDataAccessor* source, Registers registers)
        : CdsUint32ToOneRegisterAccessor(source, 1.0f), m_registers(std::move(registers)) {}
    std::vector<uint16_t> getData() const override { return m_registers; }

  private:
    Registers m_registers;
};

class CdsUint32ToOneRegisterAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const channel = world.addChannel("Value", kq::CValue(0u));

    std::unique_ptr<CdsUint32ToOneRegisterAccessor> scaled(float multiplier,
                                                           std::string const& name = "Value") {
        return std::make_unique<CdsUint32ToOneRegisterAccessor>(world.newChannelAccessor(name),
                                                                multiplier);
    }
    std::unique_ptr<CdsUint32ToOneRegisterAccessor> masked(BitmaskOp op, unsigned int mask,
                                                           std::optional<unsigned int> defaultValue,
                                                           std::string const& name = "Value") {
        return std::make_unique<CdsUint32ToOneRegisterAccessor>(world.newChannelAccessor(name), op,
                                                                mask, defaultValue);
    }
    void store(unsigned int value) { world.store.setChannelValue(channel, kq::CValue(value)); }
    kq::CValue stored() const { return world.store.channelValue(channel); }
};

// ---- Xor ----------------------------------------------------------------------

TEST_F(CdsUint32ToOneRegisterAccessorTest, XorMaskOneReadsZeroAsOneAndOneAsZero) {
    auto const subject = masked(BitmaskOp::Xor, 0x0001, std::nullopt);
    store(0);
    EXPECT_EQ(subject->getData(), Registers{1});
    store(1);
    EXPECT_EQ(subject->getData(), Registers{0});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, XorWriteStoresTheMaskWhateverIsWritten) {
    auto const subject = masked(BitmaskOp::Xor, 0x0001, std::nullopt);
    subject->setData({0});
    EXPECT_EQ(stored(), kq::CValue(1u));
    store(7);
    subject->setData({12345});
    EXPECT_EQ(stored(), kq::CValue(1u));
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, XorEmptyWriteStoresZero) {
    store(9);
    auto const subject = masked(BitmaskOp::Xor, 0x0001, std::nullopt);
    subject->setData({});
    EXPECT_EQ(stored(), kq::CValue(0u));
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, XorPushIsMaskedToo) {
    auto const subject = masked(BitmaskOp::Xor, 0x00FF, std::nullopt);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store(0x0F0F);
    EXPECT_EQ(pushes.received, std::vector<Registers>{{0x0FF0}});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, UnknownBitmaskOpBehavesAsNone) {
    auto const subject = masked(static_cast<BitmaskOp>(2), 0x0001, std::nullopt);
    store(0);
    EXPECT_EQ(subject->getData(), Registers{0});
    subject->setData({12});
    EXPECT_EQ(stored(), kq::CValue(12u));
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, BitmaskConstructorLeavesTheMultiplierAtOne) {
    auto const subject = masked(BitmaskOp::None, 0xFFFF, std::nullopt);
    store(70000);
    EXPECT_EQ(subject->getData(), Registers{4464});
    subject->setData({0xFFFF});
    EXPECT_EQ(stored(), kq::CValue(65535u));
}

// ---- Default value --------------------------------------------------------------

TEST_F(CdsUint32ToOneRegisterAccessorTest, DefaultMakesAMissingItemAvailable) {
    auto const subject = masked(BitmaskOp::None, 0, 5u, "Missing");
    EXPECT_TRUE(subject->isDataAvailable());
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DefaultWithMissingItemReadsTheAccessorNotTheDefault) {
    auto const subject = masked(BitmaskOp::None, 0, 5u, "Missing");
    // The missing channel reads as an invalid value, whose uint32 is 0.
    EXPECT_EQ(subject->getData(), Registers{0});
    EXPECT_EQ(subject->getStrValue(), "0");
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DefaultWithMissingItemStillAppliesTheMask) {
    auto const subject = masked(BitmaskOp::Xor, 0x0001, 5u, "Missing");
    EXPECT_EQ(subject->getData(), Registers{1});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DefaultIsServedUnmaskedOnlyWhenReportedUnavailable) {
    AlwaysUnavailable subject(world.newChannelAccessor("Value"), BitmaskOp::Xor, 0x0001,
                              std::optional<unsigned int>{0x12345u});
    EXPECT_EQ(subject.getData(), Registers{0x2345});
    EXPECT_EQ(subject.getStrValue(), "");
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, UnavailableWithoutDefaultReadsEmpty) {
    AlwaysUnavailable subject(world.newChannelAccessor("Value"), BitmaskOp::None, 0, std::nullopt);
    EXPECT_EQ(subject.getData(), Registers{});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DefaultWithMissingItemStillPassesWritesToTheAccessor) {
    int writes = 0;
    CdsUint32ToOneRegisterAccessor subject(
        new CountingChannelAccessor(world.device, "Missing", writes), BitmaskOp::None, 0, 5u);
    subject.setData({3});
    EXPECT_EQ(writes, 1);
    // The missing channel's accessor drops it: nothing reaches the store.
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, WithoutDefaultAMissingItemIsUnavailableAndDropsWrites) {
    int writes = 0;
    CdsUint32ToOneRegisterAccessor subject(
        new CountingChannelAccessor(world.device, "Missing", writes), 1.0f);
    EXPECT_FALSE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Registers{});
    EXPECT_EQ(subject.getStrValue(), "");
    subject.setData({3});
    EXPECT_EQ(writes, 0);
    EXPECT_EQ(subject.getSizeInRegister(), 1u);
    EXPECT_EQ(subject.getDataRepresentation(), "UInt16");
}

// ---- Scaling ----------------------------------------------------------------------

TEST_F(CdsUint32ToOneRegisterAccessorTest, MultiplierOneReads65536AsZero) {
    auto const subject = scaled(1.0f);
    store(65536);
    EXPECT_EQ(subject->getData(), Registers{0});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, ScaledWriteDividesByTheMultiplier) {
    auto const subject = scaled(0.5f);
    subject->setData({3});
    EXPECT_EQ(stored(), kq::CValue(6u));
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, WriteStoresAUint32Value) {
    auto const subject = scaled(2.0f);
    subject->setData({8});
    EXPECT_EQ(stored().type(), kq::CValue::Type::Uint32);
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, TextIsTheRegisterAfterMaskAndScaling) {
    auto const subject = scaled(2.0f);
    store(40000);
    EXPECT_EQ(subject->getStrValue(), "14464");
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, TextIsTakenFromTheVirtualGetData) {
    FixedRegisters sevens(world.newChannelAccessor("Value"), {7, 8});
    EXPECT_EQ(sevens.getStrValue(), "7");
    FixedRegisters none(world.newChannelAccessor("Value"), {});
    EXPECT_EQ(none.getStrValue(), "");
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, ReportsUInt16AndOneRegister) {
    auto const subject = scaled(1.0f);
    EXPECT_EQ(subject->getDataRepresentation(), "UInt16");
    EXPECT_EQ(subject->getSizeInRegister(), 1u);
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, ByteOrderIsIgnored) {
    auto const subject = scaled(1.0f);
    store(0x1234);
    subject->setByteOrder(modbus::ByteOrder::WordSwapped);
    EXPECT_EQ(subject->getData(), Registers{0x1234});
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, BuildArrayWithoutApplyIgnoresMaskAndMultiplier) {
    auto const subject = masked(BitmaskOp::Xor, 0xFFFF, std::nullopt);
    EXPECT_EQ(subject->buildArrayFromUint32(0x10005u, false), Registers{5});
    EXPECT_EQ(subject->buildArrayFromUint32(0x10005u, true), Registers{0xFFFA});
}

// ---- Failures and ownership ----------------------------------------------------

TEST_F(CdsUint32ToOneRegisterAccessorTest, ReadAndWriteFailuresOfTheStorePropagate) {
    auto const subject = scaled(1.0f);
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({1}), cdshost::InjectedFault);
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DestroyingEitherKindDestroysAnAdoptedAccessor) {
    auto first = scaled(1.0f);
    auto second = masked(BitmaskOp::Xor, 1, 3u);
    ASSERT_EQ(world.valueSubscriptions(channel), 1u);
    first.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 1u);
    second.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 0u);
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, DestroyingTheEncoderLeavesASharedAccessorAlive) {
    auto const shared = world.sharedChannelAccessor("Value");
    auto subject =
        std::make_unique<CdsUint32ToOneRegisterAccessor>(shared, BitmaskOp::None, 0, std::nullopt);
    subject.reset();
    shared->setUpdateCallback({});  // the encoder's binding is the sharer's to withdraw
    EXPECT_EQ(world.valueSubscriptions(channel), 1u);
    EXPECT_TRUE(shared->isExitingInCds());
}

// ---- Literal registers over boundary inputs ---------------------------------

class CdsUint32ToOneRegisterAccessorReadTable
    : public CdsUint32ToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::Uint32ReadVector> {};

TEST_P(CdsUint32ToOneRegisterAccessorReadTable, RegisterAndTextMatchTheLiterals) {
    golden::Uint32ReadVector const& row = GetParam();
    store(row.value);
    std::unique_ptr<CdsUint32ToOneRegisterAccessor> const subject =
        row.xorMask ? masked(BitmaskOp::Xor, row.mask, std::nullopt) : scaled(row.multiplier);
    EXPECT_EQ(subject->getData(), Registers{row.reg});
    EXPECT_EQ(subject->getStrValue(), std::to_string(row.reg));
    EXPECT_EQ(subject->buildArrayFromUint32(row.value, true), Registers{row.reg});
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsUint32ToOneRegisterAccessorReadTable,
                         ::testing::ValuesIn(golden::kUint32Reads),
                         [](auto const& info) { return std::string(info.param.name); });

class CdsUint32ToOneRegisterAccessorWriteTable
    : public CdsUint32ToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::Uint32WriteVector> {};

TEST_P(CdsUint32ToOneRegisterAccessorWriteTable, StoredValueMatchesTheLiteral) {
    golden::Uint32WriteVector const& row = GetParam();
    store(123456);
    std::unique_ptr<CdsUint32ToOneRegisterAccessor> const subject =
        row.xorMask ? masked(BitmaskOp::Xor, row.mask, std::nullopt) : scaled(row.multiplier);
    subject->setData(row.registers);
    EXPECT_EQ(stored(), kq::CValue(static_cast<unsigned int>(row.stored)));
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsUint32ToOneRegisterAccessorWriteTable,
                         ::testing::ValuesIn(golden::uint32Writes()),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Laws over generated inputs ----------------------------------------------

TEST_F(CdsUint32ToOneRegisterAccessorTest, GeneratedXorReadsSendTheLowWordOfValueXorMask) {
    std::mt19937 random(31337u);
    std::uniform_int_distribution<std::uint32_t> words(0,
                                                       std::numeric_limits<std::uint32_t>::max());
    for (int i = 0; i < 30; ++i) {
        std::uint32_t const mask = words(random);
        auto const subject = masked(BitmaskOp::Xor, mask, std::nullopt);
        for (int j = 0; j < 100; ++j) {
            std::uint32_t const value = words(random);
            world.store.setChannelValue(channel, kq::CValue(value), false);
            auto const expected = static_cast<std::uint16_t>((value ^ mask) & 0xFFFFu);
            ASSERT_EQ(subject->getData(), Registers{expected});
            ASSERT_EQ(subject->getStrValue(), std::to_string(expected));
            // Masking twice gives the value back.
            ASSERT_EQ(subject->buildArrayFromUint32(value ^ mask, true),
                      Registers{static_cast<std::uint16_t>(value & 0xFFFFu)});
        }
    }
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, GeneratedXorWritesAlwaysStoreTheMask) {
    std::mt19937 random(8u);
    std::uniform_int_distribution<std::uint32_t> words(0,
                                                       std::numeric_limits<std::uint32_t>::max());
    std::uniform_int_distribution<int> registers(0, 65535);
    for (int i = 0; i < 30; ++i) {
        std::uint32_t const mask = words(random);
        auto const subject = masked(BitmaskOp::Xor, mask, std::nullopt);
        for (int j = 0; j < 100; ++j) {
            subject->setData({static_cast<std::uint16_t>(registers(random))});
            ASSERT_EQ(stored(), kq::CValue(mask));
        }
    }
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, GeneratedScaledReadsSendTheSaturatedProductsLowWord) {
    std::mt19937 random(64u);
    std::uniform_int_distribution<std::uint32_t> words(0,
                                                       std::numeric_limits<std::uint32_t>::max());
    std::uniform_real_distribution<float> multipliers(-2.0f, 6.0f);
    for (int i = 0; i < 30; ++i) {
        float const multiplier = multipliers(random);
        auto const subject = scaled(multiplier);
        for (int j = 0; j < 100; ++j) {
            std::uint32_t const value = words(random) >> (j % 32);
            world.store.setChannelValue(channel, kq::CValue(value), false);
            double const truncated =
                std::trunc(static_cast<double>(value) * static_cast<double>(multiplier));
            std::uint32_t const saturated =
                truncated <= 0.0
                    ? 0u
                    : (truncated >= 4294967295.0 ? std::numeric_limits<std::uint32_t>::max()
                                                 : static_cast<std::uint32_t>(truncated));
            auto const expected = static_cast<std::uint16_t>(saturated & 0xFFFFu);
            ASSERT_EQ(subject->getData(), Registers{expected}) << value << " * " << multiplier;
            ASSERT_EQ(subject->getStrValue(), std::to_string(expected));
        }
    }
}

TEST_F(CdsUint32ToOneRegisterAccessorTest, GeneratedWritesWithMultiplierOneReadBackUnchanged) {
    std::mt19937 random(65u);
    std::uniform_int_distribution<int> registers(0, 65535);
    auto const subject = scaled(1.0f);
    for (int j = 0; j < 3000; ++j) {
        auto const reg = static_cast<std::uint16_t>(registers(random));
        subject->setData({reg});
        ASSERT_EQ(subject->getData(), Registers{reg});
    }
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsUint32ToOneRegisterAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsUint32ToOneRegisterAccessor>(source, 1.0f);
}

TEST(CdsUint32ToOneRegisterAccessorLifecycle,
     DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsUint32ToOneRegisterAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsUint32ToOneRegisterAccessorLifecycle,
     DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
