// Duration types of the card platform's conversion library.
#pragma once

#include <cstdint>

namespace conv {

/* A non-negative duration in whole seconds. Subtraction stops at zero. */
class SecondsDuration {
  public:
    constexpr SecondsDuration() = default;
    constexpr explicit SecondsDuration(std::uint32_t seconds) : m_seconds(seconds) {}

    constexpr std::uint32_t count() const { return m_seconds; }

    constexpr SecondsDuration& operator-=(SecondsDuration other) {
        m_seconds = other.m_seconds > m_seconds ? 0 : m_seconds - other.m_seconds;
        return *this;
    }

    friend constexpr bool operator==(SecondsDuration a, SecondsDuration b) {
        return a.m_seconds == b.m_seconds;
    }
    friend constexpr bool operator!=(SecondsDuration a, SecondsDuration b) { return !(a == b); }

  private:
    std::uint32_t m_seconds = 0;
};

}  // namespace conv
