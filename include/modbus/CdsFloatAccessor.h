// A float in two registers, in the word order of libmodbus's float helpers.
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
 * An IEEE-754 float over two registers. Byte order 0 uses libmodbus's "dcba"
 * float helpers and byte order 1 its "badc" helpers; any other order throws
 * std::logic_error once the value is available. Reads multiply by the
 * multiplier, writes divide by it.
 *
 * The raw-pointer constructor takes ownership of the data accessor. The
 * encoder installs itself as the data accessor's update listener.
 */
class TARSEL_MODBUS_EXPORT CdsFloatAccessor : public RegistersDataAccessor {
  public:
    CdsFloatAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier);
    CdsFloatAccessor(CdsDataAccessor* dataAccessor, float multiplier);
    ~CdsFloatAccessor() override;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    std::vector<uint16_t> buildArrayFromFloat(float value) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    float m_multiplier;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

}  // namespace modbus
