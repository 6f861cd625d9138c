// CdsDataToDiscretesAccessor over real channel, device and alarm accessors on
// the host store: the any-source availability rule, reads kept apart from
// the push cache, arrays sized by the block on reads and by the sources on
// writes, and a written discrete that counts only when it is exactly 1.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "listener_slot.h"
#include "modbus/CdsDataToDiscretesAccessor.h"

namespace {

using modbus::CdsDataToDiscretesAccessor;
using Discretes = std::vector<std::uint8_t>;
using Bits = std::vector<bool>;
using Values = std::vector<kq::CValue>;
using DataToDiscretes = std::function<Bits(Values const&)>;
using DiscretesToData = std::function<Values(Bits const&)>;

/* Conversion functions that record what they were given. */
struct Conversions {
    std::vector<Values> toBitsCalls;
    std::vector<Bits> toDataCalls;
    Bits bits{true};
    Values values;

    DataToDiscretes toBits() {
        return [this](Values const& in) {
            toBitsCalls.push_back(in);
            return bits;
        };
    }
    DiscretesToData toData() {
        return [this](Bits const& in) {
            toDataCalls.push_back(in);
            return values;
        };
    }
};

class CdsDataToDiscretesAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const a = world.addChannel("A", kq::CValue(true));
    cdshost::Id const b = world.addChannel("B", kq::CValue(false));
    cdshost::Id const c = world.addChannel("C", kq::CValue(true));
    Conversions conversions;

    /* A composite over the channels of these names (a missing name gives a
     * source that does not exist). */
    std::unique_ptr<CdsDataToDiscretesAccessor> composite(std::vector<std::string> const& names,
                                                          unsigned short size = 1) {
        std::vector<modbus::CdsDataAccessor*> sources;
        for (std::string const& name : names) {
            sources.push_back(world.newChannelAccessor(name));
        }
        return std::make_unique<CdsDataToDiscretesAccessor>(size, sources, conversions.toBits(),
                                                            conversions.toData());
    }
};

// ---- Availability -------------------------------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, OnlyTheSecondOfThreeExistingIsEnoughAndReadsPassAllThree) {
    auto const subject = composite({"Missing0", "B", "Missing2"});
    EXPECT_TRUE(subject->isDataAvailable());
    subject->getData();
    EXPECT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(), kq::CValue(false), kq::CValue()}));
}

TEST_F(CdsDataToDiscretesAccessorTest, WithoutSourcesIsUnavailableSoReadsAreEmptyAndWritesDropped) {
    conversions.values = {kq::CValue(true)};
    auto const subject = composite({}, 4);
    EXPECT_FALSE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Discretes{});
    EXPECT_EQ(subject->getStrValue(), "");
    subject->setData({1});
    EXPECT_TRUE(conversions.toBitsCalls.empty());
    EXPECT_TRUE(conversions.toDataCalls.empty());
}

TEST_F(CdsDataToDiscretesAccessorTest, WithNoSourceExistingReadsAreEmptyAndWritesDropped) {
    conversions.values = {kq::CValue(true)};
    auto const subject = composite({"Missing0", "Missing1"});
    EXPECT_FALSE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Discretes{});
    subject->setData({1});
    EXPECT_TRUE(conversions.toDataCalls.empty());
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

// ---- Arrays -----------------------------------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, ThreeBitsInABlockOfEightArePaddedButTheTextIsNot) {
    conversions.bits = {true, false, true};
    auto const subject = composite({"A"}, 8);
    EXPECT_EQ(subject->getData(), (Discretes{1, 0, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(subject->getStrValue(), "101");
}

TEST_F(CdsDataToDiscretesAccessorTest, FourBitsInABlockOfTwoAreCutButTheTextIsNot) {
    conversions.bits = {false, true, true, false};
    auto const subject = composite({"A"}, 2);
    EXPECT_EQ(subject->getData(), (Discretes{0, 1}));
    EXPECT_EQ(subject->getStrValue(), "0110");
}

TEST_F(CdsDataToDiscretesAccessorTest, WritingOneTwoZeroHandsOnlyTheOneAsTrue) {
    auto const subject = composite({"A", "B", "C"});
    subject->setData({1, 2, 0});
    EXPECT_EQ(conversions.toDataCalls, std::vector<Bits>{(Bits{true, false, false})});
}

TEST_F(CdsDataToDiscretesAccessorTest, WritingOneDiscreteToThreeSourcesPadsWithFalse) {
    auto const subject = composite({"A", "B", "C"});
    subject->setData({1});
    EXPECT_EQ(conversions.toDataCalls, std::vector<Bits>{(Bits{true, false, false})});
}

TEST_F(CdsDataToDiscretesAccessorTest, WritingMoreDiscretesThanSourcesDropsTheSurplus) {
    auto const subject = composite({"A"}, 4);
    subject->setData({0, 1, 1, 1});
    EXPECT_EQ(conversions.toDataCalls, std::vector<Bits>{Bits{false}});
}

TEST_F(CdsDataToDiscretesAccessorTest, ByteOf255WritesFalse) {
    auto const subject = composite({"A"});
    subject->setData({255});
    EXPECT_EQ(conversions.toDataCalls, std::vector<Bits>{Bits{false}});
}

TEST_F(CdsDataToDiscretesAccessorTest, BuildArrayFromBoolIsSizedByTheBlock) {
    auto const subject = composite({"A", "B"}, 3);
    EXPECT_EQ(subject->buildArrayFromBool({}), (Discretes{0, 0, 0}));
    EXPECT_EQ(subject->buildArrayFromBool({true, true, true, true, true}), (Discretes{1, 1, 1}));
}

TEST_F(CdsDataToDiscretesAccessorTest, BuildArrayFromUint8IsSizedByTheSources) {
    auto const subject = composite({"A", "B"}, 5);
    EXPECT_EQ(subject->buildArrayFromUint8({}), (Bits{false, false}));
    EXPECT_EQ(subject->buildArrayFromUint8({1, 1, 1, 1, 1}), (Bits{true, true}));
}

// ---- Labels -------------------------------------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, OneDiscreteBlockIsBooleanWhileItsSourceExists) {
    auto const subject = composite({"A"}, 1);
    EXPECT_EQ(subject->getDataRepresentation(), "Boolean");
}

TEST_F(CdsDataToDiscretesAccessorTest, OneDiscreteBlockSaysSeeDescriptionWhileItsSourceIsMissing) {
    auto const subject = composite({"Later"}, 1);
    EXPECT_EQ(subject->getDataRepresentation(), "See Description");
    world.addChannel("Later", kq::CValue(true));
    EXPECT_EQ(subject->getDataRepresentation(), "Boolean");
}

TEST_F(CdsDataToDiscretesAccessorTest, WiderBlockSaysSeeDescription) {
    auto const subject = composite({"A"}, 2);
    EXPECT_EQ(subject->getDataRepresentation(), "See Description");
    EXPECT_EQ(subject->getSizeInRegister(), 2u);
}

TEST_F(CdsDataToDiscretesAccessorTest, RepresentationReadsEverySource) {
    auto const subject = composite({"A", "B"}, 1);
    world.store.resetCalls();
    subject->getDataRepresentation();
    EXPECT_EQ(world.store.calls("getChannelCValue", a), 1u);
    EXPECT_EQ(world.store.calls("getChannelCValue", b), 1u);
}

// ---- Reads never touch the push cache ---------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, ReadsLeaveThePushCacheAsTheSourcesPushedIt) {
    auto const subject = composite({"A", "B", "C"});
    encoder_test::Pushes<std::uint8_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(b, kq::CValue(true), false);
    world.store.setChannelValue(c, kq::CValue(false), false);
    for (int i = 0; i < 3; ++i) {
        subject->getData();
        subject->getStrValue();
    }
    ASSERT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(true), kq::CValue(true), kq::CValue(false)}));
    world.store.setChannelValue(a, kq::CValue(false));
    // B and C keep what they pushed when they were bound, not what was read.
    EXPECT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(false), kq::CValue(false), kq::CValue(true)}));
    EXPECT_EQ(pushes.received.size(), 1u);
}

TEST_F(CdsDataToDiscretesAccessorTest, FirstPushFromSourceZeroSeesInvalidForSourcesNotPushedYet) {
    auto const subject = composite({"A", "Missing1", "Missing2"});
    encoder_test::Pushes<std::uint8_t> pushes;
    subject->setCallback(pushes.listener());
    subject->getData();
    subject->getData();
    world.store.setChannelValue(a, kq::CValue(false));
    EXPECT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(false), kq::CValue(), kq::CValue()}));
}

TEST_F(CdsDataToDiscretesAccessorTest, PushIsSizedByTheBlock) {
    conversions.bits = {true, true, true};
    auto const subject = composite({"A"}, 2);
    encoder_test::Pushes<std::uint8_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(a, kq::CValue(true));
    EXPECT_EQ(pushes.received, std::vector<Discretes>{(Discretes{1, 1})});
}

TEST_F(CdsDataToDiscretesAccessorTest, PushWithAListenerButNoConversionThrowsBadFunctionCall) {
    CdsDataToDiscretesAccessor subject(1, {world.newChannelAccessor("A")}, {}, {});
    EXPECT_NO_THROW(subject.callbackCdsEvent(kq::CValue(true), 0));  // no listener yet
    encoder_test::Pushes<std::uint8_t> pushes;
    subject.setCallback(pushes.listener());
    EXPECT_THROW(subject.callbackCdsEvent(kq::CValue(true), 0), std::bad_function_call);
}

TEST_F(CdsDataToDiscretesAccessorTest, EmptyFunctionsGiveEmptyReadsAndNoWrites) {
    CdsDataToDiscretesAccessor subject(1, {world.newChannelAccessor("A")}, {}, {});
    EXPECT_TRUE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Discretes{});
    EXPECT_EQ(subject.getStrValue(), "");
    EXPECT_EQ(subject.getDataRepresentation(), "See Description");
    subject.setData({1});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

// ---- Writes -----------------------------------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, WriteStoresTheConvertedValuesByIndex) {
    conversions.values = {kq::CValue(false), kq::CValue(true)};
    auto const subject = composite({"A", "B", "C"});
    subject->setData({0, 1, 0});
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(false));
    EXPECT_EQ(world.store.channelValue(b), kq::CValue(true));
    EXPECT_EQ(world.store.calls("setChannelCValue", c), 0u);
}

TEST_F(CdsDataToDiscretesAccessorTest, TooManyValuesWriteEverySourceThenThrowOutOfRange) {
    conversions.values = {kq::CValue(false), kq::CValue(true), kq::CValue(false)};
    auto const subject = composite({"A", "B"});
    EXPECT_THROW(subject->setData({1, 1}), std::out_of_range);
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(false));
    EXPECT_EQ(world.store.channelValue(b), kq::CValue(true));
}

TEST_F(CdsDataToDiscretesAccessorTest, ReadAndWriteFailuresOfTheStorePropagate) {
    conversions.values = {kq::CValue(false)};
    auto const subject = composite({"A"});
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({0}), cdshost::InjectedFault);
}

// ---- Sources of every kind, and ownership ---------------------------------------

class CdsDataToDiscretesAccessorMixedSourcesTest : public CdsDataToDiscretesAccessorTest {
  protected:
    cdshost::Id const door = world.addChannel("Door", kq::CValue(true));

    void SetUp() override {
        world.store.setDeviceAttribute(world.device, cdsapi::AttributeLocation, "Rack 2");
        world.store.setAlarmEnabled(door, true);
        world.store.setAlarmThresholdFlag(door, true);
    }

    std::unique_ptr<CdsDataToDiscretesAccessor> mixed() {
        return std::make_unique<CdsDataToDiscretesAccessor>(
            3,
            std::vector<modbus::CdsDataAccessor*>{
                world.newChannelAccessor("A"), world.newDeviceAccessor(cdsapi::AttributeLocation),
                world.newAlarmAccessor("Door", modbus::AlarmTypeTrigger)},
            conversions.toBits(), conversions.toData());
    }
};

TEST_F(CdsDataToDiscretesAccessorMixedSourcesTest, ReadsEveryKindOfSourceInOrder) {
    auto const subject = mixed();
    subject->getData();
    EXPECT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(true), kq::CValue("Rack 2"), kq::CValue(true)}));
}

TEST_F(CdsDataToDiscretesAccessorMixedSourcesTest, MissingAlarmChannelAloneKeepsTheBlockAvailable) {
    world.store.removeChannel(world.store.channelId(world.device, "A"));
    world.store.removeChannel(door);
    auto const subject = mixed();
    // The device source still exists; the alarm source reads false, not invalid.
    EXPECT_TRUE(subject->isDataAvailable());
    subject->getData();
    EXPECT_EQ(conversions.toBitsCalls.back(),
              (Values{kq::CValue(), kq::CValue("Rack 2"), kq::CValue(false)}));
}

TEST_F(CdsDataToDiscretesAccessorMixedSourcesTest, AlarmChangeIsPushedAtItsIndex) {
    auto const subject = mixed();
    encoder_test::Pushes<std::uint8_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setAlarmEnabled(door, false);
    world.store.notifyAlarm(door);
    ASSERT_EQ(pushes.received.size(), 1u);
    EXPECT_EQ(conversions.toBitsCalls.back()[2], kq::CValue(false));
}

TEST_F(CdsDataToDiscretesAccessorMixedSourcesTest, DestroyingTheCompositeDeletesEverySource) {
    auto subject = mixed();
    ASSERT_GT(world.store.subscriptionCount(), 0u);
    subject.reset();
    EXPECT_EQ(world.store.subscriptionCount(), 0u);
}

// ---- Laws over generated inputs ----------------------------------------------

TEST_F(CdsDataToDiscretesAccessorTest, GeneratedBitsFillExactlyTheBlockAndShowEveryBit) {
    std::mt19937 random(99u);
    std::uniform_int_distribution<int> lengths(0, 12);
    std::bernoulli_distribution coin(0.5);
    for (unsigned short size = 0; size <= 9; ++size) {
        auto const subject = composite({"A"}, size);
        for (int i = 0; i < 300; ++i) {
            conversions.bits.assign(static_cast<std::size_t>(lengths(random)), false);
            std::string text;
            for (std::size_t bit = 0; bit < conversions.bits.size(); ++bit) {
                conversions.bits[bit] = coin(random);
                text += conversions.bits[bit] ? '1' : '0';
            }
            Discretes const discretes = subject->getData();
            ASSERT_EQ(discretes.size(), size);
            for (std::size_t d = 0; d < size; ++d) {
                bool const set = d < conversions.bits.size() && conversions.bits[d];
                ASSERT_EQ(discretes[d], set ? 1 : 0);
            }
            ASSERT_EQ(subject->getStrValue(), text);
        }
    }
}

TEST_F(CdsDataToDiscretesAccessorTest, GeneratedWritesHandOneBoolPerSourceTrueOnlyForOne) {
    std::mt19937 random(100u);
    std::uniform_int_distribution<int> lengths(0, 6);
    std::uniform_int_distribution<int> bytes(0, 3);
    std::vector<std::vector<std::string>> const layouts = {
        {"A"}, {"A", "B"}, {"A", "B", "C"}, {"A", "Missing", "C", "B"}};
    for (auto const& names : layouts) {
        auto const subject = composite(names, 2);
        for (int i = 0; i < 500; ++i) {
            Discretes data(static_cast<std::size_t>(lengths(random)));
            for (std::uint8_t& byte : data) {
                byte = static_cast<std::uint8_t>(bytes(random) == 3 ? 255 : bytes(random));
            }
            subject->setData(data);
            Bits const& handed = conversions.toDataCalls.back();
            ASSERT_EQ(handed.size(), names.size());
            for (std::size_t s = 0; s < names.size(); ++s) {
                ASSERT_EQ(handed[s], s < data.size() && data[s] == 1);
            }
        }
    }
}

TEST_F(CdsDataToDiscretesAccessorTest, GeneratedExistenceIsAvailableExactlyWhenAnySourceExists) {
    std::mt19937 random(101u);
    std::bernoulli_distribution present(0.3);
    for (int i = 0; i < 200; ++i) {
        std::vector<std::string> names;
        bool any = false;
        int const count = i % 5;
        for (int s = 0; s < count; ++s) {
            bool const exists = present(random);
            any = any || exists;
            names.push_back(exists ? "A" : "Missing");
        }
        auto const subject = composite(names);
        ASSERT_EQ(subject->isDataAvailable(), any);
        ASSERT_EQ(subject->getData().empty(), !any);
    }
}

// ---- Lifecycle -------------------------------------------------------------------

TEST(CdsDataToDiscretesAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    auto* const source = new encoder_test::ListenerSlot();
    CdsDataToDiscretesAccessor encoder(
        1, {source},
        [](std::vector<kq::CValue> const& values) { return std::vector<bool>{!values.empty()}; },
        nullptr);
    encoder_test::expectListenerMayClearItselfInsideAPush(encoder, [source] { source->push(); });
}

}  // namespace
