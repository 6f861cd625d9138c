// CdsStringToOneRegisterAccessor over a real channel accessor on the host
// store: a decimal number held as text, in one register, parsed with
// std::stoul, and written back as decimal text.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "golden/one_register_vectors.h"
#include "listener_slot.h"
#include "modbus/CdsStringToOneRegisterAccessor.h"

namespace {

using modbus::CdsStringToOneRegisterAccessor;
using Registers = std::vector<std::uint16_t>;

class CdsStringToOneRegisterAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const channel = world.addChannel("Number", kq::CValue("0"));

    std::unique_ptr<CdsStringToOneRegisterAccessor> encoder(std::string const& name = "Number") {
        return std::make_unique<CdsStringToOneRegisterAccessor>(world.newChannelAccessor(name));
    }
    void store(std::string const& text) { world.store.setChannelValue(channel, kq::CValue(text)); }
    kq::CValue stored() const { return world.store.channelValue(channel); }
};

// ---- Reads ----------------------------------------------------------------------

TEST_F(CdsStringToOneRegisterAccessorTest, FortyTwoReadsAsFortyTwo) {
    auto const subject = encoder();
    store("42");
    EXPECT_EQ(subject->getData(), Registers{42});
    EXPECT_EQ(subject->getStrValue(), "42");
}

TEST_F(CdsStringToOneRegisterAccessorTest, ParseSkipsLeadingBlanksAndStopsAtTheFirstNonDigit) {
    auto const subject = encoder();
    store(" 7x");
    EXPECT_EQ(subject->getData(), Registers{7});
}

TEST_F(CdsStringToOneRegisterAccessorTest, MinusOneReadsAsAllOnesAndShows65535) {
    auto const subject = encoder();
    store("-1");
    EXPECT_EQ(subject->getData(), Registers{0xFFFF});
    EXPECT_EQ(subject->getStrValue(), "65535");
}

TEST_F(CdsStringToOneRegisterAccessorTest, TextIsThatOfTheRegisterNotTheStoredText) {
    auto const subject = encoder();
    store("70000");
    EXPECT_EQ(subject->getData(), Registers{4464});
    EXPECT_EQ(subject->getStrValue(), "4464");
}

TEST_F(CdsStringToOneRegisterAccessorTest, TextWithoutDigitsThrowsInvalidArgumentFromReads) {
    auto const subject = encoder();
    store("abc");
    EXPECT_THROW(subject->getData(), std::invalid_argument);
    EXPECT_THROW(subject->getStrValue(), std::invalid_argument);
}

TEST_F(CdsStringToOneRegisterAccessorTest, EmptyTextThrowsInvalidArgumentNamingStoul) {
    auto const subject = encoder();
    store("");
    try {
        subject->getData();
        FAIL() << "an empty text parsed";
    } catch (std::invalid_argument const& error) {
        EXPECT_EQ(std::string(error.what()), "stoul");
    }
}

TEST_F(CdsStringToOneRegisterAccessorTest, NumberBeyondUnsignedLongThrowsOutOfRangeNamingStoul) {
    auto const subject = encoder();
    store("99999999999999999999999");
    try {
        subject->getData();
        FAIL() << "a number beyond unsigned long parsed";
    } catch (std::out_of_range const& error) {
        EXPECT_EQ(std::string(error.what()), "stoul");
    }
}

TEST_F(CdsStringToOneRegisterAccessorTest, PushOfATextWithoutDigitsThrowsOutOfTheHandler) {
    auto const subject = encoder();
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    EXPECT_THROW(subject->callbackCdsEvent(kq::CValue("abc")), std::invalid_argument);
    EXPECT_TRUE(pushes.received.empty());
}

TEST_F(CdsStringToOneRegisterAccessorTest, PushWithoutListenerDoesNotParse) {
    auto const subject = encoder();
    EXPECT_NO_THROW(subject->callbackCdsEvent(kq::CValue("abc")));
}

TEST_F(CdsStringToOneRegisterAccessorTest, PushEncodesTheNewTextForTheListener) {
    auto const subject = encoder();
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store("65537");
    EXPECT_EQ(pushes.received, std::vector<Registers>{{1}});
}

TEST_F(CdsStringToOneRegisterAccessorTest, ReportsLowerCaseUint16AndOneRegister) {
    auto const subject = encoder();
    EXPECT_EQ(subject->getDataRepresentation(), "Uint16");
    EXPECT_EQ(subject->getSizeInRegister(), 1u);
}

// ---- Writes ---------------------------------------------------------------------

TEST_F(CdsStringToOneRegisterAccessorTest, Writing65535StoresTheText65535) {
    auto const subject = encoder();
    subject->setData({65535});
    EXPECT_EQ(stored(), kq::CValue("65535"));
}

TEST_F(CdsStringToOneRegisterAccessorTest, WriteUsesOnlyTheFirstRegister) {
    auto const subject = encoder();
    subject->setData({12, 34});
    EXPECT_EQ(stored(), kq::CValue("12"));
}

TEST_F(CdsStringToOneRegisterAccessorTest, EmptyWriteOnAnAvailableValueThrowsOutOfRange) {
    auto const subject = encoder();
    EXPECT_THROW(subject->setData({}), std::out_of_range);
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsStringToOneRegisterAccessorTest, ByteOrderIsIgnored) {
    auto const subject = encoder();
    store("258");
    subject->setByteOrder(modbus::ByteOrder::ByteSwapped);
    EXPECT_EQ(subject->getData(), Registers{258});
}

// ---- Availability, failures, ownership ------------------------------------------

TEST_F(CdsStringToOneRegisterAccessorTest, MissingItemReadsEmptyAndDropsEvenAnEmptyWrite) {
    auto const subject = encoder("Missing");
    EXPECT_FALSE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Registers{});
    EXPECT_EQ(subject->getStrValue(), "");
    EXPECT_NO_THROW(subject->setData({}));
    subject->setData({5});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(subject->getDataRepresentation(), "Uint16");
}

TEST_F(CdsStringToOneRegisterAccessorTest, ReadAndWriteFailuresOfTheStorePropagate) {
    auto const subject = encoder();
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({1}), cdshost::InjectedFault);
}

TEST_F(CdsStringToOneRegisterAccessorTest, DestroyingTheEncoderDestroysAnAdoptedAccessor) {
    auto subject = encoder();
    ASSERT_EQ(world.valueSubscriptions(channel), 1u);
    subject.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 0u);
}

TEST_F(CdsStringToOneRegisterAccessorTest, DestroyingTheEncoderLeavesASharedAccessorAlive) {
    auto const shared = world.sharedChannelAccessor("Number");
    auto subject = std::make_unique<CdsStringToOneRegisterAccessor>(shared);
    subject.reset();
    shared->setUpdateCallback({});  // the encoder's binding is the sharer's to withdraw
    EXPECT_EQ(world.valueSubscriptions(channel), 1u);
    EXPECT_TRUE(shared->isExitingInCds());
}

// ---- Literal registers ----------------------------------------------------------

class CdsStringToOneRegisterAccessorReadTable
    : public CdsStringToOneRegisterAccessorTest,
      public ::testing::WithParamInterface<golden::DecimalTextVector> {};

TEST_P(CdsStringToOneRegisterAccessorReadTable, RegisterAndTextMatchTheLiterals) {
    auto const subject = encoder();
    store(GetParam().text);
    EXPECT_EQ(subject->getData(), Registers{GetParam().reg});
    EXPECT_EQ(subject->getStrValue(), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsStringToOneRegisterAccessorReadTable,
                         ::testing::ValuesIn(golden::kDecimalTexts),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Laws over generated inputs ----------------------------------------------

TEST_F(CdsStringToOneRegisterAccessorTest, GeneratedNumbersReadAsTheirValueModulo65536) {
    std::mt19937 random(555u);
    std::uniform_int_distribution<std::uint32_t> numbers(0,
                                                         std::numeric_limits<std::uint32_t>::max());
    auto const subject = encoder();
    for (int i = 0; i < 3000; ++i) {
        std::uint32_t const number = numbers(random) >> (i % 32);
        world.store.setChannelValue(channel, kq::CValue(std::to_string(number)), false);
        auto const expected = static_cast<std::uint16_t>(number % 65536u);
        ASSERT_EQ(subject->getData(), Registers{expected}) << number;
        ASSERT_EQ(subject->getStrValue(), std::to_string(expected));
    }
}

TEST_F(CdsStringToOneRegisterAccessorTest, GeneratedWritesStoreDecimalTextThatReadsBackUnchanged) {
    std::mt19937 random(556u);
    std::uniform_int_distribution<int> registers(0, 65535);
    auto const subject = encoder();
    for (int i = 0; i < 3000; ++i) {
        auto const reg = static_cast<std::uint16_t>(registers(random));
        subject->setData({reg});
        ASSERT_EQ(stored(), kq::CValue(std::to_string(reg)));
        ASSERT_EQ(subject->getData(), Registers{reg});
    }
}

// ---- Lifecycle -------------------------------------------------------------------

std::unique_ptr<modbus::CdsStringToOneRegisterAccessor> encoderOverSharedSource(
    std::shared_ptr<modbus::CdsDataAccessor> const& source) {
    return std::make_unique<modbus::CdsStringToOneRegisterAccessor>(source);
}

TEST(CdsStringToOneRegisterAccessorLifecycle,
     DestroyedEncoderWithdrawsItsListenerFromASharedSource) {
    encoder_test::expectDestroyedEncoderWithdrawsItsListener(&encoderOverSharedSource);
}

TEST(CdsStringToOneRegisterAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    encoder_test::expectListenerMayClearItselfInsideAPush(&encoderOverSharedSource);
}

TEST(CdsStringToOneRegisterAccessorLifecycle,
     DestroyedEncoderLeavesTheListenerOfAnotherEncoderInPlace) {
    encoder_test::expectDestroyedEncoderLeavesAnotherListenerInPlace(&encoderOverSharedSource);
}

}  // namespace
