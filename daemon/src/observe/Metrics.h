// The daemon's counters for /metrics. The request path only increments
// integers in fixed arrays (no allocation, no lock: the loop is the only
// thread that answers requests and the only one that reads them).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tarsel::daemon {

/* What became of a write request, as counted. */
enum class WriteOutcome : std::uint8_t {
    Written,   // every entry took its part
    Refused,   // Illegal Function: access rules, a read-only role, writes refused
    Failed,    // Server Device Failure: an encoder or the store failed
    Rejected,  // any other exception: bad range, bad value, unavailable, gate closed
};
constexpr std::size_t kWriteOutcomes = 4;
char const* writeOutcomeName(WriteOutcome outcome);

enum class ReloadOutcome : std::uint8_t { Applied, Refused };
constexpr std::size_t kReloadOutcomes = 2;
char const* reloadOutcomeName(ReloadOutcome outcome);

/* True for the function codes that write (5, 6, 15, 16). */
bool isWriteFunction(std::uint8_t function);

class Metrics {
  public:
    // Exception codes the daemon answers are 1 to 0x0B; anything from 16 up
    // is counted under slot 0, shown as code "other".
    static constexpr std::size_t kExceptionSlots = 16;

    /* One answered request: its function code and its exception (0: none). */
    void countRequest(std::uint8_t function, std::uint8_t exception) noexcept {
        ++m_requests[function];
        if (exception != 0) {
            ++m_exceptions[function][exception < kExceptionSlots ? exception : 0];
        }
        if (isWriteFunction(function)) {
            ++m_writes[static_cast<std::size_t>(outcomeOf(exception))];
        }
    }
    void countReload(ReloadOutcome outcome) noexcept {
        ++m_reloads[static_cast<std::size_t>(outcome)];
    }
    /* Pushes of maps that a reload replaced: the counter goes on from them. */
    void addRetiredPushes(std::uint64_t pushes) noexcept { m_retiredPushes += pushes; }

    std::uint64_t requests(std::uint8_t function) const { return m_requests[function]; }
    std::uint64_t exceptions(std::uint8_t function, std::size_t slot) const {
        return m_exceptions[function][slot];
    }
    std::uint64_t writes(WriteOutcome outcome) const {
        return m_writes[static_cast<std::size_t>(outcome)];
    }
    std::uint64_t reloads(ReloadOutcome outcome) const {
        return m_reloads[static_cast<std::size_t>(outcome)];
    }
    std::uint64_t retiredPushes() const { return m_retiredPushes; }

  private:
    static WriteOutcome outcomeOf(std::uint8_t exception) noexcept {
        switch (exception) {
            case 0:
                return WriteOutcome::Written;
            case 0x01:
                return WriteOutcome::Refused;
            case 0x04:
                return WriteOutcome::Failed;
            default:
                return WriteOutcome::Rejected;
        }
    }

    std::array<std::uint64_t, 256> m_requests{};
    std::array<std::array<std::uint64_t, kExceptionSlots>, 256> m_exceptions{};
    std::array<std::uint64_t, kWriteOutcomes> m_writes{};
    std::array<std::uint64_t, kReloadOutcomes> m_reloads{};
    std::uint64_t m_retiredPushes = 0;
};

}  // namespace tarsel::daemon
