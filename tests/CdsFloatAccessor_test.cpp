#include "modbus/CdsFloatAccessor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "encoder_test_support.h"
#include "failing_allocation.h"
#include "golden/float_vectors.h"
#include "listener_slot.h"

namespace {

using encoder_test::bitsOfFloat;
using encoder_test::kChannel;
using modbus::ByteOrder;
using modbus::CdsFloatAccessor;
using Registers = std::vector<uint16_t>;

Registers words(golden::Pair const& pair) {
    return {pair[0], pair[1]};
}
golden::FloatVector const& vector(golden::FloatVectorIndex index) {
    return golden::floatVector(index);
}

class CdsFloatAccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();
    encoder_test::Recorder<uint16_t> pushed;

    void SetUp() override { encoder_test::addUpsWithChannel(kq::CValue(12.5f)); }

    /* An encoder over the channel, built from a shared data accessor. */
    std::unique_ptr<CdsFloatAccessor> encoder(float multiplier = 1.0f) {
        return std::make_unique<CdsFloatAccessor>(encoder_test::sharedChannelAccessor(),
                                                  multiplier);
    }

    /* An encoder over a channel the UPS lacks. */
    std::unique_ptr<CdsFloatAccessor> unavailableEncoder() {
        return std::make_unique<CdsFloatAccessor>(encoder_test::missingChannelAccessor(), 1.0f);
    }

    float storedFloat() const { return store.channelValue(kChannel).as_float(); }
};

/* Numbers with a decimal comma, as some locales the platform may set up. */
class DecimalComma : public std::numpunct<char> {
  protected:
    char do_decimal_point() const override { return ','; }
};

/* Claims the value is unavailable whatever the data accessor says. */
class NeverAvailableFloatAccessor : public CdsFloatAccessor {
  public:
    using CdsFloatAccessor::CdsFloatAccessor;
    bool isDataAvailable() const override { return false; }
};

// ---- Ownership and registration ------------------------------------------

TEST_F(CdsFloatAccessorTest, SharedConstructorLeavesCallersShareAlive) {
    std::shared_ptr<modbus::CdsChannelAccessor> const source =
        encoder_test::sharedChannelAccessor();
    {
        CdsFloatAccessor const floatEncoder(source, 1.0f);
        EXPECT_EQ(source.use_count(), 2);
    }
    EXPECT_EQ(source.use_count(), 1);
    EXPECT_TRUE(source->isExitingInCds());
    EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
}

TEST_F(CdsFloatAccessorTest, RawPointerConstructorDestroysDataAccessorWithTheEncoder) {
    {
        CdsFloatAccessor const floatEncoder(encoder_test::newChannelAccessor(), 1.0f);
        EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
    }
    // The channel accessor's destructor closed its store subscription.
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsFloatAccessorTest, RawPointerIsDeletedWhenWrappingItThrows) {
    modbus::CdsDataAccessor* const source = encoder_test::newChannelAccessor();
    ASSERT_EQ(encoder_test::channelSubscriptions(), 1u);
    bool failed = false;
    {
        // The first allocation of the constructor is the shared_ptr's control block.
        failing_allocation::FailAllocationGuard const guard;
        EXPECT_THROW(CdsFloatAccessor(source, 1.0f), std::bad_alloc);
        failed = guard.failed();
    }
    EXPECT_TRUE(failed);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsFloatAccessorTest, ConstructorMakesEncoderTheDataAccessorsListener) {
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(15.0f));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], words(vector(golden::kFifteen).setDcba));
}

// ---- Fixed properties ------------------------------------------------------

TEST_F(CdsFloatAccessorTest, ByteOrderStartsAsStandard) {
    EXPECT_EQ(encoder()->getDataRepresentation(), "Float (Standard)");
}

TEST_F(CdsFloatAccessorTest, SizeInRegisterIsTwo) {
    EXPECT_EQ(encoder()->getSizeInRegister(), 2);
}

TEST_F(CdsFloatAccessorTest, DataRepresentationChangesAfterSetByteOrder) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(floatEncoder->getDataRepresentation(), "Float (WordSwapped)");
    floatEncoder->setByteOrder(static_cast<ByteOrder>(7));
    EXPECT_EQ(floatEncoder->getDataRepresentation(), "Float (Unknown(7))");
}

TEST_F(CdsFloatAccessorTest, IsDataAvailableFollowsTheChannel) {
    auto const floatEncoder = encoder();
    EXPECT_TRUE(floatEncoder->isDataAvailable());
    store.removeChannel(kChannel);
    EXPECT_FALSE(floatEncoder->isDataAvailable());
}

// ---- getData -------------------------------------------------------------

TEST_F(CdsFloatAccessorTest, GetDataInOrderZeroUsesTheDcbaLayout) {
    EXPECT_EQ(encoder()->getData(), words(vector(golden::kTwelvePointFive).setDcba));
}

TEST_F(CdsFloatAccessorTest, GetDataInOrderOneUsesTheBadcLayout) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(floatEncoder->getData(), words(vector(golden::kTwelvePointFive).setBadc));
}

TEST_F(CdsFloatAccessorTest, OrderOneGivesTheRegistersOfOrderZeroExchanged) {
    store.setChannelValue(kChannel, kq::CValue(0.001f));
    auto const floatEncoder = encoder();
    Registers const orderZero = floatEncoder->getData();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    Registers const orderOne = floatEncoder->getData();
    ASSERT_EQ(orderZero, words(vector(golden::kOneThousandth).setDcba));
    EXPECT_EQ(orderOne, (Registers{orderZero[1], orderZero[0]}));
}

TEST_F(CdsFloatAccessorTest, GetDataAppliesMultiplierTwice) {
    store.setChannelValue(kChannel, kq::CValue(1.5f));
    EXPECT_EQ(encoder(10.0f)->getData(), words(vector(golden::kOneHundredFifty).setDcba));
}

TEST_F(CdsFloatAccessorTest, GetDataReadsTheValueAfreshOnEveryCall) {
    auto const floatEncoder = encoder();
    EXPECT_EQ(floatEncoder->getData(), words(vector(golden::kTwelvePointFive).setDcba));
    store.setChannelValue(kChannel, kq::CValue(-1.0f), false);
    EXPECT_EQ(floatEncoder->getData(), words(vector(golden::kMinusOne).setDcba));
}

TEST_F(CdsFloatAccessorTest, GetDataWithZeroMultiplierGivesZero) {
    EXPECT_EQ(encoder(0.0f)->getData(), words(vector(golden::kZero).setDcba));
}

TEST_F(CdsFloatAccessorTest, GetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableFloatAccessor const floatEncoder(encoder_test::sharedChannelAccessor(), 1.0f);
    store.resetCalls();
    EXPECT_TRUE(floatEncoder.getData().empty());
    EXPECT_TRUE(floatEncoder.getStrValue().empty());
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsFloatAccessorTest, GetDataLetsDataStoreFailuresThrough) {
    auto const floatEncoder = encoder();
    store.failNext("getChannelCValue");
    EXPECT_THROW(floatEncoder->getData(), cdshost::InjectedFault);
}

// ---- getStrValue -----------------------------------------------------------

TEST_F(CdsFloatAccessorTest, StrValueHasThreeDecimals) {
    EXPECT_EQ(encoder()->getStrValue(), "12.500");
}

TEST_F(CdsFloatAccessorTest, StrValueOfNegativeQuarterIsMinusZeroPointTwoFifty) {
    store.setChannelValue(kChannel, kq::CValue(-0.25f));
    EXPECT_EQ(encoder()->getStrValue(), "-0.250");
}

TEST_F(CdsFloatAccessorTest, StrValueAppliesMultiplierOnce) {
    store.setChannelValue(kChannel, kq::CValue(1.5f));
    EXPECT_EQ(encoder(10.0f)->getStrValue(), "15.000");
}

TEST_F(CdsFloatAccessorTest, StrValueIgnoresByteOrderEvenAnUnsupportedOne) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(floatEncoder->getStrValue(), "12.500");
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(floatEncoder->getStrValue(), "12.500");
}

TEST_F(CdsFloatAccessorTest, StrValueKeepsADecimalPointUnderADecimalCommaGlobalLocale) {
    std::locale const decimalComma(std::locale::classic(), new DecimalComma);
    std::locale const previous = std::locale::global(decimalComma);
    std::string const text = encoder()->getStrValue();
    std::locale::global(previous);
    EXPECT_EQ(text, "12.500");
}

// ---- setData -----------------------------------------------------------------

TEST_F(CdsFloatAccessorTest, SetDataInOrderZeroDecodesWithDcbaAndWritesAFloat) {
    encoder()->setData(words(vector(golden::kTwelvePointFive).getDcba));
    kq::CValue const written = store.channelValue(kChannel);
    EXPECT_EQ(written.type(), kq::CValue::Type::Float);
    EXPECT_EQ(written, kq::CValue(12.5f));
}

TEST_F(CdsFloatAccessorTest, SetDataInOrderOneDecodesWithBadc) {
    store.setChannelValue(kChannel, kq::CValue(0.0f));
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    floatEncoder->setData(words(vector(golden::kOneThousandth).getBadc));
    EXPECT_EQ(store.channelValue(kChannel), kq::CValue(0.001f));
}

TEST_F(CdsFloatAccessorTest, SetDataDividesByMultiplier) {
    encoder(10.0f)->setData(words(vector(golden::kTwelvePointFive).getDcba));
    EXPECT_EQ(store.channelValue(kChannel), kq::CValue(1.25f));
}

TEST_F(CdsFloatAccessorTest, SetDataOfOneRegisterDecodesItWithAZeroSecondRegister) {
    encoder()->setData({golden::kSingleRegister1234[0]});
    EXPECT_EQ(bitsOfFloat(storedFloat()), golden::kSingleRegister1234DcbaBits);
}

TEST_F(CdsFloatAccessorTest, SetDataOfOneRegisterInOrderOneDecodesItWithBadc) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    floatEncoder->setData({golden::kSingleRegister1234[0]});
    EXPECT_EQ(bitsOfFloat(storedFloat()), golden::kSingleRegister1234BadcBits);
}

TEST_F(CdsFloatAccessorTest, SetDataOfNoRegistersWritesZeroDividedByMultiplier) {
    encoder(-4.0f)->setData({});
    kq::CValue const written = store.channelValue(kChannel);
    EXPECT_EQ(written.type(), kq::CValue::Type::Float);
    // 0.0 / -4.0 is -0.0: the division happens, it is not skipped.
    EXPECT_EQ(bitsOfFloat(written.as_float()), 0x80000000u);
}

TEST_F(CdsFloatAccessorTest, SetDataIgnoresRegistersAfterTheSecond) {
    golden::Pair const pair = vector(golden::kTwelvePointFive).getDcba;
    encoder()->setData({pair[0], pair[1], 0xFFFF});
    EXPECT_EQ(store.channelValue(kChannel), kq::CValue(12.5f));
}

TEST_F(CdsFloatAccessorTest, SetDataWithZeroMultiplierWritesInfinity) {
    encoder(0.0f)->setData(words(vector(golden::kTwelvePointFive).getDcba));
    EXPECT_EQ(storedFloat(), std::numeric_limits<float>::infinity());
}

TEST_F(CdsFloatAccessorTest, SetDataOfZeroWithZeroMultiplierWritesNaN) {
    encoder(0.0f)->setData({0x0000, 0x0000});
    EXPECT_TRUE(std::isnan(storedFloat()));
}

TEST_F(CdsFloatAccessorTest, RegistersWrittenBackAsReadDoNotKeepTheValue) {
    // With the linked libmodbus the dcba getter does not invert the setter, so
    // a client that writes back what it read changes the value.
    auto const floatEncoder = encoder();
    floatEncoder->setData(floatEncoder->getData());
    EXPECT_EQ(bitsOfFloat(storedFloat()), golden::kTwelvePointFiveWrittenBackDcbaBits);
}

TEST_F(CdsFloatAccessorTest, SetDataLetsDataStoreFailuresThrough) {
    auto const floatEncoder = encoder();
    store.failNext("setChannelCValue");
    EXPECT_THROW(floatEncoder->setData({0, 0}), cdshost::InjectedFault);
}

TEST_F(CdsFloatAccessorTest, SetDataAsksTheEncodersOwnAvailability) {
    NeverAvailableFloatAccessor floatEncoder(encoder_test::sharedChannelAccessor(), 1.0f);
    floatEncoder.setData({0, 0});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(store.channelValue(kChannel), kq::CValue(12.5f));
}

// ---- Pushes ------------------------------------------------------------------

TEST_F(CdsFloatAccessorTest, PushAppliesMultiplierOnce) {
    auto const floatEncoder = encoder(10.0f);
    floatEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(1.5f));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], words(vector(golden::kFifteen).setDcba));
}

TEST_F(CdsFloatAccessorTest, PushInOrderOneUsesTheBadcLayout) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordSwapped);
    floatEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(-1.0f));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], words(vector(golden::kMinusOne).setBadc));
}

TEST_F(CdsFloatAccessorTest, PushEncodesTheValueHandedOverNotAFreshRead) {
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(pushed.listener());
    store.resetCalls();
    floatEncoder->callbackCdsEvent(kq::CValue(15.0f));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], words(vector(golden::kFifteen).setDcba));
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsFloatAccessorTest, PushWithoutListenerDoesNothingEvenWithUnsupportedOrder) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_NO_THROW(floatEncoder->callbackCdsEvent(kq::CValue(1.0f)));
}

TEST_F(CdsFloatAccessorTest, PushWhenTheChannelVanishesCarriesZero) {
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(pushed.listener());
    store.removeChannel(kChannel);
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], words(vector(golden::kZero).setDcba));
}

TEST_F(CdsFloatAccessorTest, SetCallbackReplacesTheListener) {
    encoder_test::Recorder<uint16_t> first;
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(first.listener());
    floatEncoder->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(15.0f));
    EXPECT_TRUE(first.arrays.empty());
    EXPECT_EQ(pushed.arrays.size(), 1u);
}

TEST_F(CdsFloatAccessorTest, EmptyCallbackRemovesTheListener) {
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(pushed.listener());
    floatEncoder->setCallback({});
    store.setChannelValue(kChannel, kq::CValue(15.0f));
    EXPECT_TRUE(pushed.arrays.empty());
}

// ---- Unsupported byte orders -----------------------------------------------

TEST_F(CdsFloatAccessorTest, GetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { floatEncoder->getData(); }),
              "ildArrayFromFloat is not implemented for ByteOrder ");
}

TEST_F(CdsFloatAccessorTest, SetDataWithOrderTwoThrowsTheLiteralAdvancedByTwo) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] {
                  floatEncoder->setData({0, 0});
              }),
              "tData is not implemented for ByteOrder ");
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsFloatAccessorTest, SetDataWithOrderThreeThrowsTheLiteralAdvancedByThree) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] {
                  floatEncoder->setData({0, 0});
              }),
              "Data is not implemented for ByteOrder ");
}

TEST_F(CdsFloatAccessorTest, BuildArrayWithOrderThreeThrowsTheLiteralAdvancedByThree) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(ByteOrder::WordByteSwapped);
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { floatEncoder->buildArrayFromFloat(1.0f); }),
              "ldArrayFromFloat is not implemented for ByteOrder ");
}

TEST_F(CdsFloatAccessorTest, OrderPastTheEndOfTheLiteralGivesAnEmptyMessage) {
    auto const floatEncoder = encoder();
    floatEncoder->setByteOrder(static_cast<ByteOrder>(500));
    EXPECT_EQ(encoder_test::logicErrorMessage([&] { floatEncoder->getData(); }), "");
}

TEST_F(CdsFloatAccessorTest, PushWithUnsupportedOrderThrowsOutOfTheCallback) {
    auto const floatEncoder = encoder();
    floatEncoder->setCallback(pushed.listener());
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    EXPECT_EQ(
        encoder_test::logicErrorMessage([&] { floatEncoder->callbackCdsEvent(kq::CValue(1.0f)); }),
        "ildArrayFromFloat is not implemented for ByteOrder ");
    EXPECT_TRUE(pushed.arrays.empty());
}

// ---- While unavailable -------------------------------------------------------

TEST_F(CdsFloatAccessorTest, UnavailableValueReportsNotAvailable) {
    EXPECT_FALSE(unavailableEncoder()->isDataAvailable());
}

TEST_F(CdsFloatAccessorTest, UnavailableValueGivesNoRegisters) {
    EXPECT_TRUE(unavailableEncoder()->getData().empty());
}

TEST_F(CdsFloatAccessorTest, UnavailableValueGivesNoText) {
    EXPECT_EQ(unavailableEncoder()->getStrValue(), "");
}

TEST_F(CdsFloatAccessorTest, UnavailableValueDropsWrites) {
    auto const floatEncoder = unavailableEncoder();
    store.resetCalls();
    floatEncoder->setData(words(vector(golden::kOneHundredFifty).getDcba));
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(store.channelValue(kChannel), kq::CValue(12.5f));
}

TEST_F(CdsFloatAccessorTest, UnavailableValueKeepsSizeAndRepresentation) {
    auto const floatEncoder = unavailableEncoder();
    EXPECT_EQ(floatEncoder->getSizeInRegister(), 2);
    EXPECT_EQ(floatEncoder->getDataRepresentation(), "Float (Standard)");
}

TEST_F(CdsFloatAccessorTest, UnavailableValueWithUnsupportedOrderNeverThrows) {
    auto const floatEncoder = unavailableEncoder();
    floatEncoder->setByteOrder(ByteOrder::ByteSwapped);
    store.resetCalls();
    EXPECT_TRUE(floatEncoder->getData().empty());
    EXPECT_EQ(floatEncoder->getStrValue(), "");
    EXPECT_NO_THROW(floatEncoder->setData({0x1234, 0x5678}));
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(floatEncoder->getDataRepresentation(), "Float (ByteSwapped)");
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsFloatAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsFloatAccessor>(source, 1.0f);
}

TEST(CdsFloatAccessorLifecycle, DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsFloatAccessorLifecycle, SharedChannelAccessorOutlivesItsEncoders) {
    encoder_test::addUpsWithChannel(kq::CValue(1.5f));
    auto const source = encoder_test::sharedChannelAccessor();
    auto first = std::make_unique<modbus::CdsFloatAccessor>(source, 1.0f);
    auto second = std::make_unique<modbus::CdsFloatAccessor>(source, 1.0f);
    first.reset();
    second.reset();

    EXPECT_NO_THROW(
        cdshost::Store::instance().setChannelValue(encoder_test::kChannel, kq::CValue(2.5f)));
    EXPECT_EQ(source->getCValue(), kq::CValue(2.5f));
}

TEST(CdsFloatAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsFloatAccessorLifecycle, DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
