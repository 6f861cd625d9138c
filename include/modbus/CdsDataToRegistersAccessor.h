// A block of registers computed from several data accessors by functions of the caller.
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
 * Gathers the sources' values, in source order, into a vector of kq::CValue
 * and hands it to the caller's conversion functions. Available while every
 * source exists (and with no sources). Reads refresh the whole cache; each
 * source's push refreshes its entry and pushes the block again.
 *
 * Ownership: takes over every raw source pointer; the caller must not delete
 * them or give one source to two owners.
 *
 * The conversion functions are called on the caller's thread for reads and
 * writes and on the notification thread for pushes; each may be empty.
 * dataToRegisters must accept invalid values (sources not read or pushed yet).
 */
class TARSEL_MODBUS_EXPORT CdsDataToRegistersAccessor : public RegistersDataAccessor {
  public:
    CdsDataToRegistersAccessor(
        unsigned short sizeInRegister, std::vector<CdsDataAccessor*> const& accessors,
        std::function<std::vector<uint16_t>(std::vector<kq::CValue> const&)> dataToRegisters,
        std::function<std::vector<kq::CValue>(std::vector<uint16_t> const&)> registersToData,
        std::function<std::string(std::vector<kq::CValue> const&)> dataToString,
        std::string const& description);

    void setData(std::vector<uint16_t> const& data) override;
    std::vector<uint16_t> getData() const override;
    std::string getDataRepresentation() const override;
    bool isDataAvailable() const override;
    void setCallback(std::function<void(std::vector<uint16_t> const&)> callback) override;
    std::string getStrValue() const override;
    uint16_t getSizeInRegister() const override;

    std::vector<kq::CValue> const& updateCachedValues() const;
    void callbackCdsEvent(kq::CValue const& value, unsigned int index);

  private:
    unsigned short m_sizeInRegister;
    std::vector<std::shared_ptr<CdsDataAccessor>> m_cdsDataAccessors;
    mutable std::vector<kq::CValue> m_cachedValues;
    std::function<void(std::vector<uint16_t> const&)> m_callback;
    std::function<std::vector<uint16_t>(std::vector<kq::CValue> const&)> m_dataToRegisters;
    std::function<std::vector<kq::CValue>(std::vector<uint16_t> const&)> m_registersToData;
    std::function<std::string(std::vector<kq::CValue> const&)> m_dataToString;
    std::string m_description;
};

}  // namespace modbus
