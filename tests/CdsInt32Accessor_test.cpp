#include "modbus/CdsInt32Accessor.h"

#include <gtest/gtest.h>

#include <limits>
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
using modbus::CdsInt32Accessor;
using Registers = std::vector<uint16_t>;

class CdsInt32AccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();
    encoder_test::Recorder<uint16_t> pushed;

    void SetUp() override { encoder_test::addUpsWithChannel(kq::CValue(0x12345678)); }

    std::unique_ptr<CdsInt32Accessor> encoder() {
        return std::make_unique<CdsInt32Accessor>(encoder_test::sharedChannelAccessor());
    }

    std::unique_ptr<CdsInt32Accessor> unavailableEncoder() {
        return std::make_unique<CdsInt32Accessor>(encoder_test::missingChannelAccessor());
    }

    kq::CValue stored() const { return store.channelValue(kChannel); }
};

/* Claims the value is unavailable whatever the data accessor says. */
class NeverAvailableInt32Accessor : public CdsInt32Accessor {
  public:
    using CdsInt32Accessor::CdsInt32Accessor;
    bool isDataAvailable() const override { return false; }
};

// ---- Ownership and registration ------------------------------------------

TEST_F(CdsInt32AccessorTest, SharedConstructorLeavesCallersShareAlive) {
    std::shared_ptr<modbus::CdsChannelAccessor> const source =
        encoder_test::sharedChannelAccessor();
    {
        CdsInt32Accessor const intEncoder(source);
        EXPECT_EQ(source.use_count(), 2);
    }
    EXPECT_EQ(source.use_count(), 1);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
}

TEST_F(CdsInt32AccessorTest, RawPointerConstructorDestroysDataAccessorWithTheEncoder) {
    {
        CdsInt32Accessor const intEncoder(encoder_test::newChannelAccessor());
        EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
    }
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsInt32AccessorTest, RawPointerIsDeletedWhenWrappingItThrows) {
    modbus::CdsDataAccessor* const source = encoder_test::newChannelAccessor();
    ASSERT_EQ(encoder_test::channelSubscriptions(), 1u);
    bool failed = false;
    {
        // The first allocation of the constructor is the shared_ptr's control block.
        failing_allocation::FailAllocationGuard const guard;
        EXPECT_THROW(CdsInt32Accessor{source}, std::bad_alloc);
        failed = guard.failed();
    }
    EXPECT_TRUE(failed);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsInt32AccessorTest, ConstructorMakesEncoderTheDataAccessorsListener) {
    auto const intEncoder = encoder();
    intEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(-1));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0xFFFF, 0xFFFF}));
}

// ---- Fixed properties ------------------------------------------------------

TEST_F(CdsInt32AccessorTest, SizeInRegisterIsTwo) {
    EXPECT_EQ(encoder()->getSizeInRegister(), 2);
}

TEST_F(CdsInt32AccessorTest, DataRepresentationNamesTheByteOrder) {
    auto const intEncoder = encoder();
    EXPECT_EQ(intEncoder->getDataRepresentation(), "Int32 (Standard)");
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(intEncoder->getDataRepresentation(), "Int32 (WordSwapped)");
}

TEST_F(CdsInt32AccessorTest, IsDataAvailableFollowsTheChannel) {
    auto const intEncoder = encoder();
    EXPECT_TRUE(intEncoder->isDataAvailable());
    store.removeChannel(kChannel);
    EXPECT_FALSE(intEncoder->isDataAvailable());
}

// ---- getData -------------------------------------------------------------

TEST_F(CdsInt32AccessorTest, MinusOneInOrderZeroIsAllOnes) {
    store.setChannelValue(kChannel, kq::CValue(-1));
    EXPECT_EQ(encoder()->getData(), (Registers{0xFFFF, 0xFFFF}));
}

TEST_F(CdsInt32AccessorTest, OrderZeroPutsTheHighHalfFirst) {
    EXPECT_EQ(encoder()->getData(), (Registers{0x1234, 0x5678}));
}

TEST_F(CdsInt32AccessorTest, OrderOnePutsTheLowHalfFirst) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(intEncoder->getData(), (Registers{0x5678, 0x1234}));
}

TEST_F(CdsInt32AccessorTest, MostNegativeValueKeepsItsTwosComplementBits) {
    store.setChannelValue(kChannel, kq::CValue(std::numeric_limits<int>::min()));
    EXPECT_EQ(encoder()->getData(), (Registers{0x8000, 0x0000}));
}

TEST_F(CdsInt32AccessorTest, GetDataReadsTheValueAfreshOnEveryCall) {
    auto const intEncoder = encoder();
    EXPECT_EQ(intEncoder->getData(), (Registers{0x1234, 0x5678}));
    store.setChannelValue(kChannel, kq::CValue(7), false);
    EXPECT_EQ(intEncoder->getData(), (Registers{0x0000, 0x0007}));
}

TEST_F(CdsInt32AccessorTest, GetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableInt32Accessor const intEncoder(encoder_test::sharedChannelAccessor());
    store.resetCalls();
    EXPECT_TRUE(intEncoder.getData().empty());
    EXPECT_TRUE(intEncoder.getStrValue().empty());
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsInt32AccessorTest, GetDataLetsDataStoreFailuresThrough) {
    auto const intEncoder = encoder();
    store.failNext("getChannelCValue");
    EXPECT_THROW(intEncoder->getData(), cdshost::InjectedFault);
}

// ---- getStrValue -----------------------------------------------------------

TEST_F(CdsInt32AccessorTest, StrValueOfMinusFiveIsMinusFive) {
    store.setChannelValue(kChannel, kq::CValue(-5));
    EXPECT_EQ(encoder()->getStrValue(), "-5");
}

TEST_F(CdsInt32AccessorTest, StrValueOfMostNegativeValueIsItsDecimal) {
    store.setChannelValue(kChannel, kq::CValue(std::numeric_limits<int>::min()));
    EXPECT_EQ(encoder()->getStrValue(), "-2147483648");
}

TEST_F(CdsInt32AccessorTest, StrValueIgnoresByteOrderEvenAnUnsupportedOne) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(intEncoder->getStrValue(), "305419896");
    intEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(intEncoder->getStrValue(), "305419896");
}

// ---- setData -----------------------------------------------------------------

TEST_F(CdsInt32AccessorTest, SetDataInOrderZeroWritesTwosComplementInt32) {
    encoder()->setData({0xFFFF, 0xFFFE});
    EXPECT_EQ(stored().type(), kq::CValue::Type::Int32);
    EXPECT_EQ(stored(), kq::CValue(-2));
}

TEST_F(CdsInt32AccessorTest, SetDataInOrderOneTakesTheSecondRegisterAsHighHalf) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    intEncoder->setData({0x5678, 0x1234});
    EXPECT_EQ(stored(), kq::CValue(0x12345678));
}

TEST_F(CdsInt32AccessorTest, SetDataOfTopBitOnlyWritesMostNegativeValue) {
    encoder()->setData({0x8000, 0x0000});
    EXPECT_EQ(stored(), kq::CValue(std::numeric_limits<int>::min()));
}

TEST_F(CdsInt32AccessorTest, OneRegisterInOrderZeroIsTheHighHalf) {
    encoder()->setData({7});
    EXPECT_EQ(stored(), kq::CValue(458752));
}

TEST_F(CdsInt32AccessorTest, OneRegisterInOrderOneIsTheLowHalf) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    intEncoder->setData({7});
    EXPECT_EQ(stored(), kq::CValue(7));
}

TEST_F(CdsInt32AccessorTest, NoRegistersWriteZero) {
    encoder()->setData({});
    EXPECT_EQ(stored(), kq::CValue(0));
}

TEST_F(CdsInt32AccessorTest, SetDataIgnoresRegistersAfterTheSecond) {
    encoder()->setData({0x0001, 0x0002, 0xFFFF});
    EXPECT_EQ(stored(), kq::CValue(0x00010002));
}

TEST_F(CdsInt32AccessorTest, SetDataLetsDataStoreFailuresThrough) {
    auto const intEncoder = encoder();
    store.failNext("setChannelCValue");
    EXPECT_THROW(intEncoder->setData({0, 1}), cdshost::InjectedFault);
}

TEST_F(CdsInt32AccessorTest, SetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableInt32Accessor intEncoder(encoder_test::sharedChannelAccessor());
    intEncoder.setData({0, 1});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

// ---- Pushes ------------------------------------------------------------------

TEST_F(CdsInt32AccessorTest, PushInOrderOneCarriesLowHalfFirst) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordSwapped);
    intEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(0x00010002));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0x0002, 0x0001}));
}

TEST_F(CdsInt32AccessorTest, PushEncodesTheValueHandedOverNotAFreshRead) {
    auto const intEncoder = encoder();
    intEncoder->setCallback(pushed.listener());
    store.resetCalls();
    intEncoder->callbackCdsEvent(kq::CValue(-2));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0xFFFF, 0xFFFE}));
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsInt32AccessorTest, PushWithoutListenerDoesNothingEvenWithUnsupportedOrder) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_NO_THROW(intEncoder->callbackCdsEvent(kq::CValue(1)));
}

TEST_F(CdsInt32AccessorTest, PushWhenTheChannelVanishesCarriesZero) {
    auto const intEncoder = encoder();
    intEncoder->setCallback(pushed.listener());
    store.removeChannel(kChannel);
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], (Registers{0x0000, 0x0000}));
}

TEST_F(CdsInt32AccessorTest, SetCallbackReplacesTheListener) {
    encoder_test::Recorder<uint16_t> first;
    auto const intEncoder = encoder();
    intEncoder->setCallback(first.listener());
    intEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(3));
    EXPECT_TRUE(first.arrays.empty());
    EXPECT_EQ(pushed.arrays.size(), 1u);
}

// ---- Unsupported byte orders -----------------------------------------------

TEST_F(CdsInt32AccessorTest, GetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { intEncoder->getData(); }),
              "ildArrayFromInt32 is not implemented for ByteOrder ");
}

TEST_F(CdsInt32AccessorTest, BuildArrayWithOrderThreeThrowsTheLiteralAdvancedByThree) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { intEncoder->buildArrayFromInt32(1); }),
              "ldArrayFromInt32 is not implemented for ByteOrder ");
}

TEST_F(CdsInt32AccessorTest, SetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const intEncoder = encoder();
    intEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] {
                  intEncoder->setData({0, 1});
              }),
              "tData is not implemented for ByteOrder ");
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsInt32AccessorTest, PushWithUnsupportedOrderThrowsOutOfTheCallback) {
    auto const intEncoder = encoder();
    intEncoder->setCallback(pushed.listener());
    intEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { intEncoder->callbackCdsEvent(kq::CValue(1)); }),
              "ildArrayFromInt32 is not implemented for ByteOrder ");
    EXPECT_TRUE(pushed.arrays.empty());
}

// ---- While unavailable -------------------------------------------------------

TEST_F(CdsInt32AccessorTest, UnavailableValueReportsNotAvailable) {
    EXPECT_FALSE(unavailableEncoder()->isDataAvailable());
}

TEST_F(CdsInt32AccessorTest, UnavailableValueGivesNoRegisters) {
    EXPECT_TRUE(unavailableEncoder()->getData().empty());
}

TEST_F(CdsInt32AccessorTest, UnavailableValueGivesNoText) {
    EXPECT_EQ(unavailableEncoder()->getStrValue(), "");
}

TEST_F(CdsInt32AccessorTest, UnavailableValueDropsWrites) {
    auto const intEncoder = unavailableEncoder();
    store.resetCalls();
    intEncoder->setData({0, 1});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(stored(), kq::CValue(0x12345678));
}

TEST_F(CdsInt32AccessorTest, UnavailableValueKeepsSizeAndRepresentation) {
    auto const intEncoder = unavailableEncoder();
    EXPECT_EQ(intEncoder->getSizeInRegister(), 2);
    EXPECT_EQ(intEncoder->getDataRepresentation(), "Int32 (Standard)");
}

TEST_F(CdsInt32AccessorTest, UnavailableValueWithUnsupportedOrderNeverThrows) {
    auto const intEncoder = unavailableEncoder();
    intEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    store.resetCalls();
    EXPECT_TRUE(intEncoder->getData().empty());
    EXPECT_EQ(intEncoder->getStrValue(), "");
    EXPECT_NO_THROW(intEncoder->setData({0, 1}));
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsInt32Accessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsInt32Accessor>(source);
}

TEST(CdsInt32AccessorLifecycle, DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsInt32AccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsInt32AccessorLifecycle, DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
