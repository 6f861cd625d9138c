// A decimal number held as text, served in one register.
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
 * register = low 16 bits of std::stoul(text); a write stores the register as
 * decimal text. A text without digits throws std::invalid_argument from
 * reads. Label "Uint16", one register.
 */
class TARSEL_MODBUS_EXPORT CdsStringToOneRegisterAccessor : public RegistersDataAccessor {
  public:
    explicit CdsStringToOneRegisterAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor);
    explicit CdsStringToOneRegisterAccessor(CdsDataAccessor* dataAccessor);
    ~CdsStringToOneRegisterAccessor() override;

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
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

}  // namespace modbus
