#include "ClientConnection.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace tarsel::daemon {

namespace {

constexpr std::size_t kHeaderLength = 7;
constexpr std::size_t kMaxFrame = 260;  // MBAP header plus the largest PDU
// Received bytes waiting to be answered before the socket is left alone: a
// few hundred pipelined requests at most, answered a few at a time.
constexpr std::size_t kInputLimit = 4096;
// The answer to a write: header, function, address, quantity.
constexpr std::size_t kDeferredAnswerBytes = 12;

std::uint16_t word(std::uint8_t const* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

}  // namespace

PeerAddress PeerAddress::from(sockaddr_in const& address) {
    PeerAddress peer;
    peer.ipv4 = ntohl(address.sin_addr.s_addr);
    peer.port = ntohs(address.sin_port);
    char text[INET_ADDRSTRLEN] = "?";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    peer.text = std::string(text) + ":" + std::to_string(peer.port);
    return peer;
}

ClientConnection::ClientConnection(int fd, PeerAddress peer, SteadyClock::time_point now,
                                   std::size_t outputLimit, std::unique_ptr<TlsSession> tls)
    : m_fd(fd),
      m_tls(std::move(tls)),
      m_peer(std::move(peer)),
      m_outputLimit(outputLimit),
      m_lastRequest(now),
      m_lastHeard(now) {
    if (m_tls) {
        m_partialSince = now;
    }
}

ClientConnection::~ClientConnection() {
    m_tls.reset();
    ::close(m_fd);
}

void ClientConnection::handshakeDone(SteadyClock::time_point now) {
    m_lastRequest = now;
    if (m_input.empty()) {
        m_partialSince.reset();
    }
}

/* recv() and send() semantics for both: bytes, or -1 with errno EAGAIN when
 * it would block, or 0 / -1 when closed or failed. */
long ClientConnection::rawRead(std::uint8_t* buffer, std::size_t size) {
    if (!m_tls) {
        return ::recv(m_fd, buffer, size, MSG_DONTWAIT);
    }
    long const result = m_tls->read(buffer, size);
    if (result == 0) {
        errno = EAGAIN;
        return -1;
    }
    return result < 0 ? 0 : result;
}

long ClientConnection::rawWrite(std::uint8_t const* buffer, std::size_t size) {
    if (!m_tls) {
        return ::send(m_fd, buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    long const result = m_tls->write(buffer, size);
    if (result == 0) {
        errno = EAGAIN;
        return -1;
    }
    if (result < 0) {
        errno = EPIPE;
    }
    return result;
}

ClientConnection::ReadStatus ClientConnection::receive(SteadyClock::time_point now) {
    std::uint8_t chunk[4096];
    m_unreadInput = false;
    while (m_input.size() < kInputLimit) {
        long const received = rawRead(chunk, sizeof chunk);
        if (received == 0) {
            // A TLS session does not tell a close from a failure: only a
            // plain socket's end of stream is waited on for its answers.
            m_inputEnded = m_tls == nullptr;
            return ReadStatus::Closed;
        }
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK ? ReadStatus::Open : ReadStatus::Closed;
        }
        if (m_input.empty()) {
            m_partialSince = now;
        }
        m_input.insert(m_input.end(), chunk, chunk + received);
        m_bytesReceived += static_cast<std::uint64_t>(received);
        m_lastHeard = now;
        // A plain socket that gave less than asked has nothing left: asking
        // again would only hear EAGAIN, one system call more per request.
        // poll() says when more comes, or when the client has hung up.
        if (!m_tls && static_cast<std::size_t>(received) < sizeof chunk) {
            return ReadStatus::Open;
        }
    }
    // Stopped with enough to answer first. A TLS session may hold more,
    // decrypted already: the socket no longer shows it as readable, so
    // whoever serves the client must come back for it (hasUnreadInput()).
    m_unreadInput = m_tls != nullptr;
    return ReadStatus::Open;
}

bool ClientConnection::wantsRead() const {
    // After the end of stream the socket would show as readable on every
    // pass while the client waits for an answer still to come.
    return !m_inputEnded && m_input.size() < kInputLimit;
}

ClientConnection::FrameStatus ClientConnection::frontStatus() const {
    if (m_input.size() < kHeaderLength) {
        return FrameStatus::Incomplete;
    }
    std::uint16_t const protocol = word(&m_input[2]);
    std::uint16_t const length = word(&m_input[4]);  // unit id and PDU
    if (protocol != 0 || length < 2 || length + 6u > kMaxFrame) {
        // Without a sane length the stream cannot be resynchronised.
        return FrameStatus::Malformed;
    }
    return m_input.size() < 6u + length ? FrameStatus::Incomplete : FrameStatus::Complete;
}

ClientConnection::FrameStatus ClientConnection::takeFrame(std::vector<std::uint8_t>& frame) {
    FrameStatus const status = frontStatus();
    if (status != FrameStatus::Complete) {
        return status;
    }
    std::size_t const size = 6u + word(&m_input[4]);
    auto const end = m_input.begin() + static_cast<std::ptrdiff_t>(size);
    frame.assign(m_input.begin(), end);
    m_input.erase(m_input.begin(), end);
    m_lastRequest = m_lastHeard;
    if (m_input.empty()) {
        m_partialSince.reset();
    } else {
        // The rest arrived with this frame: the next one is timed from now on.
        m_partialSince = m_lastHeard;
    }
    return FrameStatus::Complete;
}

ClientConnection::QueueStatus ClientConnection::queue(std::vector<std::uint8_t> const& answer) {
    if (m_outputBytes + answer.size() > m_outputLimit) {
        return QueueStatus::Full;
    }
    std::size_t sent = 0;
    if (m_output.empty()) {
        // Nothing waits before it: it is sent from the caller's buffer, and
        // only what the socket does not take now is copied into the queue.
        while (sent < answer.size()) {
            long const result = rawWrite(answer.data() + sent, answer.size() - sent);
            if (result < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    break;
                }
                return QueueStatus::Failed;
            }
            sent += static_cast<std::size_t>(result);
            m_bytesSent += static_cast<std::uint64_t>(result);
        }
        if (sent < answer.size()) {
            // The socket would block: the rest waits for the next flush().
            m_output.push_back(
                {std::vector<std::uint8_t>(answer.begin() + static_cast<std::ptrdiff_t>(sent),
                                           answer.end()),
                 std::nullopt});
            m_outputBytes += answer.size() - sent;
        }
        return QueueStatus::Queued;
    }
    m_output.push_back({answer, std::nullopt});
    m_outputBytes += answer.size();
    return flush() ? QueueStatus::Queued : QueueStatus::Failed;
}

ClientConnection::QueueStatus ClientConnection::queueDeferred(std::uint64_t token) {
    // The place counts as the largest answer a write can get, so a client
    // cannot reserve places without bound.
    if (m_outputBytes + kDeferredAnswerBytes > m_outputLimit) {
        return QueueStatus::Full;
    }
    m_output.push_back({{}, token});
    m_outputBytes += kDeferredAnswerBytes;
    return QueueStatus::Queued;
}

ClientConnection::QueueStatus ClientConnection::fill(std::uint64_t token,
                                                     std::vector<std::uint8_t> const& answer) {
    for (Slot& slot : m_output) {
        if (slot.deferred == token) {
            slot.deferred.reset();
            slot.bytes = answer;
            m_outputBytes = m_outputBytes - kDeferredAnswerBytes + answer.size();
            break;
        }
    }
    return flush() ? QueueStatus::Queued : QueueStatus::Failed;
}

std::vector<std::uint64_t> ClientConnection::deferredTokens() const {
    std::vector<std::uint64_t> tokens;
    for (Slot const& slot : m_output) {
        if (slot.deferred) {
            tokens.push_back(*slot.deferred);
        }
    }
    return tokens;
}

bool ClientConnection::flush() {
    while (!m_output.empty() && !m_output.front().deferred) {
        auto const& front = m_output.front().bytes;
        long const sent = rawWrite(front.data() + m_sentOfFront, front.size() - m_sentOfFront);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        m_sentOfFront += static_cast<std::size_t>(sent);
        m_outputBytes -= static_cast<std::size_t>(sent);
        m_bytesSent += static_cast<std::uint64_t>(sent);
        if (m_sentOfFront == front.size()) {
            m_output.pop_front();
            m_sentOfFront = 0;
        }
    }
    return true;
}

}  // namespace tarsel::daemon
