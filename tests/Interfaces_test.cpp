// The four interfaces: the one concrete slot (setByteOrder) and deletion through
// each interface, checked with minimal implementations of the test's own.
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "modbus/CdsDataAccessor.h"
#include "modbus/DiscretesDataAccessor.h"
#include "modbus/MapAvailableAccessor.h"
#include "modbus/RegistersDataAccessor.h"

namespace {

using modbus::ByteOrder;

/* Counts its destructions so a test can tell the derived destructor ran. */
struct DestructionCounter {
    int destroyed = 0;
};

class MinimalDataAccessor : public modbus::CdsDataAccessor {
  public:
    explicit MinimalDataAccessor(DestructionCounter& counter) : m_counter(counter) {}
    ~MinimalDataAccessor() override { ++m_counter.destroyed; }
    void setCValue(kq::CValue const&) override {}
    kq::CValue getCValue() const override { return {}; }
    bool isExitingInCds() const override { return false; }
    void setUpdateCallback(std::function<void(kq::CValue const&)>) override {}

  private:
    DestructionCounter& m_counter;
};

/* A register encoder that records every call it gets, so a test can see that
 * setByteOrder() reached nothing but the stored order. */
class RecordingRegisters : public modbus::RegistersDataAccessor {
  public:
    explicit RecordingRegisters(DestructionCounter& counter) : m_counter(counter) {}
    ~RecordingRegisters() override { ++m_counter.destroyed; }
    void setData(std::vector<uint16_t> const&) override { ++calls; }
    std::vector<uint16_t> getData() const override {
        ++calls;
        return {static_cast<uint16_t>(m_byteOrder)};
    }
    std::string getDataRepresentation() const override {
        ++calls;
        return "Recording";
    }
    bool isDataAvailable() const override {
        ++calls;
        return true;
    }
    void setCallback(std::function<void(std::vector<uint16_t> const&)> cb) override {
        ++calls;
        m_callback = std::move(cb);
    }
    std::string getStrValue() const override {
        ++calls;
        return {};
    }
    uint16_t getSizeInRegister() const override {
        ++calls;
        return 1;
    }

    ByteOrder storedOrder() const { return m_byteOrder; }
    mutable int calls = 0;

  private:
    DestructionCounter& m_counter;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

class MinimalDiscretes : public modbus::DiscretesDataAccessor {
  public:
    explicit MinimalDiscretes(DestructionCounter& counter) : m_counter(counter) {}
    ~MinimalDiscretes() override { ++m_counter.destroyed; }
    void setData(std::vector<uint8_t> const&) override {}
    std::vector<uint8_t> getData() const override { return {}; }
    std::string getDataRepresentation() const override { return "Boolean"; }
    bool isDataAvailable() const override { return false; }
    void setCallback(std::function<void(std::vector<uint8_t> const&)>) override {}
    std::string getStrValue() const override { return {}; }
    uint16_t getSizeInRegister() const override { return 1; }

  private:
    DestructionCounter& m_counter;
};

class MinimalMapAvailable : public modbus::MapAvailableAccessor {
  public:
    explicit MinimalMapAvailable(DestructionCounter& counter) : m_counter(counter) {}
    ~MinimalMapAvailable() override { ++m_counter.destroyed; }
    bool isAvailable() override { return false; }
    std::string notAvailableMessage() const override { return "later"; }

  private:
    DestructionCounter& m_counter;
};

TEST(InterfacesTest, ByteOrderStartsStandard) {
    DestructionCounter counter;
    RecordingRegisters encoder(counter);
    EXPECT_EQ(encoder.storedOrder(), ByteOrder::Standard);
}

TEST(InterfacesTest, SetByteOrderStoresItsArgumentAndCallsNothingElse) {
    DestructionCounter counter;
    RecordingRegisters encoder(counter);
    int pushes = 0;
    encoder.setCallback([&pushes](std::vector<uint16_t> const&) { ++pushes; });
    encoder.calls = 0;

    modbus::RegistersDataAccessor& base = encoder;
    base.setByteOrder(ByteOrder::WordSwapped);

    EXPECT_EQ(encoder.storedOrder(), ByteOrder::WordSwapped);
    EXPECT_EQ(encoder.calls, 0) << "setByteOrder must not call any other slot";
    EXPECT_EQ(pushes, 0) << "setByteOrder must not call the listener";
}

TEST(InterfacesTest, SetByteOrderKeepsValuesBeyondTheSupportedOrders) {
    DestructionCounter counter;
    RecordingRegisters encoder(counter);
    encoder.setByteOrder(static_cast<ByteOrder>(7));
    EXPECT_EQ(static_cast<int>(encoder.storedOrder()), 7);
    EXPECT_EQ(encoder.getData(), (std::vector<uint16_t>{7}));
}

TEST(InterfacesTest, DeletingThroughCdsDataAccessorRunsTheDerivedDestructor) {
    DestructionCounter counter;
    std::unique_ptr<modbus::CdsDataAccessor> accessor =
        std::make_unique<MinimalDataAccessor>(counter);
    accessor.reset();
    EXPECT_EQ(counter.destroyed, 1);
}

TEST(InterfacesTest, DeletingThroughRegistersDataAccessorRunsTheDerivedDestructor) {
    DestructionCounter counter;
    std::unique_ptr<modbus::RegistersDataAccessor> encoder =
        std::make_unique<RecordingRegisters>(counter);
    encoder.reset();
    EXPECT_EQ(counter.destroyed, 1);
}

TEST(InterfacesTest, DeletingThroughDiscretesDataAccessorRunsTheDerivedDestructor) {
    DestructionCounter counter;
    std::unique_ptr<modbus::DiscretesDataAccessor> encoder =
        std::make_unique<MinimalDiscretes>(counter);
    encoder.reset();
    EXPECT_EQ(counter.destroyed, 1);
}

TEST(InterfacesTest, DeletingThroughMapAvailableAccessorRunsTheDerivedDestructor) {
    DestructionCounter counter;
    std::unique_ptr<modbus::MapAvailableAccessor> check =
        std::make_unique<MinimalMapAvailable>(counter);
    check.reset();
    EXPECT_EQ(counter.destroyed, 1);
}

TEST(InterfacesTest, EveryInterfaceIsAbstractWithAVirtualDestructor) {
    EXPECT_TRUE(std::is_abstract_v<modbus::CdsDataAccessor>);
    EXPECT_TRUE(std::is_abstract_v<modbus::RegistersDataAccessor>);
    EXPECT_TRUE(std::is_abstract_v<modbus::DiscretesDataAccessor>);
    EXPECT_TRUE(std::is_abstract_v<modbus::MapAvailableAccessor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<modbus::CdsDataAccessor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<modbus::RegistersDataAccessor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<modbus::DiscretesDataAccessor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<modbus::MapAvailableAccessor>);
}

}  // namespace
