// Pieces shared by the register and discrete encoders. Pure conversion code:
// nothing here touches the data store.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "modbus/CdsDataAccessor.h"
#include "modbus/byte_order.h"

namespace modbus::detail {

/* Takes ownership of a raw data accessor. The shared_ptr constructor deletes
 * the pointer through its virtual destructor if allocating the control block
 * throws, so the accessor is never leaked. */
inline std::shared_ptr<CdsDataAccessor> adoptDataAccessor(CdsDataAccessor* raw) {
    return std::shared_ptr<CdsDataAccessor>(raw);
}

/* The message of an unsupported byte order: the literal with its first N
 * characters skipped, N being the order's value. This mirrors how the
 * firmware has always formed the text (a pointer advanced by the order) and
 * the daemon's logs are matched against it, so it is kept on purpose. An
 * order past the end of the literal gives the empty text instead of reading
 * past it. */
inline std::string unsupportedByteOrderMessage(char const* literal, ByteOrder order) {
    auto const skip = static_cast<std::size_t>(static_cast<std::uint16_t>(order));
    std::size_t const length = std::strlen(literal);
    return std::string(literal + (skip < length ? skip : length));
}

/* Saturating truncation toward zero, as the card's processor converts: below
 * the range gives the minimum, above it the maximum, NaN gives 0. Written out
 * because a plain static_cast of an out-of-range float is undefined. */
template <typename Int>
Int saturatingTruncate(double value) {
    static_assert(std::numeric_limits<Int>::is_integer, "integer target only");
    if (std::isnan(value)) {
        return 0;
    }
    // Both limits are exactly representable as double for 32-bit targets.
    constexpr double lowest = static_cast<double>(std::numeric_limits<Int>::min());
    constexpr double highest = static_cast<double>(std::numeric_limits<Int>::max());
    if (value <= lowest) {
        return std::numeric_limits<Int>::min();
    }
    if (value >= highest) {
        return std::numeric_limits<Int>::max();
    }
    return static_cast<Int>(value);
}

/* The value modulo 65536 as a register's content. */
inline std::uint16_t low16(std::uint32_t value) { return static_cast<std::uint16_t>(value & 0xFFFFu); }
inline std::uint16_t low16(std::int32_t value) {
    return static_cast<std::uint16_t>(static_cast<std::uint32_t>(value) & 0xFFFFu);
}

}  // namespace modbus::detail
