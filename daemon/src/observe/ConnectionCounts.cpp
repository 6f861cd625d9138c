#include "ConnectionCounts.h"

namespace tarsel::daemon {

char const* listenerKindName(ListenerKind kind) {
    return kind == ListenerKind::Tls ? "tls" : "plain";
}

char const* refusedReasonName(RefusedReason reason) {
    switch (reason) {
        case RefusedReason::ClientLimit:
            return "client_limit";
        case RefusedReason::Access:
            return "access_rules";
        case RefusedReason::TlsSetup:
            return "tls_setup";
    }
    return "?";
}

char const* closedReasonName(ClosedReason reason) {
    switch (reason) {
        case ClosedReason::PeerClosed:
            return "peer_closed";
        case ClosedReason::SendFailed:
            return "send_failed";
        case ClosedReason::IdleTimeout:
            return "idle_timeout";
        case ClosedReason::FrameTimeout:
            return "frame_timeout";
        case ClosedReason::MalformedFrame:
            return "malformed_frame";
        case ClosedReason::NoAnswer:
            return "no_answer_function";
        case ClosedReason::NotReading:
            return "not_reading";
        case ClosedReason::MadeRoom:
            return "made_room";
        case ClosedReason::TlsHandshake:
            return "tls_handshake";
        case ClosedReason::TlsRole:
            return "tls_role";
    }
    return "?";
}

namespace {

template <std::size_t N>
void addEach(std::array<std::uint64_t, N>& into, std::array<std::uint64_t, N> const& from) {
    for (std::size_t i = 0; i < N; ++i) {
        into[i] += from[i];
    }
}

}  // namespace

ConnectionCounts& ConnectionCounts::operator+=(ConnectionCounts const& other) noexcept {
    addEach(m_accepted, other.m_accepted);
    addEach(m_refused, other.m_refused);
    addEach(m_closed, other.m_closed);
    m_received += other.m_received;
    m_sent += other.m_sent;
    return *this;
}

}  // namespace tarsel::daemon
