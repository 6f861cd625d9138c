#include "modbus/CdsFloatToOneRegisterAccessor.h"

#include <utility>

#include "cds/read_path.h"
#include "registers/encoder_support.h"
#include "registers/scaled_register_conversions.h"

namespace modbus {

CdsFloatToOneRegisterAccessor::CdsFloatToOneRegisterAccessor(
    std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier, float offset)
    : m_cdsDataAccessor(std::move(dataAccessor)), m_multiplier(multiplier), m_offset(offset) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsFloatToOneRegisterAccessor::CdsFloatToOneRegisterAccessor(CdsDataAccessor* dataAccessor,
                                                             float multiplier, float offset)
    : CdsFloatToOneRegisterAccessor(detail::adoptDataAccessor(dataAccessor), multiplier, offset) {}

CdsFloatToOneRegisterAccessor::~CdsFloatToOneRegisterAccessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

/* Only the first register counts; an empty write stores 0.0. */
void CdsFloatToOneRegisterAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    float const value =
        data.empty() ? 0.0f : detail::unscaleRegisterToFloat(data[0], m_multiplier, m_offset);
    m_cdsDataAccessor->setCValue(kq::CValue(value));
}

TARSEL_READ_PATH std::vector<uint16_t> CdsFloatToOneRegisterAccessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromFloat(m_cdsDataAccessor->getCValue().as_float());
}

std::string CdsFloatToOneRegisterAccessor::getDataRepresentation() const {
    return "Int16";
}

bool CdsFloatToOneRegisterAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsFloatToOneRegisterAccessor::setCallback(
    std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* The truncated scaled value, not the rounded magnitude that getData() sends:
 * the difference is intended (12.7 shows 12 but is sent as 13). */
std::string CdsFloatToOneRegisterAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return detail::truncatedText(multiplyAndOffsetData(m_cdsDataAccessor->getCValue().as_float()));
}

uint16_t CdsFloatToOneRegisterAccessor::getSizeInRegister() const {
    return 1;
}

float CdsFloatToOneRegisterAccessor::multiplyAndOffsetData(float value) const {
    return detail::scaleAndOffset(value, m_multiplier, m_offset);
}

std::vector<uint16_t> CdsFloatToOneRegisterAccessor::buildArrayFromFloat(float value) const {
    return {detail::roundedMagnitudeRegister(multiplyAndOffsetData(value))};
}

void CdsFloatToOneRegisterAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromFloat(value.as_float()));
}

}  // namespace modbus
