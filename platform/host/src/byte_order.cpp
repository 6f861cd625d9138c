// Host implementation of the Modbus framework's byte-order names.
#include "modbus/byte_order.h"

#include <string>

namespace modbus {

std::string to_string(ByteOrder order) {
    switch (order) {
        case ByteOrder::Standard:
            return "Standard";
        case ByteOrder::WordSwapped:
            return "WordSwapped";
        case ByteOrder::ByteSwapped:
            return "ByteSwapped";
        case ByteOrder::WordByteSwapped:
            return "WordByteSwapped";
    }
    // A value read from configuration may be any number; name it rather than fail.
    return "Unknown(" + std::to_string(static_cast<unsigned>(order)) + ")";
}

}  // namespace modbus
