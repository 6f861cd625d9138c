#include "modbus/CdsInt32Accessor.h"

#include <utility>

#include "cds/read_path.h"
#include "registers/encoder_support.h"

namespace modbus {

namespace {

constexpr char const* kBuildUnsupported = "buildArrayFromInt32 is not implemented for ByteOrder ";
constexpr char const* kSetDataUnsupported = "setData is not implemented for ByteOrder ";

}  // namespace

CdsInt32Accessor::CdsInt32Accessor(std::shared_ptr<CdsDataAccessor> dataAccessor)
    : m_cdsDataAccessor(std::move(dataAccessor)) {
    // m_byteOrder starts as ByteOrder::Standard (its initialiser in the base).
    m_sourceListener = detail::listenToSource(*m_cdsDataAccessor, this);
}

CdsInt32Accessor::CdsInt32Accessor(CdsDataAccessor* dataAccessor)
    : CdsInt32Accessor(detail::adoptDataAccessor(dataAccessor)) {}

CdsInt32Accessor::~CdsInt32Accessor() {
    if (m_cdsDataAccessor) {
        detail::stopListening(*m_cdsDataAccessor, m_sourceListener);
    }
}

bool CdsInt32Accessor::isDataAvailable() const {
    return m_cdsDataAccessor->isExitingInCds();
}

void CdsInt32Accessor::setCallback(std::function<void(std::vector<uint16_t> const&)> callback) {
    m_callback = std::move(callback);
}

uint16_t CdsInt32Accessor::getSizeInRegister() const {
    return 2;
}

std::string CdsInt32Accessor::getDataRepresentation() const {
    return "Int32 (" + to_string(m_byteOrder) + ")";
}

/* The two's-complement bits of the value in the word order. An unsupported
 * order throws; intended: its text is the literal advanced by the order. */
std::vector<uint16_t> CdsInt32Accessor::buildArrayFromInt32(int value) const {
    return detail::wordsOfUint32(static_cast<std::uint32_t>(value), m_byteOrder, kBuildUnsupported);
}

TARSEL_READ_PATH std::vector<uint16_t> CdsInt32Accessor::getData() const {
    if (!isDataAvailable()) {
        return {};
    }
    return buildArrayFromInt32(m_cdsDataAccessor->getCValue().as_int32());
}

void CdsInt32Accessor::setData(std::vector<uint16_t> const& data) {
    if (!isDataAvailable()) {
        return;
    }
    std::uint32_t const bits =
        detail::uint32OfWords(detail::firstTwoRegisters(data), m_byteOrder, kSetDataUnsupported);
    m_cdsDataAccessor->setCValue(kq::CValue(static_cast<int>(detail::int32OfBits(bits))));
}

std::string CdsInt32Accessor::getStrValue() const {
    if (!isDataAvailable()) {
        return {};
    }
    return std::to_string(m_cdsDataAccessor->getCValue().as_int32());
}

void CdsInt32Accessor::callbackCdsEvent(kq::CValue const& value) {
    if (!m_callback) {
        return;
    }
    detail::pushTo(m_callback, buildArrayFromInt32(value.as_int32()));
}

}  // namespace modbus
