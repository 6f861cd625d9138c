#include "FloatProbe.h"

#include <cstring>
#include <sstream>

#include <modbus.h>

namespace tarsel::daemon {

namespace {

using Pair = std::array<std::uint16_t, 2>;

// The four usual layouts of a 32-bit value over two registers, as the order
// in which the value's big-endian bytes A B C D appear on the wire.
char const* const kLayouts[] = {"ABCD", "CDAB", "BADC", "DCBA"};

Pair arrange(float value, char const* layout) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    std::uint8_t wire[4];
    for (int i = 0; i < 4; ++i) {
        int const byte = layout[i] - 'A';  // 0 is the most significant byte
        wire[i] = static_cast<std::uint8_t>(bits >> (24 - 8 * byte));
    }
    return {static_cast<std::uint16_t>((wire[0] << 8) | wire[1]),
            static_cast<std::uint16_t>((wire[2] << 8) | wire[3])};
}

std::string layoutOf(Pair const& pair, float value) {
    for (char const* layout : kLayouts) {
        if (arrange(value, layout) == pair) {
            return layout;
        }
    }
    return "?";
}

template <typename Getter>
std::string writeLayoutFor(Getter get, float value) {
    for (char const* layout : kLayouts) {
        Pair pair = arrange(value, layout);
        if (get(pair.data()) == value) {
            return layout;
        }
    }
    return "?";
}

template <typename Setter, typename Getter>
FloatLayout probe(int order, Setter set, Getter get) {
    FloatLayout layout;
    layout.byteOrder = order;
    set(FloatLayout::kProbeValue, layout.pair.data());
    layout.decoded = get(layout.pair.data());
    layout.readLayout = layoutOf(layout.pair, FloatLayout::kProbeValue);
    layout.writeLayout = writeLayoutFor(get, FloatLayout::kProbeValue);
    return layout;
}

}  // namespace

FloatLayoutReport probeFloatLayout() {
    FloatLayoutReport report;
    report.libmodbusVersion = std::to_string(libmodbus_version_major) + "." +
                              std::to_string(libmodbus_version_minor) + "." +
                              std::to_string(libmodbus_version_micro);
    report.layouts.push_back(probe(0, modbus_set_float_dcba, modbus_get_float_dcba));
    report.layouts.push_back(probe(1, modbus_set_float_badc, modbus_get_float_badc));
    return report;
}

std::string describeLayout(FloatLayout const& layout) {
    char pair[32];
    std::snprintf(pair, sizeof pair, "[0x%04X 0x%04X]", layout.pair[0], layout.pair[1]);
    std::ostringstream out;
    out << "byte order " << layout.byteOrder << " (" << (layout.byteOrder == 0 ? "dcba" : "badc")
        << " helpers): " << FloatLayout::kProbeValue << " is served as " << pair << " (layout "
        << layout.readLayout << "), which the getter decodes as " << layout.decoded
        << "; writes must use layout " << layout.writeLayout;
    return out.str();
}

}  // namespace tarsel::daemon
