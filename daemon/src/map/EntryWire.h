// What an entry looks like to a Modbus client: its wire type and layout,
// how its registers scale to the value, whether it can be written, and what
// it reads while its value is not available. The register-map reference
// (--describe) and the answers to reads of unavailable entries share it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FloatProbe.h"
#include "MapModel.h"
#include "WireLayout.h"

namespace tarsel::daemon {

enum class WireType { Int16, Uint16, Bitfield16, Int32, Uint32, Float32, String, Bits };

struct EntryWire {
    WireType type = WireType::Uint16;
    // Where a 32-bit value's bytes lie; nothing for the library's float
    // encoder, whose layout is the linked libmodbus's (libmodbusOrder).
    std::optional<WireLayout> layout;
    int libmodbusOrder = -1;
    // The value is raw x scale + offset (for reads).
    double scale = 1.0;
    double offset = 0.0;
};

/* The wire type of an entry, derived from its encoder: the one-register
 * float encoder sends a rounded magnitude (uint16), the int32-to-one-register
 * encoder the low 16 bits of a two's complement (int16), the numeric string
 * its number (uint16), the status word a bitfield16. */
EntryWire wireOf(EntryDefinition const& definition);

/* "float32 ABCD", "int16", "uint32 CDAB", "string 16 chars", "bits"; the
 * library float names the linked libmodbus's read and write layouts. */
std::string wireText(EntryDefinition const& definition, FloatLayoutReport const& floatLayout);

/* "R" or "RW": the table, a read-only composite, an empty allowWrite and a
 * daemon that refuses every write decide. */
std::string accessText(EntryDefinition const& definition, bool daemonReadOnly);

/* The registers (one word per discrete, 0 or 1) a read of the entry answers
 * while its value is not available, under a sentinel or not-implemented
 * policy; the exception policy answers no words. */
std::vector<std::uint16_t> unavailableWords(EntryDefinition const& definition);

/* "0x8000", "0x7FC0 0x0000 (NaN)", "0x0000 in all 8 registers", "exception 0x04". */
std::string unavailableText(EntryDefinition const& definition);

/* A number as a spreadsheet reads it: no thousands separators, no
 * trailing zeros ("0.1", "-40", "1"). */
std::string plainNumber(double value);

}  // namespace tarsel::daemon
