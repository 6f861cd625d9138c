// The shape of a request to one of the data tables, checked before anything
// else is asked: function code, lengths, quantity, byte count and address
// range. Pure byte checks, so an illegal or malformed request gets its own
// exception even while the map cannot be served.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tarsel::daemon {

/* What the request's PDU says once it is known to be well-formed, or the
 * exception that refuses it. */
struct RequestShape {
    std::uint8_t exception = 0;  // 0 when the request is well-formed
    std::uint16_t address = 0;
    std::uint16_t quantity = 0;
};

/* Functions 1 to 6, 15 and 16: the ones that read or write a table. */
bool isTableFunction(std::uint8_t function);

/* Checks a PDU (function code first, `length` bytes): 0x01 for a function
 * that is not a table function, 0x03 for a truncated or overlong PDU, a
 * quantity of 0 or beyond the protocol's limit, a byte count that does not
 * match, a single coil value other than 0xFF00/0x0000; then 0x02 for a range
 * past address 65535. Whether the range is mapped is the map's question. */
RequestShape checkRequestShape(std::uint8_t const* pdu, std::size_t length);

/* The values a write carries, one word per register or per coil; nothing
 * when they are malformed. For functions 5, 6, 15 and 16 only. */
std::optional<std::vector<std::uint16_t>> writtenValues(std::uint8_t function,
                                                        std::uint8_t const* pdu, std::size_t length,
                                                        std::uint16_t count);

}  // namespace tarsel::daemon
