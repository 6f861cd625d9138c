// Byte order enumeration of the card's Modbus server framework.
#pragma once

#include <cstdint>
#include <string>

namespace modbus {

/* Word and byte order of values that span several registers. */
enum class ByteOrder : std::uint16_t {
    Standard = 0,         // high word first
    WordSwapped = 1,      // low word first
    ByteSwapped = 2,      // high word first, bytes of each word exchanged
    WordByteSwapped = 3,  // low word first, bytes of each word exchanged
};

/* "Standard", "WordSwapped", "ByteSwapped", "WordByteSwapped"; "Unknown(N)" for
 * any other value. */
std::string to_string(ByteOrder order);

}  // namespace modbus
