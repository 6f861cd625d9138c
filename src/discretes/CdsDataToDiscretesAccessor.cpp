#include "modbus/CdsDataToDiscretesAccessor.h"

#include <algorithm>
#include <utility>

#include "registers/composite_support.h"

namespace modbus {

CdsDataToDiscretesAccessor::CdsDataToDiscretesAccessor(
    unsigned short sizeInRegister, std::vector<CdsDataAccessor*> const& accessors,
    std::function<std::vector<bool>(std::vector<kq::CValue> const&)> dataToDiscretes,
    std::function<std::vector<kq::CValue>(std::vector<bool> const&)> discretesToData)
    : m_sizeInRegister(sizeInRegister),
      m_cdsDataAccessors(detail::adoptDataAccessors(accessors)),
      m_cachedValues(m_cdsDataAccessors.size()),
      m_dataToDiscretes(std::move(dataToDiscretes)),
      m_discretesToData(std::move(discretesToData)) {
    detail::listenToSources(m_cdsDataAccessors, this);
}

/* One bool per source (a discrete counts as set only when it is exactly 1),
 * converted and written to the leading sources; too many values throw
 * std::out_of_range once every source has been written. */
void CdsDataToDiscretesAccessor::setData(std::vector<uint8_t> const& data) {
    if (!isDataAvailable() || !m_discretesToData) {
        return;
    }
    detail::writeInOrder(m_cdsDataAccessors, m_discretesToData(buildArrayFromUint8(data)));
}

/* Reads fresh values into a local vector: intended, reads never touch the
 * push cache here (the register composite refreshes it). */
std::vector<uint8_t> CdsDataToDiscretesAccessor::getData() const {
    if (!isDataAvailable() || !m_dataToDiscretes) {
        return {};
    }
    return buildArrayFromBool(m_dataToDiscretes(detail::readAll(m_cdsDataAccessors)));
}

/* Decided by the current read, so a one-discrete block shows "See
 * Description" while none of its sources exists. */
std::string CdsDataToDiscretesAccessor::getDataRepresentation() const {
    return getData().size() == 1 ? "Boolean" : "See Description";
}

/* Any existing source is enough (none without sources). Intended: the
 * register composite asks for every source instead. */
bool CdsDataToDiscretesAccessor::isDataAvailable() const {
    return std::any_of(m_cdsDataAccessors.begin(), m_cdsDataAccessors.end(),
                       [](auto const& source) { return source->isExitingInCds(); });
}

void CdsDataToDiscretesAccessor::setCallback(
    std::function<void(std::vector<uint8_t> const&)> callback) {
    m_callback = std::move(callback);
}

/* Every bit the function returns, bit 0 first, as "1" or "0": neither cut nor
 * padded to the block size, unlike getData(). */
std::string CdsDataToDiscretesAccessor::getStrValue() const {
    if (!isDataAvailable() || !m_dataToDiscretes) {
        return {};
    }
    std::vector<bool> const bits = m_dataToDiscretes(detail::readAll(m_cdsDataAccessors));
    std::string text;
    text.reserve(bits.size());
    for (bool const bit : bits) {
        text += bit ? '1' : '0';
    }
    return text;
}

uint16_t CdsDataToDiscretesAccessor::getSizeInRegister() const {
    return m_sizeInRegister;
}

/* As the register composite's push, except that the cache holds only pushed
 * values, so sources that have not pushed yet are invalid here. */
void CdsDataToDiscretesAccessor::callbackCdsEvent(kq::CValue const& value, unsigned int index) {
    m_cachedValues[index] = value;  // index comes from the constructor's binding
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromBool(m_dataToDiscretes(m_cachedValues)));
}

/* Exactly one byte (0 or 1) per discrete of the block: surplus bits are
 * dropped, missing ones read as 0. Sized by the block, while writes are sized
 * by the sources; the asymmetry is intended. */
std::vector<uint8_t> CdsDataToDiscretesAccessor::buildArrayFromBool(
    std::vector<bool> const& bits) const {
    std::vector<uint8_t> discretes(m_sizeInRegister, 0);
    std::size_t const copied = std::min<std::size_t>(m_sizeInRegister, bits.size());
    for (std::size_t i = 0; i < copied; ++i) {
        discretes[i] = bits[i] ? 1 : 0;
    }
    return discretes;
}

/* Exactly one bool per source, true only for a byte of exactly 1: 2 or 255
 * write false. Intended, unlike the single-discrete encoder where any
 * non-zero byte counts as set. */
std::vector<bool> CdsDataToDiscretesAccessor::buildArrayFromUint8(
    std::vector<uint8_t> const& data) const {
    std::vector<bool> bits(m_cdsDataAccessors.size(), false);
    std::size_t const copied = std::min(m_cdsDataAccessors.size(), data.size());
    for (std::size_t i = 0; i < copied; ++i) {
        bits[i] = data[i] == 1;
    }
    return bits;
}

}  // namespace modbus
