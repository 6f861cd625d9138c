// CdsDataToRegistersAccessor over real channel, device and alarm accessors on
// the host store: owned sources, the all-sources availability rule, the cache
// refreshed by reads and pushes, bounds-tested writes, texts and labels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "encoder_test_world.h"
// Allocation failures on demand, around the adoption of raw sources.
#include "failing_allocation.h"
#include "listener_slot.h"
#include "modbus/CdsDataToRegistersAccessor.h"
#include "registers/composite_support.h"

namespace {

using modbus::CdsDataToRegistersAccessor;
using Registers = std::vector<std::uint16_t>;
using Values = std::vector<kq::CValue>;
using DataToRegisters = std::function<Registers(Values const&)>;
using RegistersToData = std::function<Values(Registers const&)>;
using DataToString = std::function<std::string(Values const&)>;

/* Conversion functions that record what they were given. */
struct Conversions {
    std::vector<Values> toRegistersCalls;
    std::vector<Registers> toDataCalls;
    Registers registers{0x0102};
    Values values;

    DataToRegisters toRegisters() {
        return [this](Values const& in) {
            toRegistersCalls.push_back(in);
            return registers;
        };
    }
    RegistersToData toData() {
        return [this](Registers const& in) {
            toDataCalls.push_back(in);
            return values;
        };
    }
};

class CdsDataToRegistersAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const a = world.addChannel("A", kq::CValue(1));
    cdshost::Id const b = world.addChannel("B", kq::CValue(2));
    cdshost::Id const c = world.addChannel("C", kq::CValue(3));
    Conversions conversions;

    /* A composite over the channels of these names (a missing name gives a
     * source that does not exist). */
    std::unique_ptr<CdsDataToRegistersAccessor> composite(std::vector<std::string> const& names,
                                                          unsigned short size = 1,
                                                          DataToString toString = {},
                                                          std::string const& description = "") {
        std::vector<modbus::CdsDataAccessor*> sources;
        for (std::string const& name : names) {
            sources.push_back(world.newChannelAccessor(name));
        }
        return std::make_unique<CdsDataToRegistersAccessor>(
            size, sources, conversions.toRegisters(), conversions.toData(), std::move(toString),
            description);
    }
};

// ---- Availability ---------------------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, WithoutSourcesIsAvailableAndConvertsAnEmptyVector) {
    auto const subject = composite({});
    EXPECT_TRUE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Registers{0x0102});
    EXPECT_EQ(conversions.toRegistersCalls, std::vector<Values>{Values{}});
}

TEST_F(CdsDataToRegistersAccessorTest, OneMissingSourceMakesReadsEmptyAndDropsWrites) {
    conversions.values = {kq::CValue(10), kq::CValue(20)};
    auto const subject = composite({"A", "Missing", "C"});
    EXPECT_FALSE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Registers{});
    EXPECT_EQ(subject->getStrValue(), "");
    subject->setData({1, 2});
    EXPECT_TRUE(conversions.toRegistersCalls.empty());
    EXPECT_TRUE(conversions.toDataCalls.empty());
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsDataToRegistersAccessorTest, BecomesAvailableWhenTheLastSourceAppears) {
    auto const subject = composite({"A", "Later"});
    ASSERT_FALSE(subject->isDataAvailable());
    world.addChannel("Later", kq::CValue(4));
    EXPECT_TRUE(subject->isDataAvailable());
    subject->getData();
    EXPECT_EQ(conversions.toRegistersCalls.back(), (Values{kq::CValue(1), kq::CValue(4)}));
}

// ---- Labels and texts -------------------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, OneRegisterBlockWithoutDescriptionSaysSeeDescription) {
    EXPECT_EQ(composite({"A"}, 1)->getDataRepresentation(), "Int16/UInt16 - see description");
}

TEST_F(CdsDataToRegistersAccessorTest, WiderBlockWithoutDescriptionSaysSeeDescription) {
    EXPECT_EQ(composite({"A"}, 2)->getDataRepresentation(), "See Description");
}

TEST_F(CdsDataToRegistersAccessorTest, DescriptionIsReturnedUnchangedWhateverTheSize) {
    EXPECT_EQ(composite({"A"}, 1, {}, "Status word")->getDataRepresentation(), "Status word");
    EXPECT_EQ(composite({"A"}, 7, {}, "Status word")->getDataRepresentation(), "Status word");
}

TEST_F(CdsDataToRegistersAccessorTest, LabelsDoNotDependOnAvailability) {
    auto const subject = composite({"Missing"}, 3);
    EXPECT_EQ(subject->getDataRepresentation(), "See Description");
    EXPECT_EQ(subject->getSizeInRegister(), 3u);
}

TEST_F(CdsDataToRegistersAccessorTest, WithoutTextFunctionOneRegisterIsShownUnsigned) {
    conversions.registers = {0xFFFF};
    EXPECT_EQ(composite({"A"})->getStrValue(), "65535");
}

TEST_F(CdsDataToRegistersAccessorTest, WithoutTextFunctionTwoRegistersHaveNoText) {
    conversions.registers = {1, 2};
    EXPECT_EQ(composite({"A"}, 2)->getStrValue(), "");
}

TEST_F(CdsDataToRegistersAccessorTest, WithoutTextFunctionNoRegisterHasNoText) {
    conversions.registers = {};
    EXPECT_EQ(composite({"A"})->getStrValue(), "");
}

TEST_F(CdsDataToRegistersAccessorTest, TextFunctionGetsFreshValuesOfEverySource) {
    std::vector<Values> seen;
    auto const subject = composite({"A", "B"}, 1, [&seen](Values const& values) {
        seen.push_back(values);
        return std::string("text");
    });
    world.store.setChannelValue(b, kq::CValue(22), false);
    EXPECT_EQ(subject->getStrValue(), "text");
    EXPECT_EQ(seen, std::vector<Values>{(Values{kq::CValue(1), kq::CValue(22)})});
    EXPECT_TRUE(conversions.toRegistersCalls.empty());
}

// ---- Empty conversion functions -------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, EmptyFunctionsGiveEmptyReadsTextsAndNoWrites) {
    CdsDataToRegistersAccessor subject(1, {world.newChannelAccessor("A")}, {}, {}, {}, "");
    EXPECT_TRUE(subject.isDataAvailable());
    EXPECT_EQ(subject.getData(), Registers{});
    EXPECT_EQ(subject.getStrValue(), "");
    subject.setData({1});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
}

TEST_F(CdsDataToRegistersAccessorTest, PushWithAListenerButNoConversionThrowsBadFunctionCall) {
    CdsDataToRegistersAccessor subject(1, {world.newChannelAccessor("A")}, {}, {}, {}, "");
    EXPECT_NO_THROW(subject.callbackCdsEvent(kq::CValue(5), 0));  // no listener yet
    encoder_test::Pushes<std::uint16_t> pushes;
    subject.setCallback(pushes.listener());
    EXPECT_THROW(subject.callbackCdsEvent(kq::CValue(6), 0), std::bad_function_call);
    EXPECT_TRUE(pushes.received.empty());
}

// ---- Reads and the cache -------------------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, ResultIsReturnedWhateverTheBlockSize) {
    conversions.registers = {1, 2, 3};
    EXPECT_EQ(composite({"A"}, 1)->getData(), (Registers{1, 2, 3}));
}

TEST_F(CdsDataToRegistersAccessorTest, ByteOrderIsNeitherUsedNorPassedOn) {
    auto const subject = composite({"A"});
    subject->setByteOrder(modbus::ByteOrder::ByteSwapped);
    EXPECT_EQ(subject->getData(), Registers{0x0102});
    EXPECT_EQ(conversions.toRegistersCalls.back(), Values{kq::CValue(1)});
}

TEST_F(CdsDataToRegistersAccessorTest, UpdateCachedValuesStoresWhateverEachSourceReturns) {
    auto const subject = composite({"A", "Missing"});
    world.store.setChannelValue(a, kq::CValue(11), false);
    EXPECT_EQ(subject->updateCachedValues(), (Values{kq::CValue(11), kq::CValue()}));
}

TEST_F(CdsDataToRegistersAccessorTest, PushFromSourceOneBeforeAnyReadSeesInvalidForTheOthers) {
    auto const subject = composite({"Missing0", "B", "Missing2"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(b, kq::CValue(20));
    ASSERT_EQ(pushes.received, std::vector<Registers>{{0x0102}});
    EXPECT_EQ(conversions.toRegistersCalls.back(),
              (Values{kq::CValue(), kq::CValue(20), kq::CValue()}));
}

TEST_F(CdsDataToRegistersAccessorTest, PushUsesTheOtherEntriesAsTheyStandWithoutReadingThem) {
    auto const subject = composite({"A", "B", "C"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(a, kq::CValue(100), false);
    world.store.setChannelValue(c, kq::CValue(300), false);
    world.store.resetCalls();
    world.store.setChannelValue(b, kq::CValue(200));
    // The sources pushed their values when they were bound; those stand.
    EXPECT_EQ(conversions.toRegistersCalls.back(),
              (Values{kq::CValue(1), kq::CValue(200), kq::CValue(3)}));
    EXPECT_EQ(world.store.calls("getChannelCValue", a), 0u);
    EXPECT_EQ(world.store.calls("getChannelCValue", c), 0u);
}

TEST_F(CdsDataToRegistersAccessorTest, ReadRefreshesTheWholeCacheForLaterPushes) {
    auto const subject = composite({"A", "B", "C"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(a, kq::CValue(100), false);
    world.store.setChannelValue(c, kq::CValue(300), false);
    subject->getData();
    world.store.setChannelValue(b, kq::CValue(200));
    EXPECT_EQ(conversions.toRegistersCalls.back(),
              (Values{kq::CValue(100), kq::CValue(200), kq::CValue(300)}));
}

TEST_F(CdsDataToRegistersAccessorTest, TwoPushesOfTheSameValueCallTheListenerTwice) {
    auto const subject = composite({"A"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(a, kq::CValue(5));
    world.store.setChannelValue(a, kq::CValue(5));
    EXPECT_EQ(pushes.received.size(), 2u);
}

TEST_F(CdsDataToRegistersAccessorTest, PushWithoutListenerStillUpdatesTheCache) {
    auto const subject = composite({"A", "B"});
    world.store.setChannelValue(a, kq::CValue(10));
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(b, kq::CValue(20));
    EXPECT_EQ(pushes.received.size(), 1u);
    EXPECT_EQ(conversions.toRegistersCalls.back(), (Values{kq::CValue(10), kq::CValue(20)}));
}

TEST_F(CdsDataToRegistersAccessorTest, PushIsMadeWhileTheBlockIsUnavailable) {
    auto const subject = composite({"A", "Missing"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    world.store.setChannelValue(a, kq::CValue(7));
    EXPECT_EQ(pushes.received.size(), 1u);
}

// ---- Writes -----------------------------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, WriteHandsTheRegistersOverAndWritesValuesByIndex) {
    conversions.values = {kq::CValue(10), kq::CValue(20), kq::CValue(30)};
    auto const subject = composite({"A", "B", "C"});
    subject->setData({0xAAAA, 0xBBBB});
    EXPECT_EQ(conversions.toDataCalls, std::vector<Registers>{(Registers{0xAAAA, 0xBBBB})});
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(10));
    EXPECT_EQ(world.store.channelValue(b), kq::CValue(20));
    EXPECT_EQ(world.store.channelValue(c), kq::CValue(30));
}

TEST_F(CdsDataToRegistersAccessorTest, ThreeValuesForTwoSourcesWriteBothThenThrowOutOfRange) {
    conversions.values = {kq::CValue(10), kq::CValue(20), kq::CValue(30)};
    auto const subject = composite({"A", "B"});
    EXPECT_THROW(subject->setData({1}), std::out_of_range);
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(10));
    EXPECT_EQ(world.store.channelValue(b), kq::CValue(20));
}

TEST_F(CdsDataToRegistersAccessorTest, FewerValuesLeaveTheRemainingSourcesAlone) {
    conversions.values = {kq::CValue(10)};
    auto const subject = composite({"A", "B"});
    subject->setData({1});
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(10));
    EXPECT_EQ(world.store.calls("setChannelCValue", b), 0u);
}

TEST_F(CdsDataToRegistersAccessorTest, WriteDoesNotTouchTheCache) {
    conversions.values = {kq::CValue(10)};
    auto const subject = composite({"A"});
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    subject->setData({1});
    // The store's own notification of the write is what refreshes the entry.
    world.store.notifyChannel(a, kq::sub::ChannelValue);
    EXPECT_EQ(conversions.toRegistersCalls.back(), Values{kq::CValue(10)});
    subject->callbackCdsEvent(kq::CValue(99), 0);
    EXPECT_EQ(conversions.toRegistersCalls.back(), Values{kq::CValue(99)});
}

TEST_F(CdsDataToRegistersAccessorTest, WriteFailureOfTheStorePropagates) {
    conversions.values = {kq::CValue(10)};
    auto const subject = composite({"A"});
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({1}), cdshost::InjectedFault);
}

TEST_F(CdsDataToRegistersAccessorTest, ReadFailureOfTheStorePropagates) {
    auto const subject = composite({"A"});
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
}

// ---- Sources of every kind, and ownership ---------------------------------------

class CdsDataToRegistersAccessorMixedSourcesTest : public CdsDataToRegistersAccessorTest {
  protected:
    cdshost::Id const door = world.addChannel("Door", kq::CValue(true));

    void SetUp() override {
        world.store.setDeviceAttribute(world.device, cdsapi::AttributeModel, "Model 3");
        world.store.setAlarmEnabled(door, true);
        world.store.setAlarmThresholdFlag(door, true);
    }

    std::unique_ptr<CdsDataToRegistersAccessor> mixed() {
        return std::make_unique<CdsDataToRegistersAccessor>(
            2,
            std::vector<modbus::CdsDataAccessor*>{
                world.newChannelAccessor("A"), world.newDeviceAccessor(cdsapi::AttributeModel),
                world.newAlarmAccessor("Door", modbus::AlarmTypeTrigger)},
            conversions.toRegisters(), conversions.toData(), DataToString{}, "");
    }
};

TEST_F(CdsDataToRegistersAccessorMixedSourcesTest, ReadsEveryKindOfSourceInOrder) {
    auto const subject = mixed();
    EXPECT_TRUE(subject->isDataAvailable());
    subject->getData();
    EXPECT_EQ(conversions.toRegistersCalls.back(),
              (Values{kq::CValue(1), kq::CValue("Model 3"), kq::CValue(true)}));
}

TEST_F(CdsDataToRegistersAccessorMixedSourcesTest, WritesReachChannelAndDeviceButNotTheAlarm) {
    conversions.values = {kq::CValue(9), kq::CValue("Model 4"), kq::CValue(false)};
    auto const subject = mixed();
    subject->setData({1, 2});
    EXPECT_EQ(world.store.channelValue(a), kq::CValue(9));
    EXPECT_EQ(world.store.deviceAttribute(world.device, cdsapi::AttributeModel), "Model 4");
    EXPECT_EQ(world.store.calls("setChannelCValue", door), 0u);
}

TEST_F(CdsDataToRegistersAccessorMixedSourcesTest, AlarmAndDeviceChangesArePushedWithTheirIndex) {
    auto const subject = mixed();
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    // The alarm accessor re-reads on alarm notifications of its channel.
    world.store.setAlarmEnabled(door, false);
    world.store.notifyAlarm(door);
    ASSERT_EQ(pushes.received.size(), 1u);
    EXPECT_EQ(conversions.toRegistersCalls.back()[2], kq::CValue(false));
    // A device change also makes every source on the device detect again,
    // and each of those pushes too; one of the pushes carries the new model.
    world.store.setDeviceAttribute(world.device, cdsapi::AttributeModel, "Model 5");
    EXPECT_GT(pushes.received.size(), 1u);
    EXPECT_TRUE(
        std::any_of(conversions.toRegistersCalls.begin() + 1, conversions.toRegistersCalls.end(),
                    [](Values const& values) { return values[1] == kq::CValue("Model 5"); }));
}

TEST_F(CdsDataToRegistersAccessorMixedSourcesTest, DestroyingTheCompositeDeletesEverySource) {
    auto subject = mixed();
    ASSERT_GT(world.store.subscriptionCount(), 0u);
    subject.reset();
    EXPECT_EQ(world.store.subscriptionCount(), 0u);
}

TEST_F(CdsDataToRegistersAccessorTest, EverySourceIsDeletedWhenAdoptingFailsPartWay) {
    std::size_t failures = 0;
    for (std::size_t failing = 1;; ++failing) {
        std::vector<modbus::CdsDataAccessor*> const raws{world.newChannelAccessor("A"),
                                                         world.newChannelAccessor("B"),
                                                         world.newChannelAccessor("C")};
        try {
            failing_allocation::FailAllocationGuard const guard(static_cast<long>(failing) - 1);
            auto const adopted = modbus::detail::adoptDataAccessors(raws);
            break;
        } catch (std::bad_alloc const&) {
            ++failures;
        }
        EXPECT_EQ(world.store.subscriptionCount(), 0u) << "allocation " << failing;
    }
    // The reservation and the three control blocks.
    EXPECT_EQ(failures, 4u);
}

TEST_F(CdsDataToRegistersAccessorTest, ConstructorDeletesEverySourceWhenAnAllocationFails) {
    // The reservation, three control blocks and the cache come before any
    // source is bound, so none of them reaches into the store.
    for (std::size_t failing = 1; failing <= 5; ++failing) {
        std::vector<modbus::CdsDataAccessor*> const raws{world.newChannelAccessor("A"),
                                                         world.newChannelAccessor("B"),
                                                         world.newChannelAccessor("C")};
        DataToRegisters toRegisters = conversions.toRegisters();
        RegistersToData toData = conversions.toData();
        {
            failing_allocation::FailAllocationGuard const guard(static_cast<long>(failing) - 1);
            EXPECT_THROW(CdsDataToRegistersAccessor(3, raws, std::move(toRegisters),
                                                    std::move(toData), DataToString{}, ""),
                         std::bad_alloc);
        }
        EXPECT_EQ(world.store.subscriptionCount(), 0u) << "allocation " << failing;
    }
}

// ---- Laws over generated inputs ----------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, GeneratedWritesWriteMinOfValuesAndSourcesThenThrowIfMore) {
    std::mt19937 random(321u);
    std::uniform_int_distribution<int> counts(0, 5);
    std::uniform_int_distribution<int> numbers(-1000, 1000);
    auto const subject = composite({"A", "B", "C"});
    cdshost::Id const channels[] = {a, b, c};
    for (int i = 0; i < 1500; ++i) {
        conversions.values.assign(static_cast<std::size_t>(counts(random)), kq::CValue());
        for (kq::CValue& value : conversions.values) {
            value = kq::CValue(numbers(random));
        }
        world.store.resetCalls();
        bool threw = false;
        try {
            subject->setData({static_cast<std::uint16_t>(i)});
        } catch (std::out_of_range const&) {
            threw = true;
        }
        ASSERT_EQ(threw, conversions.values.size() > 3);
        for (std::size_t s = 0; s < 3; ++s) {
            bool const written = s < conversions.values.size();
            ASSERT_EQ(world.store.calls("setChannelCValue", channels[s]), written ? 1u : 0u);
            if (written) {
                ASSERT_EQ(world.store.channelValue(channels[s]), conversions.values[s]);
            }
        }
    }
}

TEST_F(CdsDataToRegistersAccessorTest, GeneratedExistenceIsAvailableExactlyWhenEverySourceExists) {
    std::mt19937 random(654u);
    std::bernoulli_distribution present(0.7);
    for (int i = 0; i < 200; ++i) {
        std::vector<std::string> names;
        bool all = true;
        int const count = i % 5;
        for (int s = 0; s < count; ++s) {
            bool const exists = present(random);
            all = all && exists;
            names.push_back(exists ? "A" : "Missing");
        }
        auto const subject = composite(names);
        ASSERT_EQ(subject->isDataAvailable(), all);
        ASSERT_EQ(subject->getData().empty(), !all);
    }
}

// ---- Lifecycle -------------------------------------------------------------------

TEST_F(CdsDataToRegistersAccessorTest, CompositeDestroyedByItsListenerDuringAPushIsLeftAlone) {
    // Two sources of one channel: one value update walks both. The listener
    // destroys the composite, and with it both sources, on the first push.
    std::unique_ptr<CdsDataToRegistersAccessor> encoder = composite({"A", "A"});
    int pushes = 0;
    encoder->setCallback([&](Registers const&) {
        ++pushes;
        encoder.reset();
    });

    world.store.setChannelValue(a, kq::CValue(10));
    world.store.setChannelValue(a, kq::CValue(20));

    EXPECT_EQ(pushes, 1);
    EXPECT_EQ(world.store.subscriptionCount(), 0u);
}

TEST(CdsDataToRegistersAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    auto* const source = new encoder_test::ListenerSlot();
    CdsDataToRegistersAccessor encoder(
        1, {source},
        [](std::vector<kq::CValue> const& values) {
            return std::vector<std::uint16_t>{static_cast<std::uint16_t>(values.size())};
        },
        nullptr, nullptr, "");
    encoder_test::expectListenerMayClearItselfInsideAPush(encoder, [source] { source->push(); });
}

}  // namespace
