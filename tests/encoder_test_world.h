// A small data-store world for the encoder tests: one device in the host
// store, channels added per test, and encoders built over real channel
// accessors bound to them. Observations go through the store's accounting.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cdshost/store.h"
#include "kq/model.h"
#include "kq/value.h"
#include "modbus/CdsAlarmToOneDiscreteAccessor.h"
#include "modbus/CdsChannelAccessor.h"
#include "modbus/CdsDeviceAccessor.h"

namespace encoder_test {

class World {
  public:
    World() : store(cdshost::Store::instance()), device(store.addDevice("UPS")) {}

    cdshost::Id addChannel(std::string const& name, kq::CValue const& value) {
        return store.addChannel(device, name, value);
    }

    /* An accessor of a channel's value for the raw-pointer constructors,
     * which take ownership of it. A name with no channel gives an accessor
     * whose item does not exist. */
    modbus::CdsChannelAccessor* newChannelAccessor(std::string const& name) const {
        return new modbus::CdsChannelAccessor(device, name, modbus::DataType::Value);
    }

    std::shared_ptr<modbus::CdsChannelAccessor> sharedChannelAccessor(
        std::string const& name) const {
        return std::make_shared<modbus::CdsChannelAccessor>(device, name, modbus::DataType::Value);
    }

    /* An accessor of one attribute of the device, for the raw-pointer
     * constructors. */
    modbus::CdsDeviceAccessor* newDeviceAccessor(cdsapi::DeviceAttribute attribute) const {
        return new modbus::CdsDeviceAccessor(device, attribute);
    }

    /* An accessor of one alarm fact of a channel, for the raw-pointer
     * constructors. */
    modbus::CdsAlarmToOneDiscreteAccessor* newAlarmAccessor(std::string const& name,
                                                            modbus::AlarmType type) const {
        return new modbus::CdsAlarmToOneDiscreteAccessor(device, name, type);
    }

    /* Open value subscriptions of a channel: 1 while an accessor is bound to
     * it, 0 once the last one was destroyed. */
    std::size_t valueSubscriptions(cdshost::Id channel) const {
        return store.subscriptionCount("channel", kq::sub::ChannelValue, channel);
    }

    cdshost::Store& store;
    cdshost::Id const device;
};

/* Records every array a listener of an encoder receives. */
template <typename Element>
struct Pushes {
    std::vector<std::vector<Element>> received;

    std::function<void(std::vector<Element> const&)> listener() {
        return [this](std::vector<Element> const& array) { received.push_back(array); };
    }
};

}  // namespace encoder_test
