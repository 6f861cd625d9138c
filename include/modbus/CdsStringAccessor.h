// A text over several registers, two characters a register.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modbus/CdsDataAccessor.h"
#include "modbus/RegistersDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/*
 * Character i goes into register i / 2, even characters in the high byte. No
 * terminator, padding or cut: getData() returns ceil(length / 2) registers
 * whatever the reserved size. A write takes the text up to the first zero byte.
 *
 * Takes ownership of the data accessor. Unlike the other encoders it does not
 * install itself as the data accessor's update listener: its owner wires
 * callbackCdsEvent() if it wants pushes. Label "String".
 */
class TARSEL_MODBUS_EXPORT CdsStringAccessor : public RegistersDataAccessor {
  public:
    CdsStringAccessor(unsigned short sizeInRegister, CdsDataAccessor* dataAccessor);

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    std::vector<uint16_t> buildArrayFromString(std::string const& text) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    uint16_t m_sizeInRegister;
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

}  // namespace modbus
