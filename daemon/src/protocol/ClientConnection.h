// One Modbus TCP client: its non-blocking socket, the bytes of the frame it
// is sending, the answers not sent yet and when it was last heard from.
// Nothing here ever blocks: a client that does not read its answers fills a
// bounded queue and is then given up, so it cannot hold up anyone else.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <netinet/in.h>

#include "TlsContext.h"

namespace tarsel::daemon {

using SteadyClock = std::chrono::steady_clock;

/* A client's address: as a number for the access rules, as text for logs. */
struct PeerAddress {
    std::uint32_t ipv4 = 0;  // host byte order
    std::uint16_t port = 0;
    std::string text;  // "127.0.0.1:40212"

    static PeerAddress from(sockaddr_in const& address);
};

class ClientConnection {
  public:
    /* Takes ownership of a connected non-blocking socket, and of its TLS
     * session if it has one; until its handshake is done the client counts
     * as half-way through a frame, so the frame timeout covers it too. */
    ClientConnection(int fd, PeerAddress peer, SteadyClock::time_point now, std::size_t outputLimit,
                     std::unique_ptr<TlsSession> tls = nullptr);
    ~ClientConnection();

    ClientConnection(ClientConnection const&) = delete;
    ClientConnection& operator=(ClientConnection const&) = delete;

    int fd() const { return m_fd; }
    PeerAddress const& peer() const { return m_peer; }

    /* Closed: the stream has ended (see inputEnded()) or the socket failed. */
    enum class ReadStatus { Open, Closed };
    enum class FrameStatus { Complete, Incomplete, Malformed };
    /* Reads what the socket holds while fewer than a few kilobytes wait to
     * be answered, so that a client that pipelines requests cannot make the
     * loop spend its time on it alone. Closed: end of stream or error. */
    ReadStatus receive(SteadyClock::time_point now);
    /* False while enough received bytes wait, or once the stream has
     * ended: the socket is left alone. */
    bool wantsRead() const;
    /* True once a plain client has ended its side of the connection (an
     * end of stream, not a failure): it may still read the answers it is
     * owed. */
    bool inputEnded() const { return m_inputEnded; }
    /* True when the last receive() stopped at its limit on a TLS session,
     * which may still hold bytes poll() cannot show, and there is room for
     * them again: receive() must be called without waiting for the socket. */
    bool hasUnreadInput() const { return m_unreadInput && wantsRead(); }
    /* True when takeFrame() has something to say: a whole frame, or a
     * header that cannot start one. */
    bool hasCompleteFrame() const { return frontStatus() != FrameStatus::Incomplete; }

    /* Cuts the next whole frame out of the received bytes into `frame`. */
    FrameStatus takeFrame(std::vector<std::uint8_t>& frame);

    enum class QueueStatus { Queued, Full, Failed };
    /* Queues an answer and sends what the socket takes now. Full: the queue
     * would exceed its limit (the client does not read its answers); Failed:
     * the socket failed. Either way the client is to be dropped. */
    QueueStatus queue(std::vector<std::uint8_t> const& answer);
    /* Reserves the place of an answer that comes later (see
     * DeferredReplies): answers queued after it wait behind it, so the
     * client gets its answers in the order of its requests. */
    QueueStatus queueDeferred(std::uint64_t token);
    /* Puts the answer in the place reserved for `token` and sends what the
     * socket takes now; Failed when the socket failed. */
    QueueStatus fill(std::uint64_t token, std::vector<std::uint8_t> const& answer);
    /* The tokens of the places still reserved, oldest first. */
    std::vector<std::uint64_t> deferredTokens() const;
    /* Sends queued answers until the socket would block or an answer still
     * to come is next; false on failure. */
    bool flush();
    bool hasPendingOutput() const { return m_outputBytes > 0; }
    /* True while answers are owed to the client: queued bytes not sent yet,
     * or places reserved for answers still to come. */
    bool hasQueuedAnswers() const { return !m_output.empty(); }
    /* True when the socket must be polled for writing. */
    bool wantsWrite() const { return sendable() || (m_tls && m_tls->wantsWrite()); }

    /* The TLS session; nothing on a plain connection. */
    TlsSession* tls() const { return m_tls.get(); }
    /* After the handshake: the frames of the client are timed from now on. */
    void handshakeDone(SteadyClock::time_point now);
    /* What the client's certificate role allows; true on plain connections. */
    bool roleMayWrite() const { return m_roleMayWrite; }
    void setRoleMayWrite(bool mayWrite) { m_roleMayWrite = mayWrite; }
    /* The certificate's fields for request lines; empty on plain connections. */
    std::string const& certificate() const { return m_certificate; }
    void setCertificate(std::string fields) { m_certificate = std::move(fields); }
    std::size_t pendingOutput() const { return m_outputBytes; }

    /* When a complete request last arrived (or the connection, before any). */
    SteadyClock::time_point lastRequest() const { return m_lastRequest; }
    /* When the first byte of the frame still incomplete arrived, if any. */
    std::optional<SteadyClock::time_point> partialSince() const { return m_partialSince; }
    /* When any byte last arrived. */
    SteadyClock::time_point lastHeard() const { return m_lastHeard; }

    /* The Modbus bytes received from and sent to the client so far (on a
     * TLS session: as decrypted, before encryption). */
    std::uint64_t bytesReceived() const { return m_bytesReceived; }
    std::uint64_t bytesSent() const { return m_bytesSent; }

  private:
    /* What the received bytes start with, without taking anything. */
    FrameStatus frontStatus() const;
    /* True when the next answer is there to send (not a place reserved). */
    bool sendable() const { return !m_output.empty() && !m_output.front().deferred; }
    long rawRead(std::uint8_t* buffer, std::size_t size);
    long rawWrite(std::uint8_t const* buffer, std::size_t size);

    int m_fd;
    std::unique_ptr<TlsSession> m_tls;
    bool m_roleMayWrite = true;
    std::string m_certificate;
    PeerAddress m_peer;
    std::size_t m_outputLimit;
    std::vector<std::uint8_t> m_input;
    bool m_unreadInput = false;
    bool m_inputEnded = false;
    /* One answer in the queue: its bytes, or the token of a place reserved
     * for an answer that comes later. */
    struct Slot {
        std::vector<std::uint8_t> bytes;
        std::optional<std::uint64_t> deferred;
    };
    std::deque<Slot> m_output;
    std::size_t m_outputBytes = 0;
    std::size_t m_sentOfFront = 0;  // bytes of m_output.front() already sent
    SteadyClock::time_point m_lastRequest;
    SteadyClock::time_point m_lastHeard;
    std::optional<SteadyClock::time_point> m_partialSince;
    std::uint64_t m_bytesReceived = 0;
    std::uint64_t m_bytesSent = 0;
};

}  // namespace tarsel::daemon
