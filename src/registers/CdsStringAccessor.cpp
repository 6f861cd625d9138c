#include "modbus/CdsStringAccessor.h"

#include <utility>

#include "registers/encoder_support.h"
#include "registers/text_register_conversions.h"

namespace modbus {

/* Intended: unlike every other encoder this one does not install itself as
 * the data accessor's update listener; its owner wires callbackCdsEvent() if
 * it wants pushes. */
CdsStringAccessor::CdsStringAccessor(unsigned short sizeInRegister, CdsDataAccessor* dataAccessor)
    : m_sizeInRegister(sizeInRegister),
      m_cdsDataAccessor(detail::adoptDataAccessor(dataAccessor)) {}

/* The text up to the first zero byte; the register count is not compared with
 * the reserved size and an empty write stores the empty text. */
void CdsStringAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    m_cdsDataAccessor->setCValue(kq::CValue(detail::unpackTextUpToFirstZero(data)));
}

/* ceil(length / 2) registers, whatever the reserved size says. */
std::vector<uint16_t> CdsStringAccessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromString(m_cdsDataAccessor->getCValue().as_string());
}

std::string CdsStringAccessor::getDataRepresentation() const {
    return "String";
}

bool CdsStringAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsStringAccessor::setCallback(std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

std::string CdsStringAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return m_cdsDataAccessor->getCValue().as_string();
}

uint16_t CdsStringAccessor::getSizeInRegister() const {
    return m_sizeInRegister;
}

std::vector<uint16_t> CdsStringAccessor::buildArrayFromString(std::string const& text) const {
    return detail::packTwoCharactersPerRegister(text);
}

void CdsStringAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromString(value.as_string()));
}

}  // namespace modbus
