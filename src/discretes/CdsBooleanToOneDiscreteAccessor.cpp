#include "modbus/CdsBooleanToOneDiscreteAccessor.h"

#include <utility>

#include "registers/encoder_support.h"

namespace modbus {

CdsBooleanToOneDiscreteAccessor::CdsBooleanToOneDiscreteAccessor(
    std::shared_ptr<CdsDataAccessor> accessor, DiscreteModifier modifier)
    : m_cdsDataAccessor(std::move(accessor)),
      // Only Invert (1) inverts; any other value, valid or not, serves as it is.
      m_isInverted(static_cast<int>(modifier) == static_cast<int>(DiscreteModifier::Invert)) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsBooleanToOneDiscreteAccessor::CdsBooleanToOneDiscreteAccessor(CdsDataAccessor* accessor,
                                                                 DiscreteModifier modifier)
    : CdsBooleanToOneDiscreteAccessor(detail::adoptDataAccessor(accessor), modifier) {}

CdsBooleanToOneDiscreteAccessor::~CdsBooleanToOneDiscreteAccessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

bool CdsBooleanToOneDiscreteAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsBooleanToOneDiscreteAccessor::setCallback(
    std::function<void(std::vector<uint8_t> const&)> callback) {
    m_callback = std::move(callback);
}

uint16_t CdsBooleanToOneDiscreteAccessor::getSizeInRegister() const {
    return 1;
}

std::string CdsBooleanToOneDiscreteAccessor::getDataRepresentation() const {
    return "Boolean";
}

std::vector<uint8_t> CdsBooleanToOneDiscreteAccessor::buildArrayFromBool(bool value) const {
    return {static_cast<uint8_t>(value ? 1 : 0)};
}

std::vector<uint8_t> CdsBooleanToOneDiscreteAccessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    bool const value = m_cdsDataAccessor->getCValue().as_bool();
    return buildArrayFromBool(m_isInverted ? !value : value);
}

std::string CdsBooleanToOneDiscreteAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    bool const value = m_cdsDataAccessor->getCValue().as_bool();
    return (m_isInverted ? !value : value) ? "1" : "0";
}

void CdsBooleanToOneDiscreteAccessor::setData(std::vector<uint8_t> const& data) {
    if (!isDataAvailable() || data.empty()) {
        return;
    }
    // Any non-zero byte counts as a set discrete; further discretes are ignored.
    bool const isSet = data.front() != 0;
    m_cdsDataAccessor->setCValue(kq::CValue(m_isInverted ? !isSet : isSet));
}

void CdsBooleanToOneDiscreteAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    // Intended: pushes carry the un-inverted value even with Invert, unlike
    // getData(); the daemon has always received pushes this way.
    detail::pushTo(m_callback, buildArrayFromBool(value.as_bool()));
}

}  // namespace modbus
