// What became of the Modbus connections of one listener: how many were
// accepted, refused and closed, and why, and the Modbus bytes they carried.
// Plain integers in fixed arrays, counted on the loop's thread by the server
// that owns them (no allocation, no lock), summed over the listeners when
// /metrics is asked for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tarsel::daemon {

enum class ListenerKind : std::uint8_t { Plain, Tls };
constexpr std::size_t kListenerKinds = 2;
char const* listenerKindName(ListenerKind kind);

/* Why a connection was closed as soon as it was accepted. */
enum class RefusedReason : std::uint8_t {
    ClientLimit,  // --max-clients reached and no client quiet enough to make room
    Access,       // the access rules let the address neither read nor write
    TlsSetup,     // no TLS session could be started for it
};
constexpr std::size_t kRefusedReasons = 3;
char const* refusedReasonName(RefusedReason reason);

/* Why a connection that was served ended. */
enum class ClosedReason : std::uint8_t {
    PeerClosed,      // the client ended the stream (and had its answers) or reset it
    SendFailed,      // the socket failed while answers were sent
    IdleTimeout,     // no request for --idle-timeout
    FrameTimeout,    // a frame (or a TLS handshake) unfinished for --frame-timeout
    MalformedFrame,  // a header that cannot start a frame: protocol, length
    NoAnswer,        // a function code that has no Modbus answer
    NotReading,      // the client let its answers pile up past the output limit
    MadeRoom,        // the quietest client, closed for a new one at --max-clients
    TlsHandshake,    // the TLS handshake failed
    TlsRole,         // the certificate's role has no access configured
};
constexpr std::size_t kClosedReasons = 10;
char const* closedReasonName(ClosedReason reason);

class ConnectionCounts {
  public:
    void countAccepted(ListenerKind kind) noexcept { ++m_accepted[index(kind)]; }
    void countRefused(RefusedReason reason) noexcept { ++m_refused[index(reason)]; }
    void countClosed(ClosedReason reason) noexcept { ++m_closed[index(reason)]; }
    void addReceived(std::uint64_t bytes) noexcept { m_received += bytes; }
    void addSent(std::uint64_t bytes) noexcept { m_sent += bytes; }

    std::uint64_t accepted(ListenerKind kind) const { return m_accepted[index(kind)]; }
    std::uint64_t refused(RefusedReason reason) const { return m_refused[index(reason)]; }
    std::uint64_t closed(ClosedReason reason) const { return m_closed[index(reason)]; }
    std::uint64_t received() const { return m_received; }
    std::uint64_t sent() const { return m_sent; }

    /* Adds another listener's counts: the page shows the daemon's. */
    ConnectionCounts& operator+=(ConnectionCounts const& other) noexcept;

  private:
    template <typename Enum>
    static constexpr std::size_t index(Enum value) noexcept {
        return static_cast<std::size_t>(value);
    }

    std::array<std::uint64_t, kListenerKinds> m_accepted{};
    std::array<std::uint64_t, kRefusedReasons> m_refused{};
    std::array<std::uint64_t, kClosedReasons> m_closed{};
    std::uint64_t m_received = 0;
    std::uint64_t m_sent = 0;
};

}  // namespace tarsel::daemon
