#include "modbus/CdsBooleanToOneDiscreteAccessor.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "encoder_test_support.h"
#include "failing_allocation.h"
#include "listener_slot.h"

namespace {

using encoder_test::kChannel;
using modbus::CdsBooleanToOneDiscreteAccessor;
using modbus::DiscreteModifier;
using Discretes = std::vector<uint8_t>;

class CdsBooleanToOneDiscreteAccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();
    encoder_test::Recorder<uint8_t> pushed;

    void SetUp() override { encoder_test::addUpsWithChannel(kq::CValue(true)); }

    std::unique_ptr<CdsBooleanToOneDiscreteAccessor> encoder(
        DiscreteModifier modifier = DiscreteModifier::None) {
        return std::make_unique<CdsBooleanToOneDiscreteAccessor>(
            encoder_test::sharedChannelAccessor(), modifier);
    }

    std::unique_ptr<CdsBooleanToOneDiscreteAccessor> unavailableEncoder(
        DiscreteModifier modifier = DiscreteModifier::None) {
        return std::make_unique<CdsBooleanToOneDiscreteAccessor>(
            encoder_test::missingChannelAccessor(), modifier);
    }

    kq::CValue stored() const { return store.channelValue(kChannel); }
};

/* Claims the value is unavailable whatever the data accessor says. */
class NeverAvailableDiscrete : public CdsBooleanToOneDiscreteAccessor {
  public:
    using CdsBooleanToOneDiscreteAccessor::CdsBooleanToOneDiscreteAccessor;
    bool isDataAvailable() const override { return false; }
};

// ---- Ownership and registration ------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, SharedConstructorLeavesCallersShareAlive) {
    std::shared_ptr<modbus::CdsChannelAccessor> const source =
        encoder_test::sharedChannelAccessor();
    {
        CdsBooleanToOneDiscreteAccessor const discrete(source, DiscreteModifier::None);
        EXPECT_EQ(source.use_count(), 2);
    }
    EXPECT_EQ(source.use_count(), 1);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest,
       RawPointerConstructorDestroysDataAccessorWithTheEncoder) {
    {
        CdsBooleanToOneDiscreteAccessor const discrete(encoder_test::newChannelAccessor(),
                                                       DiscreteModifier::Invert);
        EXPECT_EQ(encoder_test::channelSubscriptions(), 1u);
    }
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, RawPointerIsDeletedWhenWrappingItThrows) {
    modbus::CdsDataAccessor* const source = encoder_test::newChannelAccessor();
    ASSERT_EQ(encoder_test::channelSubscriptions(), 1u);
    bool failed = false;
    {
        // The first allocation of the constructor is the shared_ptr's control block.
        failing_allocation::FailAllocationGuard const guard;
        EXPECT_THROW(CdsBooleanToOneDiscreteAccessor(source, DiscreteModifier::None),
                     std::bad_alloc);
        failed = guard.failed();
    }
    EXPECT_TRUE(failed);
    EXPECT_EQ(encoder_test::channelSubscriptions(), 0u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ConstructorMakesEncoderTheDataAccessorsListener) {
    auto const discrete = encoder();
    discrete->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(false));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], Discretes{0});
}

// ---- Fixed properties ------------------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, SizeIsOneAndRepresentationIsBoolean) {
    auto const discrete = encoder(DiscreteModifier::Invert);
    EXPECT_EQ(discrete->getSizeInRegister(), 1);
    EXPECT_EQ(discrete->getDataRepresentation(), "Boolean");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, IsDataAvailableFollowsTheChannel) {
    auto const discrete = encoder();
    EXPECT_TRUE(discrete->isDataAvailable());
    store.removeChannel(kChannel);
    EXPECT_FALSE(discrete->isDataAvailable());
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, BuildArrayFromBoolGivesOneElement) {
    auto const discrete = encoder();
    EXPECT_EQ(discrete->buildArrayFromBool(true), Discretes{1});
    EXPECT_EQ(discrete->buildArrayFromBool(false), Discretes{0});
}

// ---- Reads -----------------------------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, NoneServesTrueAsOne) {
    auto const discrete = encoder(DiscreteModifier::None);
    EXPECT_EQ(discrete->getData(), Discretes{1});
    EXPECT_EQ(discrete->getStrValue(), "1");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, NoneServesFalseAsZero) {
    store.setChannelValue(kChannel, kq::CValue(false));
    auto const discrete = encoder(DiscreteModifier::None);
    EXPECT_EQ(discrete->getData(), Discretes{0});
    EXPECT_EQ(discrete->getStrValue(), "0");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, InvertServesTrueAsZero) {
    auto const discrete = encoder(DiscreteModifier::Invert);
    EXPECT_EQ(discrete->getData(), Discretes{0});
    EXPECT_EQ(discrete->getStrValue(), "0");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, InvertServesFalseAsOne) {
    store.setChannelValue(kChannel, kq::CValue(false));
    auto const discrete = encoder(DiscreteModifier::Invert);
    EXPECT_EQ(discrete->getData(), Discretes{1});
    EXPECT_EQ(discrete->getStrValue(), "1");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ReadsTheValueAfreshOnEveryCall) {
    auto const discrete = encoder();
    EXPECT_EQ(discrete->getData(), Discretes{1});
    store.setChannelValue(kChannel, kq::CValue(false), false);
    EXPECT_EQ(discrete->getData(), Discretes{0});
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ReadsAskTheEncodersOwnAvailability) {
    NeverAvailableDiscrete const discrete(encoder_test::sharedChannelAccessor(),
                                          DiscreteModifier::None);
    store.resetCalls();
    EXPECT_TRUE(discrete.getData().empty());
    EXPECT_EQ(discrete.getStrValue(), "");
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ReadsLetDataStoreFailuresThrough) {
    auto const discrete = encoder();
    store.failNext("getChannelCValue", 2);
    EXPECT_THROW(discrete->getData(), cdshost::InjectedFault);
    EXPECT_THROW(discrete->getStrValue(), cdshost::InjectedFault);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ReadsLetConversionFailuresThrough) {
    store.setChannelValue(kChannel, kq::CValue("maybe"));
    auto const discrete = encoder();
    EXPECT_THROW(discrete->getData(), kq::ConversionError);
}

// ---- Writes ------------------------------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, NoneWritesZeroAsFalse) {
    encoder(DiscreteModifier::None)->setData({0});
    EXPECT_EQ(stored(), kq::CValue(false));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, NoneWritesFiveAsTrue) {
    store.setChannelValue(kChannel, kq::CValue(false));
    encoder(DiscreteModifier::None)->setData({5});
    kq::CValue const written = stored();
    EXPECT_EQ(written.type(), kq::CValue::Type::Bool);
    EXPECT_EQ(written, kq::CValue(true));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, InvertWritesZeroAsTrue) {
    store.setChannelValue(kChannel, kq::CValue(false));
    encoder(DiscreteModifier::Invert)->setData({0});
    EXPECT_EQ(stored(), kq::CValue(true));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, InvertWritesFiveAsFalse) {
    encoder(DiscreteModifier::Invert)->setData({5});
    kq::CValue const written = stored();
    EXPECT_EQ(written.type(), kq::CValue::Type::Bool);
    EXPECT_EQ(written, kq::CValue(false));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, WriteUsesOnlyTheFirstDiscrete) {
    encoder()->setData({0, 1, 1});
    EXPECT_EQ(stored(), kq::CValue(false));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, EmptyWriteReachesNoSetCValue) {
    auto const discrete = encoder();
    store.resetCalls();
    discrete->setData({});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(stored(), kq::CValue(true));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, WritesAskTheEncodersOwnAvailability) {
    NeverAvailableDiscrete discrete(encoder_test::sharedChannelAccessor(), DiscreteModifier::None);
    discrete.setData({0});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, WritesLetDataStoreFailuresThrough) {
    auto const discrete = encoder();
    store.failNext("setChannelCValue");
    EXPECT_THROW(discrete->setData({1}), cdshost::InjectedFault);
}

// ---- Modifier values other than Invert -----------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ModifierTwoReadsAsNone) {
    auto const discrete = encoder(static_cast<DiscreteModifier>(2));
    EXPECT_EQ(discrete->getData(), Discretes{1});
    EXPECT_EQ(discrete->getStrValue(), "1");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, ModifierTwoWritesAsNone) {
    encoder(static_cast<DiscreteModifier>(2))->setData({0});
    EXPECT_EQ(stored(), kq::CValue(false));
}

// ---- Pushes ------------------------------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, InvertPushesTheUninvertedValue) {
    store.setChannelValue(kChannel, kq::CValue(false));
    auto const discrete = encoder(DiscreteModifier::Invert);
    discrete->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(true));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], Discretes{1});
    // While a read of the same value is inverted.
    EXPECT_EQ(discrete->getData(), Discretes{0});
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, PushEncodesTheValueHandedOverNotAFreshRead) {
    auto const discrete = encoder();
    discrete->setCallback(pushed.listener());
    store.resetCalls();
    discrete->callbackCdsEvent(kq::CValue(false));
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], Discretes{0});
    EXPECT_EQ(store.calls("getChannelCValue"), 0u);
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UpdateBeforeSetCallbackIsDroppedUnconverted) {
    auto const discrete = encoder();
    // A text that is no boolean: converting it would throw.
    EXPECT_NO_THROW(discrete->callbackCdsEvent(kq::CValue("maybe")));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, PushWithListenerConvertsWithAsBool) {
    auto const discrete = encoder();
    discrete->setCallback(pushed.listener());
    EXPECT_THROW(discrete->callbackCdsEvent(kq::CValue("maybe")), kq::ConversionError);
    EXPECT_TRUE(pushed.arrays.empty());
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, PushWhenTheChannelVanishesCarriesZero) {
    auto const discrete = encoder();
    discrete->setCallback(pushed.listener());
    store.removeChannel(kChannel);
    ASSERT_EQ(pushed.arrays.size(), 1u);
    EXPECT_EQ(pushed.arrays[0], Discretes{0});
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, SetCallbackReplacesTheListener) {
    encoder_test::Recorder<uint8_t> first;
    auto const discrete = encoder();
    discrete->setCallback(first.listener());
    discrete->setCallback(pushed.listener());
    store.setChannelValue(kChannel, kq::CValue(false));
    EXPECT_TRUE(first.arrays.empty());
    EXPECT_EQ(pushed.arrays.size(), 1u);
}

// ---- While unavailable -------------------------------------------------------

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UnavailableValueReportsNotAvailable) {
    EXPECT_FALSE(unavailableEncoder()->isDataAvailable());
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UnavailableValueGivesNoDiscretes) {
    EXPECT_TRUE(unavailableEncoder(DiscreteModifier::Invert)->getData().empty());
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UnavailableValueGivesNoText) {
    EXPECT_EQ(unavailableEncoder(DiscreteModifier::Invert)->getStrValue(), "");
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UnavailableValueDropsWrites) {
    auto const discrete = unavailableEncoder();
    store.resetCalls();
    discrete->setData({0});
    EXPECT_EQ(store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(stored(), kq::CValue(true));
}

TEST_F(CdsBooleanToOneDiscreteAccessorTest, UnavailableValueKeepsSizeAndRepresentation) {
    auto const discrete = unavailableEncoder();
    EXPECT_EQ(discrete->getSizeInRegister(), 1);
    EXPECT_EQ(discrete->getDataRepresentation(), "Boolean");
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsBooleanToOneDiscreteAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsBooleanToOneDiscreteAccessor>(
        source, modbus::DiscreteModifier::None);
}

TEST(CdsBooleanToOneDiscreteAccessorLifecycle,
     DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsBooleanToOneDiscreteAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsBooleanToOneDiscreteAccessorLifecycle,
     DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
