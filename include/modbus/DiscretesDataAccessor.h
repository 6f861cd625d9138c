// The Modbus side of a value served as a run of discretes (coils or inputs).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "modbus/export.h"

namespace modbus {

/*
 * A value as a run of discretes, one byte (0 or 1) per discrete.
 *
 * getData() and getStrValue() return an empty vector and an empty text while
 * isDataAvailable() is false; setData() then does nothing.
 *
 * Listener contract: as RegistersDataAccessor::setCallback(), with discrete
 * arrays.
 */
class TARSEL_MODBUS_EXPORT DiscretesDataAccessor {
  public:
    virtual ~DiscretesDataAccessor() = default;

    virtual void setData(std::vector<uint8_t> const& data) = 0;
    virtual std::vector<uint8_t> getData() const = 0;
    virtual std::string getDataRepresentation() const = 0;
    virtual bool isDataAvailable() const = 0;
    virtual void setCallback(std::function<void(std::vector<uint8_t> const&)> callback) = 0;
    virtual std::string getStrValue() const = 0;
    /* How many discretes the value occupies; fixed at construction. */
    virtual uint16_t getSizeInRegister() const = 0;
};

}  // namespace modbus
