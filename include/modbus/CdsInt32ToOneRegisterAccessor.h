// A signed 32-bit integer scaled into one register.
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
 * register = low 16 bits of the saturated int32 product value * multiplier;
 * the text is the full product. Label "Int16", one register.
 */
class TARSEL_MODBUS_EXPORT CdsInt32ToOneRegisterAccessor : public RegistersDataAccessor {
  public:
    CdsInt32ToOneRegisterAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier);
    CdsInt32ToOneRegisterAccessor(CdsDataAccessor* dataAccessor, float multiplier);
    ~CdsInt32ToOneRegisterAccessor() override;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    int multiplyData(int value) const;
    std::vector<uint16_t> buildArrayFromInt32(int value) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
    float m_multiplier;
};

}  // namespace modbus
