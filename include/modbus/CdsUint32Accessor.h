// An unsigned 32-bit integer in two registers, split into words by hand.
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
 * An unsigned 32-bit integer over two registers: byte order 0 puts the high word first, 1 the
 * low word first; the bytes inside each register are not touched. Any other
 * order throws std::logic_error once the value is available. No scaling.
 *
 * The raw-pointer constructor takes ownership of the data accessor. The
 * encoder installs itself as the data accessor's update listener.
 */
class TARSEL_MODBUS_EXPORT CdsUint32Accessor : public RegistersDataAccessor {
  public:
    explicit CdsUint32Accessor(std::shared_ptr<CdsDataAccessor> dataAccessor);
    explicit CdsUint32Accessor(CdsDataAccessor* dataAccessor);
    ~CdsUint32Accessor() override;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    std::vector<uint16_t> buildArrayFromInt32(unsigned int value) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
};

}  // namespace modbus
