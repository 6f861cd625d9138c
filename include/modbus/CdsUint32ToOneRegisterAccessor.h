// An unsigned 32-bit integer scaled or bit-masked into one register.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "modbus/CdsDataAccessor.h"
#include "modbus/RegistersDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/* How CdsUint32ToOneRegisterAccessor combines its mask with the value. */
enum class BitmaskOp : std::uint8_t {
    None = 0,  // scale by the multiplier
    Xor = 1,   // reads: value XOR mask; writes: the mask itself is written
};

/*
 * register = low 16 bits of the (optionally XOR-masked) value times the
 * multiplier. With a default value configured the entry always counts as
 * available. Label "UInt16", one register.
 */
class TARSEL_MODBUS_EXPORT CdsUint32ToOneRegisterAccessor : public RegistersDataAccessor {
  public:
    CdsUint32ToOneRegisterAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier);
    CdsUint32ToOneRegisterAccessor(CdsDataAccessor* dataAccessor, float multiplier);
    CdsUint32ToOneRegisterAccessor(std::shared_ptr<CdsDataAccessor> dataAccessor,
                                   BitmaskOp bitmaskOp, unsigned int mask,
                                   std::optional<unsigned int> defaultValue);
    CdsUint32ToOneRegisterAccessor(CdsDataAccessor* dataAccessor, BitmaskOp bitmaskOp,
                                   unsigned int mask, std::optional<unsigned int> defaultValue);
    ~CdsUint32ToOneRegisterAccessor() override;

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    std::vector<uint16_t> buildArrayFromUint32(unsigned int value, bool apply) const;
    void callbackCdsEvent(kq::CValue const& value);

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
    float m_multiplier;
    BitmaskOp m_bitmaskOp;
    unsigned int m_mask;
    std::optional<unsigned int> m_defaultValue;
};

}  // namespace modbus
