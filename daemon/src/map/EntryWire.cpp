#include "EntryWire.h"

#include <cstdio>

#include <modbus.h>

#include "Conversions.h"

namespace tarsel::daemon {

namespace {

constexpr std::uint32_t kQuietNaN = 0x7FC00000u;

EntryWire thirtyTwoBit(WireType type, EntryDefinition const& definition) {
    EntryWire wire;
    wire.type = type;
    // The library's integer encoders: order 0 high word first, 1 low word first.
    wire.layout =
        definition.layout.value_or(definition.byteOrder == 1 ? WireLayout::CDAB : WireLayout::ABCD);
    return wire;
}

EntryWire compositeRegisters(EntryDefinition const& definition) {
    EntryWire wire;
    if (definition.function == "kilo-counter32") {
        wire.type = WireType::Uint32;
        wire.layout = WireLayout::ABCD;
    } else {
        wire.type = WireType::Bitfield16;
    }
    return wire;
}

EntryWire scaled(WireType type, double multiplier, double offset = 0.0) {
    EntryWire wire;
    wire.type = type;
    wire.scale = 1.0 / multiplier;
    wire.offset = -offset / multiplier;
    return wire;
}

char const* typeName(WireType type) {
    switch (type) {
        case WireType::Int16:
            return "int16";
        case WireType::Uint16:
            return "uint16";
        case WireType::Bitfield16:
            return "bitfield16";
        case WireType::Int32:
            return "int32";
        case WireType::Uint32:
            return "uint32";
        case WireType::Float32:
            return "float32";
        case WireType::String:
            return "string";
        case WireType::Bits:
            return "bits";
    }
    return "?";
}

/* NaN as the library's float encoder would serve it: through the same
 * libmodbus helper, so it is what that entry serves for NaN. */
std::vector<std::uint16_t> libmodbusNaN(int order) {
    std::uint16_t pair[2] = {0, 0};
    float const nan = floatOfBits(kQuietNaN);
    if (order == 1) {
        modbus_set_float_badc(nan, pair);
    } else {
        modbus_set_float_dcba(nan, pair);
    }
    return {pair[0], pair[1]};
}

std::vector<std::uint16_t> pairOf(std::uint32_t bits, WireLayout layout) {
    WordPair const words = wordsOfBits(bits, layout);
    return {words[0], words[1]};
}

std::vector<std::uint16_t> notImplementedWords(EntryDefinition const& definition) {
    EntryWire const wire = wireOf(definition);
    WireLayout const layout = wire.layout.value_or(WireLayout::ABCD);
    switch (wire.type) {
        case WireType::Int16:
            return {0x8000};
        case WireType::Uint16:
        case WireType::Bitfield16:
            return {0xFFFF};
        case WireType::Int32:
            return pairOf(0x80000000u, layout);
        case WireType::Uint32:
            return pairOf(0xFFFFFFFFu, layout);
        case WireType::Float32:
            return wire.layout ? pairOf(kQuietNaN, layout) : libmodbusNaN(wire.libmodbusOrder);
        case WireType::String:
        case WireType::Bits:
            break;
    }
    return std::vector<std::uint16_t>(definition.size, 0);
}

std::string hex(std::uint16_t word) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", word);
    return text;
}

}  // namespace

EntryWire wireOf(EntryDefinition const& definition) {
    double const m = definition.multiplier;
    switch (definition.encoder) {
        case EncoderKind::Float: {
            // getData() applies the library's multiplier twice.
            EntryWire wire = scaled(WireType::Float32, m * m);
            wire.libmodbusOrder = definition.byteOrder == 1 ? 1 : 0;
            return wire;
        }
        case EncoderKind::Float32: {
            EntryWire wire = scaled(WireType::Float32, m);
            wire.layout = definition.layout.value_or(WireLayout::ABCD);
            return wire;
        }
        case EncoderKind::Int32:
            return thirtyTwoBit(WireType::Int32, definition);
        case EncoderKind::Uint32:
            return thirtyTwoBit(WireType::Uint32, definition);
        case EncoderKind::Float16:
            return scaled(WireType::Uint16, m, definition.offset);
        case EncoderKind::Int16:
            return scaled(WireType::Int16, m);
        case EncoderKind::Uint16:
            return scaled(WireType::Uint16, definition.useBitmask ? 1.0 : m);
        case EncoderKind::NumericString:
            return scaled(WireType::Uint16, 1.0);
        case EncoderKind::String:
            return scaled(WireType::String, 1.0);
        case EncoderKind::CompositeRegisters:
            return compositeRegisters(definition);
        case EncoderKind::Boolean:
        case EncoderKind::CompositeDiscretes:
            return scaled(WireType::Bits, 1.0);
    }
    return {};
}

std::string wireText(EntryDefinition const& definition, FloatLayoutReport const& floatLayout) {
    EntryWire const wire = wireOf(definition);
    std::string text = typeName(wire.type);
    if (wire.type == WireType::String) {
        return text + " " + std::to_string(2u * definition.size) + " chars";
    }
    if (wire.layout) {
        return text + " " + wireLayoutName(*wire.layout);
    }
    if (wire.libmodbusOrder >= 0) {
        text += " libmodbus byte order " + std::to_string(wire.libmodbusOrder);
        for (FloatLayout const& layout : floatLayout.layouts) {
            if (layout.byteOrder == wire.libmodbusOrder) {
                text += ": reads " + layout.readLayout + ", writes " + layout.writeLayout;
            }
        }
    }
    return text;
}

std::string accessText(EntryDefinition const& definition, bool daemonReadOnly) {
    bool writable = isWritableTable(definition.table) && !daemonReadOnly;
    if (CompositeFunction const* function = findCompositeFunction(definition.function)) {
        writable = writable && function->writable;
    }
    if (definition.allowWrite && definition.allowWrite->empty()) {
        writable = false;  // nobody may write it
    }
    return writable ? "RW" : "R";
}

std::vector<std::uint16_t> unavailableWords(EntryDefinition const& definition) {
    UnavailablePolicy const& policy = definition.unavailable;
    if (policy.mode == UnavailablePolicy::Mode::Exception) {
        return {};
    }
    if (!isRegisterTable(definition.table)) {
        // A discrete has no room for a marker: it reads as 0.
        return std::vector<std::uint16_t>(definition.size, 0);
    }
    if (policy.mode == UnavailablePolicy::Mode::Sentinel) {
        return std::vector<std::uint16_t>(definition.size, policy.word);
    }
    std::vector<std::uint16_t> words = notImplementedWords(definition);
    words.resize(definition.size, 0);
    return words;
}

std::string unavailableText(EntryDefinition const& definition) {
    UnavailablePolicy const& policy = definition.unavailable;
    if (policy.mode == UnavailablePolicy::Mode::Exception) {
        char text[24];
        std::snprintf(text, sizeof text, "exception 0x%02X", policy.code);
        return text;
    }
    std::vector<std::uint16_t> const words = unavailableWords(definition);
    if (!isRegisterTable(definition.table)) {
        return "0";
    }
    if (words.size() > 2) {
        bool same = true;
        for (std::uint16_t const word : words) {
            same = same && word == words[0];
        }
        if (same) {
            return hex(words[0]) + " in all " + std::to_string(words.size()) + " registers";
        }
    }
    std::string text;
    for (std::uint16_t const word : words) {
        text += (text.empty() ? "" : " ") + hex(word);
    }
    if (policy.mode == UnavailablePolicy::Mode::NotImplemented &&
        wireOf(definition).type == WireType::Float32) {
        text += " (NaN)";
    }
    return text;
}

std::string plainNumber(double value) {
    char text[32];
    // -0 (an offset of 0 negated) reads as 0.
    std::snprintf(text, sizeof text, "%.9g", value == 0.0 ? 0.0 : value);
    return text;
}

}  // namespace tarsel::daemon
