// The world the encoder tests run in: a UPS with one channel in the host
// store, channel accessors bound to it, and listeners that record what the
// encoders push.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cdshost/store.h"
#include "kq/value.h"
#include "modbus/CdsChannelAccessor.h"

namespace encoder_test {

using cdshost::Id;

constexpr Id kUps = 100;
constexpr Id kChannel = 1001;
std::string const kUpsName = "UPS";
std::string const kChannelName = "Output.Value";
std::string const kMissingChannelName = "Output.Missing";
// The update subscription type (kq::sub ChannelValue) that a value accessor holds.
constexpr int kChannelValueSubscription = 15;

/* Builds the UPS with its one channel holding `value`. */
inline void addUpsWithChannel(kq::CValue const& value) {
    cdshost::Store& store = cdshost::Store::instance();
    store.addDevice(kUpsName, kUps);
    store.addChannel(kUps, kChannelName, value, kChannel);
}

/* A value accessor bound to the channel (the caller owns it). */
inline modbus::CdsChannelAccessor* newChannelAccessor() {
    return new modbus::CdsChannelAccessor(kUps, kChannelName, modbus::DataType::Value);
}

inline std::shared_ptr<modbus::CdsChannelAccessor> sharedChannelAccessor() {
    return std::make_shared<modbus::CdsChannelAccessor>(kUps, kChannelName,
                                                        modbus::DataType::Value);
}

/* A value accessor of a channel the UPS does not have: never available. */
inline std::shared_ptr<modbus::CdsChannelAccessor> missingChannelAccessor() {
    return std::make_shared<modbus::CdsChannelAccessor>(kUps, kMissingChannelName,
                                                        modbus::DataType::Value);
}

/* How many update subscriptions the store holds for the channel: 1 while a
 * value accessor of it is alive, 0 once the last one is destroyed. */
inline std::size_t channelSubscriptions() {
    return cdshost::Store::instance().subscriptionCount("channel", kChannelValueSubscription,
                                                        kChannel);
}

/* Records every array a register or discrete listener receives. */
template <typename Word>
struct Recorder {
    std::vector<std::vector<Word>> arrays;

    std::function<void(std::vector<Word> const&)> listener() {
        return [this](std::vector<Word> const& array) { arrays.push_back(array); };
    }
};

inline float floatOfBits(std::uint32_t bits) {
    float value = 0.0f;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

inline std::uint32_t bitsOfFloat(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

/* The message of the std::logic_error that `call` throws; a test failure
 * when it throws none. */
template <typename Call>
std::string logicErrorMessage(Call call) {
    try {
        call();
    } catch (std::logic_error const& error) {
        return error.what();
    }
    ADD_FAILURE() << "no std::logic_error thrown";
    return "<none>";
}

}  // namespace encoder_test
