#include "modbus/CdsUint32Accessor.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "encoder_test_support.h"
#include "failing_allocation.h"
#include "listener_slot.h"

namespace {

using encoder_test::kChannel;
using modbus::ByteOrder;
using modbus::CdsUint32Accessor;
using Registers = std::vector<uint16_t>;

class CdsUint32AccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();
    encoder_test::Recorder<uint16_t> pushed;

    void SetUp() override { encoder_test::addUpsWithChannel(kq::CValue(0x12345678u)); }

    std::unique_ptr<CdsUint32Accessor> encoder() {
        return std::make_unique<CdsUint32Accessor>(encoder_test::sharedChannelAccessor());
    }

    std::unique_ptr<CdsUint32Accessor> unavailableEncoder() {
        return std::make_unique<CdsUint32Accessor>(encoder_test::missingChannelAccessor());
    }

    kq::CValue stored() const { return store.channelValue(kChannel); }
};

/* Claims the value is unavailable whatever the data accessor says. */
class NeverAvailableUint32Accessor : public CdsUint32Accessor {
  public:
    using CdsUint32Accessor::CdsUint32Accessor;
    bool isDataAvailable() const override { return false; }
};

// ---- Ownership and registration ------------------------------------------

TEST_F(CdsUint32AccessorTest, SharedConstructorLeavesCallersShareAlive) {
    std::shared_ptr<modbus::CdsChannelAccessor> const source =
        encoder_test::sharedChannelAccessor();
    {
        CdsUint32Accessor const uintEncoder(source);
        EXPECT_EQ(source.use_count(), 2);
    }
    EXPECT_EQ(source.use_count(), 1);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
}

TEST_F(CdsUint32AccessorTest, RawPointerConstructorDestroysDataAccessorWithTheEncoder) {
    {
        CdsUint32Accessor const uintEncoder(encoder_test::newChannelAccessor());
        EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
    }
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsUint32AccessorTest, RawPointerIsDeletedWhenWrappingItThrows) {
    modbus::CdsDataAccessor* const source = encoder_test::newChannelAccessor();
    ASSERT_EQ(encoder_test::channelSubscriptions(), 1u);
    bool failed = false;
    {
        // The first allocation of the constructor is the shared_ptr's control block.
        failing_allocation::FailAllocationGuard const guard;
        EXPECT_THROW(CdsUint32Accessor{source}, std::bad_alloc);
        failed = guard.failed();
    }
    EXPECT_TRUE(failed);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsUint32AccessorTest, ConstructorMakesEncoderTheDataAccessorsListener) {
    auto const uintEncoder = encoder();
    uintEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(0xFFFFFFFFu));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0xFFFF, 0xFFFF}));
}

// ---- Fixed properties ------------------------------------------------------

TEST_F(CdsUint32AccessorTest, SizeInRegisterIsTwo) {
    EXPECT_EQ(encoder()->getSizeInRegister(), 2);
}

TEST_F(CdsUint32AccessorTest, DataRepresentationNamesTheByteOrder) {
    auto const uintEncoder = encoder();
    EXPECT_EQ(uintEncoder->getDataRepresentation(), "UInt32 (Standard)");
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(uintEncoder->getDataRepresentation(), "UInt32 (WordSwapped)");
}

TEST_F(CdsUint32AccessorTest, IsDataAvailableFollowsTheChannel) {
    auto const uintEncoder = encoder();
    EXPECT_TRUE(uintEncoder->isDataAvailable());
    store.removeChannel(kChannel);
    EXPECT_FALSE(uintEncoder->isDataAvailable());
}

// ---- getData -------------------------------------------------------------

TEST_F(CdsUint32AccessorTest, MaximumInOrderZeroIsAllOnes) {
    store.setChannelValue(kChannel, kq::CValue(0xFFFFFFFFu));
    EXPECT_EQ(encoder()->getData(), (Registers{0xFFFF, 0xFFFF}));
}

TEST_F(CdsUint32AccessorTest, OrderZeroPutsTheHighHalfFirst) {
    EXPECT_EQ(encoder()->getData(), (Registers{0x1234, 0x5678}));
}

TEST_F(CdsUint32AccessorTest, OrderOnePutsTheLowHalfFirst) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(uintEncoder->getData(), (Registers{0x5678, 0x1234}));
}

TEST_F(CdsUint32AccessorTest, TopBitIsAPlainValueBit) {
    store.setChannelValue(kChannel, kq::CValue(0x80000000u));
    EXPECT_EQ(encoder()->getData(), (Registers{0x8000, 0x0000}));
}

TEST_F(CdsUint32AccessorTest, GetDataReadsTheValueAfreshOnEveryCall) {
    auto const uintEncoder = encoder();
    EXPECT_EQ(uintEncoder->getData(), (Registers{0x1234, 0x5678}));
    store.setChannelValue(kChannel, kq::CValue(7u), false);
    EXPECT_EQ(uintEncoder->getData(), (Registers{0x0000, 0x0007}));
}

TEST_F(CdsUint32AccessorTest, GetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableUint32Accessor const uintEncoder(encoder_test::sharedChannelAccessor());
    store.resetCalls();
    EXPECT_TRUE(uintEncoder.getData().empty());
    EXPECT_TRUE(uintEncoder.getStrValue().empty());
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsUint32AccessorTest, GetDataLetsDataStoreFailuresThrough) {
    auto const uintEncoder = encoder();
    store.failNext("getChannelCValue");
    EXPECT_THROW(uintEncoder->getData(), cdshost::InjectedFault);
}

// ---- getStrValue -----------------------------------------------------------

TEST_F(CdsUint32AccessorTest, StrValueOfMaximumIsItsUnsignedDecimal) {
    store.setChannelValue(kChannel, kq::CValue(4294967295u));
    EXPECT_EQ(encoder()->getStrValue(), "4294967295");
}

TEST_F(CdsUint32AccessorTest, StrValueOfFiveIsFive) {
    store.setChannelValue(kChannel, kq::CValue(5u));
    EXPECT_EQ(encoder()->getStrValue(), "5");
}

TEST_F(CdsUint32AccessorTest, StrValueIgnoresByteOrderEvenAnUnsupportedOne) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(uintEncoder->getStrValue(), "305419896");
    uintEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(uintEncoder->getStrValue(), "305419896");
}

// ---- setData -----------------------------------------------------------------

TEST_F(CdsUint32AccessorTest, SetDataInOrderZeroWritesAnUnsignedUint32) {
    encoder()->setData({0xFFFF, 0xFFFE});
    EXPECT_EQ(stored().type(), kq::CValue::Type::Uint32);
    EXPECT_EQ(stored(), kq::CValue(4294967294u));
}

TEST_F(CdsUint32AccessorTest, SetDataInOrderOneTakesTheSecondRegisterAsHighHalf) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    uintEncoder->setData({0x5678, 0x1234});
    EXPECT_EQ(stored(), kq::CValue(0x12345678u));
}

TEST_F(CdsUint32AccessorTest, SetDataOfTopBitOnlyWritesTwoToTheThirtyFirst) {
    encoder()->setData({0x8000, 0x0000});
    EXPECT_EQ(stored(), kq::CValue(2147483648u));
}

TEST_F(CdsUint32AccessorTest, OneRegisterInOrderZeroIsTheHighHalf) {
    encoder()->setData({7});
    EXPECT_EQ(stored(), kq::CValue(458752u));
}

TEST_F(CdsUint32AccessorTest, OneRegisterInOrderOneIsTheLowHalf) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    uintEncoder->setData({7});
    EXPECT_EQ(stored(), kq::CValue(7u));
}

TEST_F(CdsUint32AccessorTest, NoRegistersWriteZero) {
    encoder()->setData({});
    EXPECT_EQ(stored(), kq::CValue(0u));
}

TEST_F(CdsUint32AccessorTest, SetDataIgnoresRegistersAfterTheSecond) {
    encoder()->setData({0x0001, 0x0002, 0xFFFF});
    EXPECT_EQ(stored(), kq::CValue(0x00010002u));
}

TEST_F(CdsUint32AccessorTest, SetDataLetsDataStoreFailuresThrough) {
    auto const uintEncoder = encoder();
    store.failNext("setChannelCValue");
    EXPECT_THROW(uintEncoder->setData({0, 1}), cdshost::InjectedFault);
}

TEST_F(CdsUint32AccessorTest, SetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableUint32Accessor uintEncoder(encoder_test::sharedChannelAccessor());
    uintEncoder.setData({0, 1});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

// ---- Pushes ------------------------------------------------------------------

TEST_F(CdsUint32AccessorTest, PushInOrderOneCarriesLowHalfFirst) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordSwapped);
    uintEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(0x00010002u));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0x0002, 0x0001}));
}

TEST_F(CdsUint32AccessorTest, PushEncodesTheValueHandedOverNotAFreshRead) {
    auto const uintEncoder = encoder();
    uintEncoder->setCallback(pushed.listener());
    store.resetCalls();
    uintEncoder->callbackCdsEvent(kq::CValue(4294967294u));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0xFFFF, 0xFFFE}));
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsUint32AccessorTest, PushWithoutListenerDoesNothingEvenWithUnsupportedOrder) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_NO_THROW(uintEncoder->callbackCdsEvent(kq::CValue(1u)));
}

TEST_F(CdsUint32AccessorTest, PushWhenTheChannelVanishesCarriesZero) {
    auto const uintEncoder = encoder();
    uintEncoder->setCallback(pushed.listener());
    store.removeChannel(kChannel);
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0x0000, 0x0000}));
}

TEST_F(CdsUint32AccessorTest, SetCallbackReplacesTheListener) {
    encoder_test::Recorder<uint16_t> first;
    auto const uintEncoder = encoder();
    uintEncoder->setCallback(first.listener());
    uintEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(3u));
    EXPECT_TRUE(first.arrays.empty());
    EXPECT_EQ(pushed.arrays.size(), 1u);
}

// ---- Unsupported byte orders -----------------------------------------------

TEST_F(CdsUint32AccessorTest, GetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { uintEncoder->getData(); }),
              "ildArrayFromInt32 is not implemented for ByteOrder ");
}

TEST_F(CdsUint32AccessorTest, BuildArrayWithOrderThreeThrowsTheLiteralAdvancedByThree) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { uintEncoder->buildArrayFromInt32(1u); }),
              "ldArrayFromInt32 is not implemented for ByteOrder ");
}

TEST_F(CdsUint32AccessorTest, SetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const uintEncoder = encoder();
    uintEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] {
                  uintEncoder->setData({0, 1});
              }),
              "tData is not implemented for ByteOrder ");
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsUint32AccessorTest, PushWithUnsupportedOrderThrowsOutOfTheCallback) {
    auto const uintEncoder = encoder();
    uintEncoder->setCallback(pushed.listener());
    uintEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(
        encoder_test::logicErrorMessage([&] { uintEncoder->callbackCdsEvent(kq::CValue(1u)); }),
        "ildArrayFromInt32 is not implemented for ByteOrder ");
    EXPECT_TRUE(pushed.arrays.empty());
}

// ---- While unavailable -------------------------------------------------------

TEST_F(CdsUint32AccessorTest, UnavailableValueReportsNotAvailable) {
    EXPECT_FALSE(unavailableEncoder()->isDataAvailable());
}

TEST_F(CdsUint32AccessorTest, UnavailableValueGivesNoRegisters) {
    EXPECT_TRUE(unavailableEncoder()->getData().empty());
}

TEST_F(CdsUint32AccessorTest, UnavailableValueGivesNoText) {
    EXPECT_EQ(unavailableEncoder()->getStrValue(), "");
}

TEST_F(CdsUint32AccessorTest, UnavailableValueDropsWrites) {
    auto const uintEncoder = unavailableEncoder();
    store.resetCalls();
    uintEncoder->setData({0, 1});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(stored(), kq::CValue(0x12345678u));
}

TEST_F(CdsUint32AccessorTest, UnavailableValueKeepsSizeAndRepresentation) {
    auto const uintEncoder = unavailableEncoder();
    EXPECT_EQ(uintEncoder->getSizeInRegister(), 2);
    EXPECT_EQ(uintEncoder->getDataRepresentation(), "UInt32 (Standard)");
}

TEST_F(CdsUint32AccessorTest, UnavailableValueWithUnsupportedOrderNeverThrows) {
    auto const uintEncoder = unavailableEncoder();
    uintEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    store.resetCalls();
    EXPECT_TRUE(uintEncoder->getData().empty());
    EXPECT_EQ(uintEncoder->getStrValue(), "");
    EXPECT_NO_THROW(uintEncoder->setData({0, 1}));
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsUint32Accessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsUint32Accessor>(source);
}

TEST(CdsUint32AccessorLifecycle, DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsUint32AccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsUint32AccessorLifecycle, DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
