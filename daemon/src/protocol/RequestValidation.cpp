#include "RequestValidation.h"

#include "ExceptionCodes.h"

namespace tarsel::daemon {

namespace {

using exception_code::kIllegalDataAddress;
using exception_code::kIllegalDataValue;
using exception_code::kIllegalFunction;

constexpr std::uint8_t kReadInputRegisters = 4;
constexpr std::uint8_t kWriteSingleCoil = 5;
constexpr std::uint8_t kWriteSingleRegister = 6;
constexpr std::uint8_t kWriteMultipleCoils = 15;
constexpr std::uint8_t kWriteMultipleRegisters = 16;
// Function code, address, quantity (or the value of a single write).
constexpr std::size_t kFixedPduLength = 5;

std::uint16_t word(std::uint8_t const* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

/* The protocol's limits on the quantity of one request. */
std::uint16_t maxQuantity(std::uint8_t function) {
    switch (function) {
        case 1:
        case 2:
            return 2000;
        case 3:
        case kReadInputRegisters:
            return 125;
        case kWriteMultipleCoils:
            return 1968;
        case kWriteMultipleRegisters:
            return 123;
        default:
            return 1;
    }
}

bool isSingleWrite(std::uint8_t function) {
    return function == kWriteSingleCoil || function == kWriteSingleRegister;
}

}  // namespace

bool isTableFunction(std::uint8_t function) {
    return (function >= 1 && function <= kWriteSingleRegister) || function == kWriteMultipleCoils ||
           function == kWriteMultipleRegisters;
}

std::optional<std::vector<std::uint16_t>> writtenValues(std::uint8_t function,
                                                        std::uint8_t const* pdu, std::size_t length,
                                                        std::uint16_t count) {
    if (function == kWriteSingleRegister) {
        return std::vector<std::uint16_t>{word(pdu + 3)};
    }
    if (function == kWriteSingleCoil) {
        std::uint16_t const value = word(pdu + 3);
        if (value != 0xFF00 && value != 0x0000) {
            return std::nullopt;
        }
        return std::vector<std::uint16_t>{static_cast<std::uint16_t>(value == 0xFF00)};
    }
    std::size_t const byteCount = length > 5 ? pdu[5] : 0;
    bool const registers = function == kWriteMultipleRegisters;
    std::size_t const expected = registers ? count * 2u : (count + 7u) / 8u;
    if (length < 6 || byteCount != expected || length != 6 + byteCount) {
        return std::nullopt;
    }
    std::vector<std::uint16_t> values;
    for (std::size_t i = 0; i < count; ++i) {
        values.push_back(registers ? word(pdu + 6 + 2 * i)
                                   : static_cast<std::uint16_t>((pdu[6 + i / 8] >> (i % 8)) & 1));
    }
    return values;
}

RequestShape checkRequestShape(std::uint8_t const* pdu, std::size_t length) {
    RequestShape shape;
    std::uint8_t const function = length > 0 ? pdu[0] : 0;
    if (!isTableFunction(function)) {
        shape.exception = kIllegalFunction;
        return shape;
    }
    if (length < kFixedPduLength) {
        shape.exception = kIllegalDataValue;
        return shape;
    }
    shape.address = word(pdu + 1);
    shape.quantity = isSingleWrite(function) ? 1 : word(pdu + 3);
    bool const fixedLength = function <= kReadInputRegisters || isSingleWrite(function);
    bool const wellFormed = shape.quantity != 0 && shape.quantity <= maxQuantity(function) &&
                            (fixedLength ? length == kFixedPduLength : true) &&
                            (function > kReadInputRegisters
                                 ? writtenValues(function, pdu, length, shape.quantity).has_value()
                                 : true);
    if (!wellFormed) {
        shape.exception = kIllegalDataValue;
    } else if (std::uint32_t{shape.address} + shape.quantity > 0x10000) {
        shape.exception = kIllegalDataAddress;
    }
    return shape;
}

}  // namespace tarsel::daemon
