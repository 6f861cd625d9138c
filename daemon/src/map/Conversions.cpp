#include "Conversions.h"

#include <cstdio>
#include <limits>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

// Composites see invalid values for sources that have not pushed yet, and a
// store text may not be a number: both count as 0 / false, because these
// functions also run inside data-store notifications where nobody could
// handle an exception.
bool bitOf(kq::CValue const& value) {
    try {
        return value.as_bool();
    } catch (std::exception const&) {
        return false;
    }
}

std::uint64_t countOf(kq::CValue const& value) {
    try {
        return value.as_uint32();
    } catch (std::exception const&) {
        return 0;
    }
}

std::vector<uint16_t> statusWord(std::vector<kq::CValue> const& values) {
    std::uint16_t word = 0;
    for (std::size_t i = 0; i < values.size() && i < 16; ++i) {
        if (bitOf(values[i])) {
            word = static_cast<std::uint16_t>(word | (1u << i));
        }
    }
    return {word};
}

std::vector<kq::CValue> statusWordToData(std::vector<uint16_t> const& regs, std::size_t sources) {
    std::uint16_t const word = regs.empty() ? 0 : regs[0];
    std::vector<kq::CValue> values;
    for (std::size_t i = 0; i < sources; ++i) {
        values.emplace_back(((word >> i) & 1u) != 0);
    }
    return values;
}

std::string statusWordText(std::vector<kq::CValue> const& values) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", statusWord(values)[0]);
    return text;
}

std::uint32_t kiloCounter(std::vector<kq::CValue> const& values) {
    std::uint64_t const kilo = values.empty() ? 0 : countOf(values[0]);
    std::uint64_t const units = values.size() < 2 ? 0 : countOf(values[1]);
    std::uint64_t const total = kilo * 1000 + units;
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(total > kMax ? kMax : total);
}

std::vector<uint16_t> kiloCounterRegisters(std::vector<kq::CValue> const& values) {
    std::uint32_t const total = kiloCounter(values);
    return {static_cast<std::uint16_t>(total >> 16), static_cast<std::uint16_t>(total & 0xFFFF)};
}

std::vector<kq::CValue> kiloCounterToData(std::vector<uint16_t> const& regs) {
    std::uint32_t const high = regs.empty() ? 0 : regs[0];
    std::uint32_t const low = regs.size() < 2 ? 0 : regs[1];
    std::uint32_t const total = (high << 16) | low;
    return {kq::CValue(total / 1000), kq::CValue(total % 1000)};
}

std::vector<bool> statusBits(std::vector<kq::CValue> const& values) {
    std::vector<bool> bits;
    for (auto const& value : values) {
        bits.push_back(bitOf(value));
    }
    return bits;
}

std::vector<kq::CValue> bitsToData(std::vector<bool> const& bits) {
    std::vector<kq::CValue> values;
    for (bool const bit : bits) {
        values.emplace_back(bit);
    }
    return values;
}

std::vector<bool> anyTrue(std::vector<kq::CValue> const& values) {
    for (auto const& value : values) {
        if (bitOf(value)) {
            return {true};
        }
    }
    return {false};
}

}  // namespace

std::vector<CompositeFunction> const& compositeFunctions() {
    static std::vector<CompositeFunction> const functions = {
        {"status-word", true, 1, 16, true, 1,
         "bit i of one register is source i taken as a boolean; writing the register writes "
         "every source"},
        {"kilo-counter32", true, 2, 2, true, 2,
         "a 32-bit counter, high word first, of source 0 x 1000 + source 1 (e.g. kWh and Wh); "
         "a write splits the value back"},
        {"status-bits", false, 1, 2000, true, 0,
         "discrete i is source i taken as a boolean; writable as coils"},
        {"any-true", false, 1, 2000, false, 1,
         "one discrete, set while any source is true; read-only"},
    };
    return functions;
}

CompositeFunction const* findCompositeFunction(std::string const& name) {
    for (auto const& function : compositeFunctions()) {
        if (name == function.name) {
            return &function;
        }
    }
    return nullptr;
}

RegisterConversions makeRegisterConversions(std::string const& name, std::size_t sourceCount) {
    if (name == "status-word") {
        return {statusWord,
                [sourceCount](std::vector<uint16_t> const& regs) {
                    return statusWordToData(regs, sourceCount);
                },
                statusWordText};
    }
    if (name == "kilo-counter32") {
        return {kiloCounterRegisters, kiloCounterToData,
                [](std::vector<kq::CValue> const& v) { return std::to_string(kiloCounter(v)); }};
    }
    throw std::invalid_argument("no register conversion named \"" + name + "\"");
}

DiscreteConversions makeDiscreteConversions(std::string const& name, std::size_t /*sourceCount*/) {
    if (name == "status-bits") {
        return {statusBits, bitsToData};
    }
    if (name == "any-true") {
        // Read-only: an empty write function makes the library drop writes.
        return {anyTrue, {}};
    }
    throw std::invalid_argument("no discrete conversion named \"" + name + "\"");
}

}  // namespace tarsel::daemon
