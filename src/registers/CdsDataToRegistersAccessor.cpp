#include "modbus/CdsDataToRegistersAccessor.h"

#include <algorithm>
#include <utility>

#include "registers/composite_support.h"

namespace modbus {

CdsDataToRegistersAccessor::CdsDataToRegistersAccessor(
    unsigned short sizeInRegister, std::vector<CdsDataAccessor*> const& accessors,
    std::function<std::vector<uint16_t>(std::vector<kq::CValue> const&)> dataToRegisters,
    std::function<std::vector<kq::CValue>(std::vector<uint16_t> const&)> registersToData,
    std::function<std::string(std::vector<kq::CValue> const&)> dataToString,
    std::string const& description)
    : m_sizeInRegister(sizeInRegister),
      m_cdsDataAccessors(detail::adoptDataAccessors(accessors)),
      m_cachedValues(m_cdsDataAccessors.size()),
      m_dataToRegisters(std::move(dataToRegisters)),
      m_registersToData(std::move(registersToData)),
      m_dataToString(std::move(dataToString)),
      m_description(description) {
    detail::listenToSources(m_cdsDataAccessors, this);
}

/* Writes the converted values to the leading sources; too many values throw
 * std::out_of_range once every source has been written. The cache is left
 * to the next read or push. */
void CdsDataToRegistersAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable() || !m_registersToData) {
        return;
    }
    detail::writeInOrder(m_cdsDataAccessors, m_registersToData(data));
}

/* Every read refreshes the whole cache from the sources. The result is
 * returned as the function gives it, whatever the block size. */
std::vector<uint16_t> CdsDataToRegistersAccessor::getData() const {
    if (!isDataAvailable() || !m_dataToRegisters) {
        return {};
    }
    return m_dataToRegisters(updateCachedValues());
}

std::string CdsDataToRegistersAccessor::getDataRepresentation() const {
    if (!m_description.empty()) {
        return m_description;
    }
    return m_sizeInRegister == 1 ? "Int16/UInt16 - see description" : "See Description";
}

/* Every source must exist (vacuously true without sources). Intended: the
 * discrete composite asks for any source instead. */
bool CdsDataToRegistersAccessor::isDataAvailable() const {
    return std::all_of(m_cdsDataAccessors.begin(), m_cdsDataAccessors.end(),
                       [](auto const& source) { return source->isExitingInCds(); });
}

void CdsDataToRegistersAccessor::setCallback(
    std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* The text function's answer when there is one; otherwise a one-register
 * block shows its register unsigned (0 to 65535) and a wider block has no
 * text form. */
std::string CdsDataToRegistersAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    if (m_dataToString) {
        return m_dataToString(updateCachedValues());
    }
    if (!m_dataToRegisters) {
        return {};
    }
    std::vector<uint16_t> const registers = getData();
    if (registers.size() != 1) {
        return {};
    }
    return std::to_string(static_cast<unsigned int>(registers[0]));
}

uint16_t CdsDataToRegistersAccessor::getSizeInRegister() const {
    return m_sizeInRegister;
}

/* No existence test: a missing source's answer is cached as it is. */
std::vector<kq::CValue> const& CdsDataToRegistersAccessor::updateCachedValues() const {
    for (std::size_t i = 0; i < m_cdsDataAccessors.size(); ++i) {
        m_cachedValues[i] = m_cdsDataAccessors[i]->getCValue();
    }
    return m_cachedValues;
}

/* Pushes the whole block on every update of any source, with the other
 * entries as last read or pushed (invalid if neither yet). No availability
 * test here; a listener without a data-to-registers function makes the call
 * throw std::bad_function_call. */
void CdsDataToRegistersAccessor::callbackCdsEvent(kq::CValue const& value, unsigned int index) {
    m_cachedValues[index] = value;  // index comes from the constructor's binding
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, m_dataToRegisters(m_cachedValues));
}

}  // namespace modbus
