// A block of discretes computed from several data accessors by functions of the caller.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modbus/CdsDataAccessor.h"
#include "modbus/DiscretesDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/*
 * The discrete twin of CdsDataToRegistersAccessor, with two deliberate
 * differences: it is available as soon as any source exists (never with no
 * sources), and reads never touch the push cache, which holds only what the
 * sources pushed. Reads are sized by the block, writes by the number of
 * sources; a written discrete counts as set only when it is exactly 1.
 *
 * Ownership and threads: as CdsDataToRegistersAccessor. dataToDiscretes must
 * accept invalid values.
 */
class TARSEL_MODBUS_EXPORT CdsDataToDiscretesAccessor : public DiscretesDataAccessor {
  public:
    CdsDataToDiscretesAccessor(
        unsigned short sizeInRegister, std::vector<CdsDataAccessor*> const& accessors,
        std::function<std::vector<bool>(std::vector<kq::CValue> const&)> dataToDiscretes,
        std::function<std::vector<kq::CValue>(std::vector<bool> const&)> discretesToData);

    void setData(std::vector<uint8_t> const& data) override;
    std::vector<uint8_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint8_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    void callbackCdsEvent(kq::CValue const& value, unsigned int index);
    std::vector<uint8_t> buildArrayFromBool(std::vector<bool> const& bits) const;
    std::vector<bool> buildArrayFromUint8(std::vector<uint8_t> const& data) const;

  private:
    unsigned short m_sizeInRegister;
    std::vector<std::shared_ptr<CdsDataAccessor>> m_cdsDataAccessors;
    std::vector<kq::CValue> m_cachedValues;
    std::function<void(std::vector<uint8_t> const&)> m_callback;
    std::function<std::vector<bool>(std::vector<kq::CValue> const&)> m_dataToDiscretes;
    std::function<std::vector<kq::CValue>(std::vector<bool> const&)> m_discretesToData;
};

}  // namespace modbus
