// Arithmetic of the scaled one-register encoders. Pure conversion code: it
// touches no data store, so every rule can be checked against literal
// registers. The arithmetic type, the rounding and the order of operations of
// each function decide which register a Modbus client sees; do not "simplify"
// them (for instance into double precision or a fused multiply-add).
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

#include "registers/encoder_support.h"

namespace modbus::detail {

/* value * multiplier + offset in single precision. The product is rounded to
 * float before the offset is added; the two statements keep the compiler from
 * fusing them into one multiply-add, which would round only once. */
inline float scaleAndOffset(float value, float multiplier, float offset) {
    float const product = value * multiplier;
    return product + offset;
}

/* roundf() of a magnitude (zero or more, infinity or NaN), without the call
 * into the maths library: below 2^23 the integral part is exact as an int32
 * and the fraction left over is exact too, so comparing it with one half
 * rounds half away from zero exactly as roundf(); from 2^23 on every float is
 * integral already (an infinity and a NaN are returned as they are, as
 * roundf() returns them). */
inline float roundMagnitude(float magnitude) {
    if (!(magnitude < 8388608.0f)) {  // 2^23
        return magnitude;
    }
    float const whole = static_cast<float>(static_cast<std::int32_t>(magnitude));
    return magnitude - whole >= 0.5f ? whole + 1.0f : whole;
}

/* The register of a scaled float: its magnitude rounded half away from zero
 * (roundf), saturated to 32 bits unsigned, low 16 bits kept. Sending the
 * magnitude of a negative result is intended (-3.6 is sent as 4). */
inline std::uint16_t roundedMagnitudeRegister(float scaled) {
    float const rounded = roundMagnitude(std::fabs(scaled));
    return low16(saturatingTruncate<std::uint32_t>(rounded));
}

/* The display text of a scaled float: truncated toward zero and saturated to
 * 32 bits unsigned (no magnitude, no rounding), low 16 bits, in decimal. It
 * differs from roundedMagnitudeRegister() on purpose: 12.7 shows 12 but is
 * sent as 13, -3.6 shows 0 but is sent as 4. */
inline std::string truncatedText(float scaled) {
    return std::to_string(static_cast<int>(low16(saturatingTruncate<std::uint32_t>(scaled))));
}

/* A written register back to a float: (register - offset) * (1 / multiplier),
 * in single precision, with the reciprocal computed first. A zero multiplier
 * is not rejected and gives an infinity or NaN. */
inline float unscaleRegisterToFloat(std::uint16_t reg, float multiplier, float offset) {
    float const reciprocal = 1.0f / multiplier;
    float const shifted = static_cast<float>(reg) - offset;
    return shifted * reciprocal;
}

/* value * multiplier in double precision, saturated and truncated to int32. */
inline std::int32_t scaleInt32(std::int32_t value, float multiplier) {
    return saturatingTruncate<std::int32_t>(static_cast<double>(value) *
                                            static_cast<double>(multiplier));
}

/* A written register back to an int32. With the multiplier exactly 1 the
 * register is taken as an unsigned number: 0xFFFF stores 65535, not -1. This
 * is intended and differs from the read side, which wraps -1 to 0xFFFF.
 * Otherwise register * (1 / multiplier), the reciprocal in single precision
 * and widened, the product in double, saturated and truncated. */
inline std::int32_t unscaleRegisterToInt32(std::uint16_t reg, float multiplier) {
    if (multiplier == 1.0f) {
        return static_cast<std::int32_t>(reg);
    }
    float const reciprocal = 1.0f / multiplier;
    return saturatingTruncate<std::int32_t>(static_cast<double>(reg) *
                                            static_cast<double>(reciprocal));
}

/* The register of a uint32 scaled by the multiplier: low 16 bits of the
 * value itself when the multiplier is exactly 1, else of the double-precision
 * product saturated and truncated to uint32. */
inline std::uint16_t scaleUint32Register(std::uint32_t value, float multiplier) {
    if (multiplier == 1.0f) {
        return low16(value);
    }
    return low16(saturatingTruncate<std::uint32_t>(static_cast<double>(value) *
                                                   static_cast<double>(multiplier)));
}

/* A written register back to a uint32: the register itself when the
 * multiplier is exactly 1, else register * (1 / multiplier) with the
 * reciprocal in single precision, the product in double, saturated and
 * truncated. */
inline std::uint32_t unscaleRegisterToUint32(std::uint16_t reg, float multiplier) {
    if (multiplier == 1.0f) {
        return reg;
    }
    float const reciprocal = 1.0f / multiplier;
    return saturatingTruncate<std::uint32_t>(static_cast<double>(reg) *
                                             static_cast<double>(reciprocal));
}

}  // namespace modbus::detail
