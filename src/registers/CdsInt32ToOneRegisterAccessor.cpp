#include "modbus/CdsInt32ToOneRegisterAccessor.h"

#include <utility>

#include "cds/read_path.h"
#include "registers/encoder_support.h"
#include "registers/scaled_register_conversions.h"

namespace modbus {

CdsInt32ToOneRegisterAccessor::CdsInt32ToOneRegisterAccessor(
    std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier)
    : m_cdsDataAccessor(std::move(dataAccessor)), m_multiplier(multiplier) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsInt32ToOneRegisterAccessor::CdsInt32ToOneRegisterAccessor(CdsDataAccessor* dataAccessor,
                                                             float multiplier)
    : CdsInt32ToOneRegisterAccessor(detail::adoptDataAccessor(dataAccessor), multiplier) {}

CdsInt32ToOneRegisterAccessor::~CdsInt32ToOneRegisterAccessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

/* Only the first register counts; an empty write stores 0. With a multiplier
 * of exactly 1 the register is stored unsigned (0xFFFF stores 65535 although
 * a stored -1 reads as 0xFFFF); that asymmetry is intended. */
void CdsInt32ToOneRegisterAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    int const value = data.empty() ? 0 : detail::unscaleRegisterToInt32(data[0], m_multiplier);
    m_cdsDataAccessor->setCValue(kq::CValue(value));
}

TARSEL_READ_PATH std::vector<uint16_t> CdsInt32ToOneRegisterAccessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromInt32(m_cdsDataAccessor->getCValue().as_int32());
}

std::string CdsInt32ToOneRegisterAccessor::getDataRepresentation() const {
    return "Int16";
}

bool CdsInt32ToOneRegisterAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsInt32ToOneRegisterAccessor::setCallback(
    std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* The full scaled int32, not reduced to the 16 bits that getData() sends;
 * the difference is intended (70000 shows 70000 but is sent as 4464). */
std::string CdsInt32ToOneRegisterAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return std::to_string(multiplyData(m_cdsDataAccessor->getCValue().as_int32()));
}

uint16_t CdsInt32ToOneRegisterAccessor::getSizeInRegister() const {
    return 1;
}

int CdsInt32ToOneRegisterAccessor::multiplyData(int value) const {
    return detail::scaleInt32(value, m_multiplier);
}

/* Two's-complement wrap into the register: -1 is sent as 0xFFFF. */
std::vector<uint16_t> CdsInt32ToOneRegisterAccessor::buildArrayFromInt32(int value) const {
    return {detail::low16(static_cast<std::int32_t>(multiplyData(value)))};
}

void CdsInt32ToOneRegisterAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromInt32(value.as_int32()));
}

}  // namespace modbus
