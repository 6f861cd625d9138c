// The Modbus side of a value served as a run of 16-bit registers.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "modbus/byte_order.h"
#include "modbus/export.h"

namespace modbus {

/*
 * A value as a run of holding or input registers, first register first.
 *
 * getData() and getStrValue() return an empty vector and an empty text while
 * isDataAvailable() is false; setData() then does nothing.
 *
 * Listener contract: setCallback() installs the one listener for register
 * changes, replacing the previous one (an empty function removes it). It is
 * called on the thread that delivers data-store notifications with the newly
 * encoded registers; install it before notifications can arrive and do not
 * replace it while they can.
 */
class TARSEL_MODBUS_EXPORT RegistersDataAccessor {
  public:
    virtual ~RegistersDataAccessor() = default;

    /* A Modbus write: converts the registers and writes the value. */
    virtual void setData(std::vector<uint16_t> const& data) = 0;
    /* A Modbus read: the current value as registers. */
    virtual std::vector<uint16_t> getData() const = 0;
    /* The type label shown in the register-map description. */
    virtual std::string getDataRepresentation() const = 0;
    /* Whether the value can be read now. */
    virtual bool isDataAvailable() const = 0;
    /* Installs the one listener for register changes. */
    virtual void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) = 0;
    /* The current value as readable text. */
    virtual std::string getStrValue() const = 0;
    /* How many registers the value occupies; fixed at construction. */
    virtual uint16_t getSizeInRegister() const = 0;
    /* Stores the word and byte order of multi-register values; nothing else. */
    virtual void setByteOrder(ByteOrder byteOrder);

  protected:
    ByteOrder m_byteOrder = ByteOrder::Standard;
};

}  // namespace modbus
