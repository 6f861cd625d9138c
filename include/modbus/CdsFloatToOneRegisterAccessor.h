// A float scaled, offset and rounded into one register.
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
 * register = low 16 bits of roundf(|value * multiplier + offset|); the text is
 * the truncated, unrounded value. Writes store (register - offset) / multiplier.
 * Label "Int16", one register; the byte order is ignored.
 */
class TARSEL_MODBUS_EXPORT CdsFloatToOneRegisterAccessor : public RegistersDataAccessor {
  public:
    CdsFloatToOneRegisterAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier,
                                  float offset);
    CdsFloatToOneRegisterAccessor(CdsDataAccessor* dataAccessor, float multiplier, float offset);
    ~CdsFloatToOneRegisterAccessor() override;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    float multiplyAndOffsetData(float value) const;
    std::vector<uint16_t> buildArrayFromFloat(float value) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
    float m_multiplier;
    float m_offset;
};

}  // namespace modbus
