// setByteOrder() on each register encoder of this library: it changes the
// stored order and nothing else, and the next getData() and setData() use it.
#include "modbus/RegistersDataAccessor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "cdshost/store.h"
#include "encoder_test_support.h"
#include "golden/float_vectors.h"
#include "modbus/CdsFloatAccessor.h"
#include "modbus/CdsInt32Accessor.h"
#include "modbus/CdsUint32Accessor.h"

namespace {

using encoder_test::kChannel;
using modbus::ByteOrder;
using Registers = std::vector<uint16_t>;

Registers words(golden::Pair const& pair) {
    return {pair[0], pair[1]};
}

/* Per encoder: how to build it, a stored value, that value's registers in
 * order 1, and a pair that decodes in order 1 to the value written. */
struct FloatCase {
    using Encoder = modbus::CdsFloatAccessor;
    static std::unique_ptr<Encoder> make() {
        return std::make_unique<Encoder>(encoder_test::sharedChannelAccessor(), 1.0f);
    }
    static kq::CValue storedValue() { return kq::CValue(12.5f); }
    static Registers orderOneRegisters() {
        return words(golden::floatVector(golden::kTwelvePointFive).setBadc);
    }
    static Registers orderOneWrite() {
        return words(golden::floatVector(golden::kMinusOne).getBadc);
    }
    static kq::CValue written() { return kq::CValue(-1.0f); }
};

struct Int32Case {
    using Encoder = modbus::CdsInt32Accessor;
    static std::unique_ptr<Encoder> make() {
        return std::make_unique<Encoder>(encoder_test::sharedChannelAccessor());
    }
    static kq::CValue storedValue() { return kq::CValue(0x12345678); }
    static Registers orderOneRegisters() { return {0x5678, 0x1234}; }
    static Registers orderOneWrite() { return {0xFFFE, 0xFFFF}; }
    static kq::CValue written() { return kq::CValue(-2); }
};

struct Uint32Case {
    using Encoder = modbus::CdsUint32Accessor;
    static std::unique_ptr<Encoder> make() {
        return std::make_unique<Encoder>(encoder_test::sharedChannelAccessor());
    }
    static kq::CValue storedValue() { return kq::CValue(0x12345678u); }
    static Registers orderOneRegisters() { return {0x5678, 0x1234}; }
    static Registers orderOneWrite() { return {0xFFFE, 0xFFFF}; }
    static kq::CValue written() { return kq::CValue(4294967294u); }
};

template <typename Case>
class RegistersDataAccessorTest : public ::testing::Test {
  protected:
    cdshost::Store& store = cdshost::Store::instance();
    encoder_test::Recorder<uint16_t> pushed;

    void SetUp() override { encoder_test::addUpsWithChannel(Case::storedValue()); }
};

using Encoders = ::testing::Types<FloatCase, Int32Case, Uint32Case>;

/* "CdsFloatAccessor" and so on in the test names. */
class EncoderNames {
  public:
    template <typename Case>
    static std::string GetName(int) {
        if (std::is_same<Case, FloatCase>::value) {
            return "CdsFloatAccessor";
        }
        if (std::is_same<Case, Int32Case>::value) {
            return "CdsInt32Accessor";
        }
        return "CdsUint32Accessor";
    }
};

TYPED_TEST_SUITE(RegistersDataAccessorTest, Encoders, EncoderNames);

TYPED_TEST(RegistersDataAccessorTest, SetByteOrderCallsNoListenerAndTouchesNoStore) {
    auto const encoder = TypeParam::make();
    encoder->setCallback(this->pushed.listener());
    this->store.resetCalls();
    encoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_TRUE(this->pushed.arrays.empty());
    EXPECT_EQ(this->store.calls("getChannelCValue"), 0u);
    EXPECT_EQ(this->store.calls("setChannelCValue"), 0u);
}

TYPED_TEST(RegistersDataAccessorTest, NextGetDataUsesTheNewOrder) {
    auto const encoder = TypeParam::make();
    encoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(encoder->getData(), TypeParam::orderOneRegisters());
}

TYPED_TEST(RegistersDataAccessorTest, NextSetDataUsesTheNewOrder) {
    auto const encoder = TypeParam::make();
    encoder->setByteOrder(ByteOrder::WordSwapped);
    encoder->setData(TypeParam::orderOneWrite());
    EXPECT_EQ(this->store.channelValue(kChannel), TypeParam::written());
}

TYPED_TEST(RegistersDataAccessorTest, SettingAnUnsupportedOrderDoesNotThrowByItself) {
    auto const encoder = TypeParam::make();
    encoder->setCallback(this->pushed.listener());
    EXPECT_NO_THROW(encoder->setByteOrder(ByteOrder::ByteSwapped));
    EXPECT_TRUE(this->pushed.arrays.empty());
    // Setting a supported order again makes the encoder serve as before.
    encoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(encoder->getData(), TypeParam::orderOneRegisters());
}

TYPED_TEST(RegistersDataAccessorTest, SetByteOrderLeavesSizeUnchanged) {
    auto const encoder = TypeParam::make();
    encoder->setByteOrder(ByteOrder::WordSwapped);
    EXPECT_EQ(encoder->getSizeInRegister(), 2);
}

}  // namespace
