// Pieces shared by the register and discrete encoders. Pure conversion code:
// nothing here touches the data store.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kq/value.h"
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
inline std::uint16_t low16(std::uint32_t value) {
    return static_cast<std::uint16_t>(value & 0xFFFFu);
}
inline std::uint16_t low16(std::int32_t value) {
    return static_cast<std::uint16_t>(static_cast<std::uint32_t>(value) & 0xFFFFu);
}

/* Throws the std::logic_error of an unsupported byte order, with the text of
 * unsupportedByteOrderMessage(). */
[[noreturn]] inline void throwUnsupportedByteOrder(char const* literal, ByteOrder order) {
    throw std::logic_error(unsupportedByteOrderMessage(literal, order));
}

/* Withdraws the listener that listenToSource() installed, if `source` still
 * holds it (`installed` has not expired): a listener that another encoder or
 * the owner put in its place since is left alone. Never throws: it runs in
 * destructors. */
inline void stopListening(CdsDataAccessor& source, std::weak_ptr<void> const& installed) noexcept {
    if (installed.expired()) {
        return;
    }
    try {
        source.setUpdateCallback({});
    } catch (...) {
        // Clearing a listener calls nothing in this library's accessors; a
        // foreign accessor that throws here keeps its listener.
    }
}

/* Makes `encoder` the one update listener of `source`: every value the source
 * pushes goes to encoder->callbackCdsEvent(). Returns a watch that expires as
 * soon as the source has dropped that listener (replaced or cleared it), so
 * that the encoder's destructor withdraws it only while it is still its own:
 * a source shared with others outlives any number of encoders. If installing
 * throws (the source calls a new listener at once), the listener is withdrawn
 * before the exception leaves, so a failed constructor leaves nothing behind. */
template <typename Encoder>
std::weak_ptr<void> listenToSource(CdsDataAccessor& source, Encoder* encoder) {
    // Lives exactly as long as the installed function (one owner: the
    // function is moved, never copied, on its way into the source). The mark
    // holds the encoder itself, so the function captures one pointer's worth
    // less: a map of thousands of entries keeps one per encoder.
    std::shared_ptr<Encoder*> mark = std::make_shared<Encoder*>(encoder);
    std::weak_ptr<void> installed = mark;
    try {
        source.setUpdateCallback([mark = std::move(mark)](kq::CValue const& value) {
            (*mark)->callbackCdsEvent(value);
        });
    } catch (...) {
        stopListening(source, installed);
        throw;
    }
    return installed;
}

/* Hands a pushed array to an encoder's listener (which must be set). The call
 * runs on its own copy of the function: a listener that replaces or clears
 * itself with setCallback() from inside the push runs to its end. */
template <typename Array>
void pushTo(std::function<void(Array const&)> const& listener, Array const& array) {
    std::function<void(Array const&)> const running = listener;
    running(array);
}

/* A pair of registers, first (lowest-addressed) register first. */
using RegisterPair = std::array<std::uint16_t, 2>;

/* The two registers a two-register write is decoded from: the first two
 * written, a missing one taken as 0. Further registers are ignored and no
 * length is ever rejected, so a short or long write still decodes. */
inline RegisterPair firstTwoRegisters(std::vector<std::uint16_t> const& registers) {
    RegisterPair pair{0, 0};
    if (!registers.empty()) {
        pair[0] = registers[0];
    }
    if (registers.size() >= 2) {
        pair[1] = registers[1];
    }
    return pair;
}

/* The two halves of a 32-bit value as registers in a word order: Standard puts
 * the high half first, WordSwapped the low half first; the bytes inside each
 * register are left alone. Any other order throws with `unsupportedLiteral`. */
inline std::vector<std::uint16_t> wordsOfUint32(std::uint32_t value, ByteOrder order,
                                                char const* unsupportedLiteral) {
    auto const high = static_cast<std::uint16_t>(value >> 16);
    auto const low = static_cast<std::uint16_t>(value & 0xFFFFu);
    std::vector<std::uint16_t> registers;
    registers.reserve(2);
    switch (order) {
        case ByteOrder::Standard:
            registers.push_back(high);
            registers.push_back(low);
            return registers;
        case ByteOrder::WordSwapped:
            registers.push_back(low);
            registers.push_back(high);
            return registers;
        default:
            throwUnsupportedByteOrder(unsupportedLiteral, order);
    }
}

/* The 32-bit value of a register pair in a word order, the inverse of
 * wordsOfUint32(). Any other order throws with `unsupportedLiteral`. */
inline std::uint32_t uint32OfWords(RegisterPair const& pair, ByteOrder order,
                                   char const* unsupportedLiteral) {
    switch (order) {
        case ByteOrder::Standard:
            return (static_cast<std::uint32_t>(pair[0]) << 16) | pair[1];
        case ByteOrder::WordSwapped:
            return (static_cast<std::uint32_t>(pair[1]) << 16) | pair[0];
        default:
            throwUnsupportedByteOrder(unsupportedLiteral, order);
    }
}

/* The 32 bits as a two's-complement int32, spelled out because converting an
 * out-of-range unsigned value to a signed type is implementation-defined
 * before C++20. */
inline std::int32_t int32OfBits(std::uint32_t bits) {
    if (bits <= static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max())) {
        return static_cast<std::int32_t>(bits);
    }
    // bits - 2^32, computed without leaving the int32 range.
    return -static_cast<std::int32_t>(~bits) - 1;
}

}  // namespace modbus::detail
