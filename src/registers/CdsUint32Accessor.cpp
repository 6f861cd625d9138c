#include "modbus/CdsUint32Accessor.h"

#include <utility>

#include "cds/read_path.h"
#include "registers/encoder_support.h"

namespace modbus {

namespace {

constexpr char const* kBuildUnsupported = "buildArrayFromInt32 is not implemented for ByteOrder ";
constexpr char const* kSetDataUnsupported = "setData is not implemented for ByteOrder ";

}  // namespace

CdsUint32Accessor::CdsUint32Accessor(std::shared_ptr<CdsDataAccessor> dataAccessor)
    : m_cdsDataAccessor(std::move(dataAccessor)) {
    // m_byteOrder starts as ByteOrder::Standard (its initialiser in the base).
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsUint32Accessor::CdsUint32Accessor(CdsDataAccessor* dataAccessor)
    : CdsUint32Accessor(detail::adoptDataAccessor(dataAccessor)) {}

CdsUint32Accessor::~CdsUint32Accessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

bool CdsUint32Accessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsUint32Accessor::setCallback(std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

uint16_t CdsUint32Accessor::getSizeInRegister() const {
    return 2;
}

std::string CdsUint32Accessor::getDataRepresentation() const {
    return "UInt32 (" + to_string(m_byteOrder) + ")";
}

/* The value in the word order. The builder's name says Int32 for the
 * unsigned class too: intended, the name is shared with the signed encoder.
 * An unsupported order throws; intended: its text is the literal advanced by
 * the order. */
std::vector<uint16_t> CdsUint32Accessor::buildArrayFromInt32(unsigned int value) const {
    return detail::wordsOfUint32(value, m_byteOrder, kBuildUnsupported);
}

TARSEL_READ_PATH std::vector<uint16_t> CdsUint32Accessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromInt32(m_cdsDataAccessor->getCValue().as_uint32());
}

void CdsUint32Accessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    std::uint32_t const bits =
        detail::uint32OfWords(detail::firstTwoRegisters(data), m_byteOrder, kSetDataUnsupported);
    m_cdsDataAccessor->setCValue(kq::CValue(static_cast<unsigned int>(bits)));
}

std::string CdsUint32Accessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return std::to_string(m_cdsDataAccessor->getCValue().as_uint32());
}

void CdsUint32Accessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromInt32(value.as_uint32()));
}

}  // namespace modbus
