// A boolean as one discrete (coil or discrete input), optionally inverted.
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

/* Whether a boolean discrete is served as it is or inverted. */
enum class DiscreteModifier : int {
    None = 0,
    Invert = 1,
};

/*
 * One discrete from a boolean source. With DiscreteModifier::Invert reads,
 * texts and writes are inverted, but pushed updates carry the un-inverted
 * value. Any non-zero discrete written counts as set. Label "Boolean".
 */
class TARSEL_MODBUS_EXPORT CdsBooleanToOneDiscreteAccessor : public DiscretesDataAccessor {
  public:
    CdsBooleanToOneDiscreteAccessor(std::shared_ptr<CdsDataAccessor> accessor,
                                    DiscreteModifier modifier);
    CdsBooleanToOneDiscreteAccessor(CdsDataAccessor* accessor, DiscreteModifier modifier);
    ~CdsBooleanToOneDiscreteAccessor() override;

    void setData(std::vector<uint8_t> const& data) override;
    std::vector<uint8_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint8_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    void callbackCdsEvent(kq::CValue const& value);
    std::vector<uint8_t> buildArrayFromBool(bool value) const;

  private:
    std::shared_ptr<CdsDataAccessor> m_cdsDataAccessor;
    // Expires once the data accessor dropped the listener this encoder
    // installed; the destructor withdraws that listener only while it lives.
    std::weak_ptr<void> m_sourceListener;
    std::function<void(std::vector<uint8_t> const&)> m_callback;
    bool m_isInverted;
};

}  // namespace modbus
