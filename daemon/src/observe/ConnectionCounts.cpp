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

ConnectionCounts& ConnectionCounts::operator+=(ConnectionCounts const& other) noexcept {
    for (std::size_t i = 0; i < kListenerKinds; ++i) {
        m_accepted[i] += other.m_accepted[i];
    }
    for (std::size_t i = 0; i < kRefusedReasons; ++i) {
        m_refused[i] += other.m_refused[i];
    }
    for (std::size_t i = 0; i < kClosedReasons; ++i) {
        m_closed[i] += other.m_closed[i];
    }
    m_received += other.m_received;
    m_sent += other.m_sent;
    return *this;
}

}  // namespace tarsel::daemon
