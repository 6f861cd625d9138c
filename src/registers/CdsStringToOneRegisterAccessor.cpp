#include "modbus/CdsStringToOneRegisterAccessor.h"

#include <utility>

#include "registers/encoder_support.h"
#include "registers/text_register_conversions.h"

namespace modbus {

CdsStringToOneRegisterAccessor::CdsStringToOneRegisterAccessor(
    std::shared_ptr<CdsDataAccessor> dataAccessor)
    : m_cdsDataAccessor(std::move(dataAccessor)) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsStringToOneRegisterAccessor::CdsStringToOneRegisterAccessor(CdsDataAccessor* dataAccessor)
    : CdsStringToOneRegisterAccessor(detail::adoptDataAccessor(dataAccessor)) {}

CdsStringToOneRegisterAccessor::~CdsStringToOneRegisterAccessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

/* Stores the first register as decimal text (0 to 65535). An empty write
 * throws std::out_of_range from the bounds-checked access. */
void CdsStringToOneRegisterAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    m_cdsDataAccessor->setCValue(kq::CValue(std::to_string(data.at(0))));
}

/* A text without digits throws std::invalid_argument out of here. */
std::vector<uint16_t> CdsStringToOneRegisterAccessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromString(m_cdsDataAccessor->getCValue().as_string());
}

/* "Uint16" with a lower-case i, unlike the "UInt16" of the scaled unsigned
 * encoder; the difference is intended and kept. */
std::string CdsStringToOneRegisterAccessor::getDataRepresentation() const {
    return "Uint16";
}

bool CdsStringToOneRegisterAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsStringToOneRegisterAccessor::setCallback(
    std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* The text of the register as sent, not the stored text: 70000 shows 4464. */
std::string CdsStringToOneRegisterAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    std::vector<uint16_t> const registers = getData();
    if (registers.empty()) {
        return {};
    }
    return std::to_string(registers[0]);
}

uint16_t CdsStringToOneRegisterAccessor::getSizeInRegister() const {
    return 1;
}

std::vector<uint16_t> CdsStringToOneRegisterAccessor::buildArrayFromString(
    std::string const& text) const {
    return {detail::parseDecimalToRegister(text)};
}

void CdsStringToOneRegisterAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromString(value.as_string()));
}

}  // namespace modbus
