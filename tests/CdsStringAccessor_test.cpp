// CdsStringAccessor over real channel and device accessors on the host store:
// two characters a register, no padding or cut, writes ending at the first
// zero byte, and no update listener of its own.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "encoder_test_world.h"
#include "golden/one_register_vectors.h"
#include "listener_slot.h"
#include "modbus/CdsDeviceAccessor.h"
#include "modbus/CdsStringAccessor.h"

namespace {

using modbus::CdsStringAccessor;
using Registers = std::vector<std::uint16_t>;

class CdsStringAccessorTest : public ::testing::Test {
  protected:
    encoder_test::World world;
    cdshost::Id const channel = world.addChannel("Text", kq::CValue("ABC"));

    std::unique_ptr<CdsStringAccessor> encoder(unsigned short size,
                                               std::string const& name = "Text") {
        return std::make_unique<CdsStringAccessor>(size, world.newChannelAccessor(name));
    }
    void store(std::string const& text) { world.store.setChannelValue(channel, kq::CValue(text)); }
    kq::CValue stored() const { return world.store.channelValue(channel); }
};

// ---- Layout ---------------------------------------------------------------------

TEST_F(CdsStringAccessorTest, OddLengthTextLeavesTheLastLowByteZero) {
    auto const subject = encoder(2);
    EXPECT_EQ(subject->getData(), (Registers{0x4142, 0x4300}));
}

TEST_F(CdsStringAccessorTest, EmptyTextGivesNoRegister) {
    auto const subject = encoder(2);
    store("");
    EXPECT_EQ(subject->getData(), Registers{});
    EXPECT_TRUE(subject->isDataAvailable());
}

TEST_F(CdsStringAccessorTest, LongTextIsNotCutToTheReservedSize) {
    auto const subject = encoder(4);
    store("0123456789");
    EXPECT_EQ(subject->getData().size(), 5u);
    EXPECT_EQ(subject->getSizeInRegister(), 4u);
}

TEST_F(CdsStringAccessorTest, ShortTextIsNotPaddedToTheReservedSize) {
    auto const subject = encoder(8);
    store("AB");
    EXPECT_EQ(subject->getData(), Registers{0x4142});
}

TEST_F(CdsStringAccessorTest, TextIsShownAsStored) {
    auto const subject = encoder(4);
    store("  padded  ");
    EXPECT_EQ(subject->getStrValue(), "  padded  ");
}

TEST_F(CdsStringAccessorTest, ReportsStringAndTheReservedSize) {
    auto const subject = encoder(12);
    EXPECT_EQ(subject->getDataRepresentation(), "String");
    EXPECT_EQ(subject->getSizeInRegister(), 12u);
}

// ---- Writes ---------------------------------------------------------------------

TEST_F(CdsStringAccessorTest, WriteEndsAtTheFirstZeroByte) {
    auto const subject = encoder(3);
    subject->setData({0x4142, 0x4300, 0x0000});
    EXPECT_EQ(stored(), kq::CValue("ABC"));
}

TEST_F(CdsStringAccessorTest, WriteStartingWithAZeroByteStoresTheEmptyText) {
    auto const subject = encoder(1);
    subject->setData({0x0041});
    EXPECT_EQ(stored(), kq::CValue(""));
}

TEST_F(CdsStringAccessorTest, WriteWithoutZeroByteKeepsEveryByte) {
    auto const subject = encoder(1);
    subject->setData({0x4142});
    EXPECT_EQ(stored(), kq::CValue("AB"));
}

TEST_F(CdsStringAccessorTest, EmptyWriteStoresTheEmptyText) {
    auto const subject = encoder(2);
    subject->setData({});
    EXPECT_EQ(stored(), kq::CValue(""));
}

TEST_F(CdsStringAccessorTest, WriteLongerThanTheReservedSizeIsStoredWhole) {
    auto const subject = encoder(1);
    subject->setData({0x4142, 0x4344, 0x4546});
    EXPECT_EQ(stored(), kq::CValue("ABCDEF"));
}

TEST_F(CdsStringAccessorTest, ByteOrderIsIgnored) {
    auto const subject = encoder(2);
    subject->setByteOrder(modbus::ByteOrder::WordByteSwapped);
    EXPECT_EQ(subject->getData(), (Registers{0x4142, 0x4300}));
    subject->setData({0x5859});
    EXPECT_EQ(stored(), kq::CValue("XY"));
}

// ---- No listener of its own --------------------------------------------------------

TEST_F(CdsStringAccessorTest, ChangeDoesNotReachTheListenerUnlessTheOwnerWiresIt) {
    auto const subject = encoder(2);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    store("XY");
    EXPECT_TRUE(pushes.received.empty());
}

TEST_F(CdsStringAccessorTest, ConstructorLeavesTheAccessorsListenerInPlace) {
    modbus::CdsChannelAccessor* const source = world.newChannelAccessor("Text");
    std::vector<kq::CValue> heard;
    source->setUpdateCallback([&heard](kq::CValue const& value) { heard.push_back(value); });
    CdsStringAccessor subject(2, source);
    heard.clear();
    store("XY");
    EXPECT_EQ(heard, std::vector<kq::CValue>{kq::CValue("XY")});
}

TEST_F(CdsStringAccessorTest, OwnerWiredUpdatesArePushedAsRegisters) {
    modbus::CdsChannelAccessor* const source = world.newChannelAccessor("Text");
    CdsStringAccessor subject(2, source);
    encoder_test::Pushes<std::uint16_t> pushes;
    subject.setCallback(pushes.listener());
    source->setUpdateCallback(
        [&subject](kq::CValue const& value) { subject.callbackCdsEvent(value); });
    store("HELLO");
    EXPECT_EQ(pushes.received.back(), (Registers{0x4845, 0x4C4C, 0x4F00}));
}

TEST_F(CdsStringAccessorTest, WiredUpdateWithoutListenerIsDropped) {
    auto const subject = encoder(2);
    subject->callbackCdsEvent(kq::CValue("AB"));  // nothing to call, nothing thrown
    encoder_test::Pushes<std::uint16_t> pushes;
    subject->setCallback(pushes.listener());
    subject->callbackCdsEvent(kq::CValue("CD"));
    EXPECT_EQ(pushes.received, std::vector<Registers>{{0x4344}});
}

// ---- Availability, sources, failures, ownership ------------------------------

TEST_F(CdsStringAccessorTest, MissingItemReadsEmptyAndDropsWrites) {
    auto const subject = encoder(4, "Missing");
    EXPECT_FALSE(subject->isDataAvailable());
    EXPECT_EQ(subject->getData(), Registers{});
    EXPECT_EQ(subject->getStrValue(), "");
    subject->setData({0x4142});
    EXPECT_EQ(world.store.calls("setChannelCValue"), 0u);
    EXPECT_EQ(subject->getSizeInRegister(), 4u);
    EXPECT_EQ(subject->getDataRepresentation(), "String");
}

TEST_F(CdsStringAccessorTest, DeviceAttributeIsReadAndWrittenAsText) {
    world.store.setDeviceAttribute(world.device, cdsapi::AttributeSerialNumber, "SN12345");
    CdsStringAccessor subject(
        4, new modbus::CdsDeviceAccessor(world.device, cdsapi::AttributeSerialNumber));
    EXPECT_EQ(subject.getData(), (Registers{0x534E, 0x3132, 0x3334, 0x3500}));
    subject.setData({0x5858, 0x0000});
    EXPECT_EQ(world.store.deviceAttribute(world.device, cdsapi::AttributeSerialNumber), "XX");
}

TEST_F(CdsStringAccessorTest, ReadAndWriteFailuresOfTheStorePropagate) {
    auto const subject = encoder(2);
    world.store.failNext("getChannelCValue");
    EXPECT_THROW(subject->getData(), cdshost::InjectedFault);
    world.store.failNext("setChannelCValue");
    EXPECT_THROW(subject->setData({0x4142}), cdshost::InjectedFault);
}

TEST_F(CdsStringAccessorTest, DestroyingTheEncoderDestroysTheAdoptedAccessor) {
    auto subject = encoder(2);
    ASSERT_EQ(world.valueSubscriptions(channel), 1u);
    subject.reset();
    EXPECT_EQ(world.valueSubscriptions(channel), 0u);
}

// ---- Literal registers ----------------------------------------------------------

class CdsStringAccessorPackTable : public CdsStringAccessorTest,
                                   public ::testing::WithParamInterface<golden::StringPackVector> {
};

TEST_P(CdsStringAccessorPackTable, RegistersMatchTheLiterals) {
    auto const subject = encoder(8);
    store(GetParam().text);
    EXPECT_EQ(subject->getData(), GetParam().registers);
    EXPECT_EQ(subject->buildArrayFromString(GetParam().text), GetParam().registers);
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsStringAccessorPackTable,
                         ::testing::ValuesIn(golden::stringPacks()),
                         [](auto const& info) { return std::string(info.param.name); });

class CdsStringAccessorUnpackTable
    : public CdsStringAccessorTest,
      public ::testing::WithParamInterface<golden::StringUnpackVector> {};

TEST_P(CdsStringAccessorUnpackTable, StoredTextMatchesTheLiteral) {
    auto const subject = encoder(8);
    subject->setData(GetParam().registers);
    EXPECT_EQ(stored(), kq::CValue(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Literals, CdsStringAccessorUnpackTable,
                         ::testing::ValuesIn(golden::stringUnpacks()),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Laws over generated inputs ----------------------------------------------

TEST_F(CdsStringAccessorTest, GeneratedTextsReadAsTwoCharactersPerRegisterAndWriteBack) {
    std::mt19937 random(2024u);
    std::uniform_int_distribution<int> length(0, 33);
    std::uniform_int_distribution<int> byte(1, 255);
    auto const subject = encoder(8);
    for (int i = 0; i < 2000; ++i) {
        std::string text(static_cast<std::size_t>(length(random)), ' ');
        for (char& c : text) {
            c = static_cast<char>(byte(random));
        }
        subject->setData(subject->buildArrayFromString(text));
        ASSERT_EQ(stored(), kq::CValue(text));
        Registers const registers = subject->getData();
        ASSERT_EQ(registers.size(), (text.size() + 1) / 2);
        for (std::size_t c = 0; c < text.size(); ++c) {
            auto const byteOf = static_cast<unsigned char>(text[c]);
            std::uint16_t const reg = registers[c / 2];
            ASSERT_EQ(c % 2 == 0 ? reg >> 8 : reg & 0xFF, byteOf);
        }
        if (text.size() % 2 == 1) {
            ASSERT_EQ(registers.back() & 0xFF, 0);
        }
    }
}

TEST_F(CdsStringAccessorTest, GeneratedWritesKeepExactlyTheBytesBeforeTheFirstZero) {
    std::mt19937 random(77u);
    std::uniform_int_distribution<int> count(0, 10);
    std::uniform_int_distribution<int> byte(0, 7);  // small, so zero bytes are frequent
    auto const subject = encoder(8);
    for (int i = 0; i < 2000; ++i) {
        Registers registers(static_cast<std::size_t>(count(random)));
        std::string bytes;
        for (std::uint16_t& reg : registers) {
            int const high = byte(random) == 0 ? 0 : 0x40 + byte(random);
            int const low = byte(random) == 0 ? 0 : 0x60 + byte(random);
            reg = static_cast<std::uint16_t>(high << 8 | low);
            bytes += static_cast<char>(high);
            bytes += static_cast<char>(low);
        }
        subject->setData(registers);
        ASSERT_EQ(stored(), kq::CValue(bytes.substr(0, bytes.find('\0'))));
    }
}

// ---- Lifecycle -------------------------------------------------------------------

TEST(CdsStringAccessorLifecycle, ListenerThatClearsItselfInsideAPushRunsToItsEnd) {
    auto* const source = new encoder_test::ListenerSlot();
    CdsStringAccessor encoder(4, source);
    // The owner wires the pushes of this encoder.
    source->setUpdateCallback(
        [&encoder](kq::CValue const& value) { encoder.callbackCdsEvent(value); });
    encoder_test::expectListenerMayClearItselfInsideAPush(encoder, [source] { source->push(); });
}

}  // namespace
