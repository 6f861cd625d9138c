// Which float layout the linked libmodbus really produces: the float encoder
// lays its registers out with libmodbus's helpers, and their layout has
// changed between libmodbus releases.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tarsel::daemon {

/* The probe of one byte order (0: the "dcba" helpers, 1: the "badc" ones). */
struct FloatLayout {
    int byteOrder = 0;
    std::array<std::uint16_t, 2> pair{};  // what the setter makes of the probe value
    float decoded = 0.0f;                 // what the getter makes of that pair
    // The pair's bytes as a permutation of the value's big-endian bytes
    // ABCD, e.g. "CDAB"; "?" when it is none of the four usual layouts.
    std::string readLayout;
    // The layout a client must write so that the getter decodes the value.
    std::string writeLayout;
    bool roundTrips() const { return decoded == kProbeValue; }

    static constexpr float kProbeValue = 12.5f;
};

struct FloatLayoutReport {
    std::string libmodbusVersion;
    std::vector<FloatLayout> layouts;  // byte orders 0 and 1
};

FloatLayoutReport probeFloatLayout();

/* "order 0 (dcba): 12.5 -> [0x0000 0x4148] -> 197632 ..." */
std::string describeLayout(FloatLayout const& layout);

}  // namespace tarsel::daemon
