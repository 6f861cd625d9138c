#include "ModbusServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "LogText.h"
#include "ResponseEncoder.h"

namespace tarsel::daemon {

namespace {

// Connections the kernel completes while the loop is busy elsewhere; a short
// backlog makes every connect past it wait for a SYN retry (a second).
constexpr int kBacklog = SOMAXCONN;
// Accepted per loop pass at most, so a connection flood still lets the loop
// serve the clients it has.
constexpr int kMaxAcceptsPerPass = 256;
// Frames answered per client and loop pass: a client that pipelines requests
// takes its turn with the others, whatever each request costs.
constexpr int kFramesPerTurn = 16;
// A client quieter than this is not pushed out to make room for a new one:
// a burst of connections cannot evict the masters that are polling.
constexpr std::chrono::seconds kMinQuietToEvict{1};

std::string errorText(char const* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

/* The client's descriptor moved to FD_SETSIZE or above when the process may
 * open that many. NUT's client library waits on its sockets with select(),
 * which knows descriptors below FD_SETSIZE only (glibc aborts the process
 * for any other): with a thousand clients holding the low numbers, the
 * poller's next connection to upsd would get a high one. Clients are served
 * through poll(), which takes any. When there is no room up there, the
 * client keeps the descriptor it has. */
int aboveSelectRange(int fd) {
    if (fd >= FD_SETSIZE) {
        return fd;
    }
    int const moved = ::fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE);
    if (moved < 0) {
        return fd;  // EINVAL: a limit of FD_SETSIZE or less; EMFILE: all taken
    }
    ::close(fd);
    return moved;
}

int listenOn(ListenConfig const& config) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(config.port));
    if (::inet_pton(AF_INET, config.address.c_str(), &address.sin_addr) != 1) {
        throw std::runtime_error("cannot listen on \"" + config.address +
                                 "\": not an IPv4 address");
    }
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error(errorText("socket"));
    }
    int const on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        ::listen(fd, kBacklog) != 0) {
        int const error = errno;
        std::string why = std::strerror(error);
        // Modbus's own ports (502, 802) are privileged: say what gives the
        // right to bind them rather than leave a bare "Permission denied".
        if (error == EACCES && config.port > 0 && config.port < 1024) {
            why +=
                " (a port below 1024 needs root or CAP_NET_BIND_SERVICE, which the systemd "
                "unit gives; or choose a port from 1024 up)";
        }
        ::close(fd);
        throw std::runtime_error("cannot listen on " + config.address + ":" +
                                 std::to_string(config.port) + ": " + why);
    }
    return fd;
}

}  // namespace

ModbusServer::ModbusServer(ListenConfig const& config, ClientLimits const& limits,
                           RequestHandler& handler, Log& log)
    : m_limits(limits),
      m_access(config.access),
      m_tls(config.tls),
      m_handler(&handler),
      m_log(log),
      m_listener(listenOn(config)) {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&bound), &length);
    m_port = ntohs(bound.sin_port);
}

ModbusServer::~ModbusServer() {
    m_clients.clear();
    ::close(m_listener);
}

bool ModbusServer::listening() const {
    int accepting = 0;
    socklen_t length = sizeof accepting;
    return ::getsockopt(m_listener, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length) == 0 &&
           accepting != 0;
}

std::vector<pollfd> ModbusServer::pollSet() const {
    std::vector<pollfd> fds;
    appendPollSet(fds);
    return fds;
}

std::size_t ModbusServer::appendPollSet(std::vector<pollfd>& fds) const {
    fds.push_back({m_listener, static_cast<short>(m_acceptPause.active() ? 0 : POLLIN), 0});
    for (auto const& client : m_clients) {
        short const events = static_cast<short>((client->wantsRead() ? POLLIN : 0) |
                                                (client->wantsWrite() ? POLLOUT : 0));
        fds.push_back({client->fd(), events, 0});
    }
    return 1 + m_clients.size();
}

void ModbusServer::serve(pollfd const* ready, std::size_t count, SteadyClock::time_point now) {
    // Clients first, by descriptor: accepting reorders m_clients.
    std::vector<int>& served = m_served;
    served.clear();
    for (std::size_t i = 1; i < count; ++i) {
        if (ready[i].revents == 0) {
            continue;
        }
        served.push_back(ready[i].fd);
        auto const found =
            std::find_if(m_clients.begin(), m_clients.end(),
                         [fd = ready[i].fd](Client const& c) { return c->fd() == fd; });
        if (found == m_clients.end()) {
            continue;
        }
        Closing why;
        if (!serveClient(**found, ready[i].revents, now, why)) {
            drop(static_cast<std::size_t>(found - m_clients.begin()), why);
        }
    }
    serveBacklog(served, now);
    deliverSettled();
    if (count > 0 && (ready[0].revents & POLLIN) != 0) {
        acceptAll(now);
    }
}

/* The clients with whole frames waiting, or bytes a TLS session holds, that
 * the sockets did not bring up. */
void ModbusServer::serveBacklog(std::vector<int> const& served, SteadyClock::time_point now) {
    for (std::size_t i = m_clients.size(); i-- > 0;) {
        ClientConnection& client = *m_clients[i];
        bool const unread = client.hasUnreadInput();
        if ((!unread && !client.hasCompleteFrame()) ||
            std::find(served.begin(), served.end(), client.fd()) != served.end()) {
            continue;
        }
        Closing why;
        bool const open = unread ? client.receive(now) == ClientConnection::ReadStatus::Open
                                 : !client.inputEnded();
        if (!answerFrames(client, why)) {
            drop(i, why);
        } else if (!keepAfterTurn(client, open)) {
            drop(i, {ClosedReason::PeerClosed, {}, {}});
        }
    }
}

bool ModbusServer::hasBacklog() const {
    return hasSettledOrphan() ||
           std::any_of(m_clients.begin(), m_clients.end(), [this](Client const& client) {
               return client->hasCompleteFrame() || client->hasUnreadInput() || hasSettled(*client);
           });
}

bool ModbusServer::hasSettledOrphan() const {
    DeferredReplies const* replies = m_handler->deferredReplies();
    return replies != nullptr &&
           std::any_of(m_orphans.begin(), m_orphans.end(),
                       [replies](DeferredReplies::Token token) { return replies->settled(token); });
}

/* An answer still to come for a client that is gone (or going) reaches no
 * one, but the write was handed over: its outcome is audited when it comes,
 * and counted then (see countOrphans()), as the client's answer would have
 * been. */
void ModbusServer::orphan(DeferredReplies::Token token) {
    DeferredReplies* replies = m_handler->deferredReplies();
    if (replies == nullptr) {
        m_deferred.erase(token);
        return;
    }
    replies->orphan(token);
    m_orphans.push_back(token);
}

void ModbusServer::countOrphans(DeferredReplies& replies) {
    for (std::size_t i = m_orphans.size(); i-- > 0;) {
        std::optional<std::uint8_t> const exception = replies.take(m_orphans[i]);
        if (!exception) {
            continue;
        }
        auto const found = m_deferred.find(m_orphans[i]);
        if (found != m_deferred.end()) {
            m_handler->countAnswer(found->second.answer.function, *exception);
            m_deferred.erase(found);
        }
        m_orphans.erase(m_orphans.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

bool ModbusServer::hasSettled(ClientConnection const& client) const {
    DeferredReplies const* replies = m_handler->deferredReplies();
    if (replies == nullptr || m_deferred.empty()) {
        return false;
    }
    auto const tokens = client.deferredTokens();
    return std::any_of(tokens.begin(), tokens.end(),
                       [replies](DeferredReplies::Token token) { return replies->settled(token); });
}

void ModbusServer::deliverSettled() {
    DeferredReplies* replies = m_handler->deferredReplies();
    if (replies == nullptr || m_deferred.empty()) {
        return;
    }
    countOrphans(*replies);
    for (std::size_t i = m_clients.size(); i-- > 0;) {
        ClientConnection& client = *m_clients[i];
        bool failed = false;
        for (DeferredReplies::Token const token : client.deferredTokens()) {
            std::optional<std::uint8_t> const exception = replies->take(token);
            auto const found = m_deferred.find(token);
            if (!exception || found == m_deferred.end()) {
                continue;
            }
            Answer answer = found->second.answer;
            answer.deferred.reset();
            answer.exception = *exception;
            m_handler->countAnswer(answer.function, answer.exception);
            std::vector<std::uint8_t> const bytes =
                encodeResponse(found->second.frame.data(), found->second.frame.size(), answer);
            m_deferred.erase(found);
            failed = failed || client.fill(token, bytes) == ClientConnection::QueueStatus::Failed;
        }
        if (failed) {
            drop(i, {ClosedReason::SendFailed, {}, {}});
        } else if (finished(client)) {
            drop(i, {ClosedReason::PeerClosed, {}, {}});
        }
    }
}

bool ModbusServer::serveClient(ClientConnection& client, short events, SteadyClock::time_point now,
                               Closing& why) {
    if (client.tls() != nullptr && !client.tls()->established()) {
        return shakeHands(client, now, why);
    }
    if ((events & POLLOUT) != 0 && !client.flush()) {
        why.reason = ClosedReason::SendFailed;
        return false;
    }
    // A TLS read may have waited for the socket to take data: it is retried
    // when the socket is writable.
    if ((events & (POLLIN | POLLHUP | POLLERR)) == 0 && client.tls() == nullptr) {
        return !finished(client);
    }
    bool const open = client.receive(now) == ClientConnection::ReadStatus::Open;
    // What arrived before the end of the stream is still answered, as far
    // as the socket takes it. A hang-up or an error leaves nobody to read
    // what is still owed.
    bool const reachable = (events & (POLLHUP | POLLERR)) == 0;
    return answerFrames(client, why) && keepAfterTurn(client, open, reachable);
}

/* A client whose stream has ended stays while requests it sent before the
 * end wait for their answers: a master may end its side once its requests
 * are out and still read every answer, a write's answer that comes later
 * included. It takes its turns like the others and is dropped once nothing
 * is left to answer (see finished()). */
bool ModbusServer::keepAfterTurn(ClientConnection const& client, bool open, bool reachable) {
    return open || client.hasCompleteFrame() ||
           (reachable && client.inputEnded() && client.hasQueuedAnswers());
}

/* An ended client that has been given every answer it is owed. */
bool ModbusServer::finished(ClientConnection const& client) {
    return client.inputEnded() && !client.hasCompleteFrame() && !client.hasQueuedAnswers();
}

bool ModbusServer::answerFrames(ClientConnection& client, Closing& why) {
    // Buffers kept by the server from one frame to the next: answering a
    // request allocates nothing.
    std::vector<std::uint8_t>& frame = m_frame;
    RequestOrigin& origin = m_origin;
    origin.client = client.peer().text;
    origin.ipv4 = client.peer().ipv4;
    origin.rules = &m_access;
    origin.roleMayWrite = client.roleMayWrite();
    origin.certificate = client.certificate();
    for (int turn = 0; turn < kFramesPerTurn; ++turn) {
        switch (client.takeFrame(frame)) {
            case ClientConnection::FrameStatus::Incomplete:
                return true;
            case ClientConnection::FrameStatus::Malformed:
                why = {ClosedReason::MalformedFrame, "malformed frames",
                       "sent a malformed frame header; connection closed"};
                return false;
            case ClientConnection::FrameStatus::Complete:
                break;
        }
        Answer answer = m_handler->handle(frame.data(), frame.size(), origin);
        if (answer.deferred) {
            m_deferred[*answer.deferred] = {frame, answer};
            if (client.queueDeferred(*answer.deferred) != ClientConnection::QueueStatus::Queued) {
                // Its place counts against the output limit (see below); the
                // write is on its way all the same.
                orphan(*answer.deferred);
                why = notReading(client);
                return false;
            }
            continue;
        }
        if (answer.closeConnection) {
            why = {ClosedReason::NoAnswer, "function codes without answer",
                   "sent function code " + std::to_string(answer.function) +
                       ", which has no Modbus answer; connection closed"};
            return false;
        }
        encodeResponse(frame.data(), frame.size(), answer, m_reply);
        m_handler->recycle(std::move(answer));
        switch (client.queue(m_reply)) {
            case ClientConnection::QueueStatus::Queued:
                break;
            case ClientConnection::QueueStatus::Full:
                why = notReading(client);
                return false;
            case ClientConnection::QueueStatus::Failed:
                why = {ClosedReason::SendFailed, {}, {}};  // it went away
                return false;
        }
    }
    return true;  // the rest waits for the next pass
}

bool ModbusServer::shakeHands(ClientConnection& client, SteadyClock::time_point now, Closing& why) {
    TlsSession& tls = *client.tls();
    switch (tls.handshake()) {
        case TlsSession::Step::Pending:
            return true;
        case TlsSession::Step::Failed:
            // Limited by reason: strangers' failures, as many as they like,
            // do not hide the first of another kind (a master's certificate
            // that expired).
            why = {ClosedReason::TlsHandshake, "TLS handshakes failed (" + tls.failure() + ")",
                   "TLS handshake failed: " + tls.failure()};
            return false;
        case TlsSession::Step::Done:
            break;
    }
    auto const role = tls.peerRole();
    auto const access = role ? m_tls->access(*role) : std::nullopt;
    std::string const who =
        quotedValue(tls.peerSubject()) + ", role " + (role ? quotedValue(*role) : "(none)");
    if (!access) {
        why = {ClosedReason::TlsRole, "TLS clients without a role",
               "certificate " + who + ": no access configured for this role; connection closed"};
        return false;
    }
    bool const mayWrite = access.value_or(RoleAccess::ReadOnly) == RoleAccess::ReadWrite;
    client.setRoleMayWrite(mayWrite);
    client.setCertificate("certificate=" + quotedValue(tls.peerSubject()) +
                          " role=" + quotedValue(*role));
    client.handshakeDone(now);
    m_log.limited(Log::Level::Info, "TLS clients accepted",
                  "client " + client.peer().text + ": certificate " + who + " (" +
                      (mayWrite ? "read-write" : "read-only") + ")");
    // Requests may have come with the end of the handshake.
    bool const open = client.receive(now) == ClientConnection::ReadStatus::Open;
    return answerFrames(client, why) && keepAfterTurn(client, open);
}

void ModbusServer::acceptAll(SteadyClock::time_point now) {
    for (int i = 0; i < kMaxAcceptsPerPass; ++i) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        int fd = ::accept4(m_listener, reinterpret_cast<sockaddr*>(&address), &length,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (AcceptPause::isExhaustion(errno)) {
                m_log.limited(Log::Level::Warning, "accept failures",
                              errorText("accept") + "; not accepting for " +
                                  std::to_string(AcceptPause::kLength.count()) + " ms");
                m_acceptPause.start(now);
            } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
                m_log.limited(Log::Level::Warning, "accept failures", errorText("accept"));
            }
            return;
        }
        PeerAddress peer = PeerAddress::from(address);
        if (!m_access.mayConnect(peer.ipv4)) {
            m_log.limited(
                Log::Level::Warning, "clients not allowed",
                "client " + peer.text + ": may neither read nor write here; connection refused");
            ::close(fd);
            m_counts.countRefused(RefusedReason::Access);
            continue;
        }
        if (m_clients.size() >= m_limits.maxClients && !makeRoom(now)) {
            m_log.limited(Log::Level::Warning, "clients refused",
                          "client " + peer.text + ": " + std::to_string(m_clients.size()) +
                              " clients connected, none idle; connection refused");
            ::close(fd);
            m_counts.countRefused(RefusedReason::ClientLimit);
            continue;
        }
        m_log.debug("client " + peer.text + " connected");
        fd = aboveSelectRange(fd);
        std::unique_ptr<TlsSession> tls;
        if (m_tls) {
            try {
                tls = m_tls->accept(fd);
            } catch (std::runtime_error const& error) {
                m_log.limited(Log::Level::Error, "TLS sessions failed", error.what());
                ::close(fd);
                m_counts.countRefused(RefusedReason::TlsSetup);
                continue;
            }
        }
        m_clients.push_back(std::make_unique<ClientConnection>(
            fd, std::move(peer), now, m_limits.outputQueueBytes, std::move(tls)));
        m_counts.countAccepted(m_tls ? ListenerKind::Tls : ListenerKind::Plain);
    }
}

/* Drops the client heard from least recently, if it has been quiet long
 * enough; false when every client is busy. */
bool ModbusServer::makeRoom(SteadyClock::time_point now) {
    auto const oldest = std::min_element(
        m_clients.begin(), m_clients.end(),
        [](Client const& a, Client const& b) { return a->lastHeard() < b->lastHeard(); });
    if (oldest == m_clients.end() || now - (*oldest)->lastHeard() < kMinQuietToEvict) {
        return false;
    }
    drop(static_cast<std::size_t>(oldest - m_clients.begin()),
         {ClosedReason::MadeRoom, "clients closed for room",
          "quiet the longest; closed to make room for a new client"});
    return true;
}

ModbusServer::Closing ModbusServer::notReading(ClientConnection const& client) {
    return {ClosedReason::NotReading, "clients not reading",
            "does not read its answers (" + std::to_string(client.pendingOutput()) +
                " bytes queued); connection closed"};
}

ConnectionCounts ModbusServer::connectionCounts() const {
    ConnectionCounts counts = m_counts;
    for (Client const& client : m_clients) {
        counts.addReceived(client->bytesReceived());
        counts.addSent(client->bytesSent());
    }
    return counts;
}

void ModbusServer::expire(SteadyClock::time_point now) {
    m_acceptPause.update(now);
    if (DeferredReplies* replies = m_handler->deferredReplies()) {
        replies->expire(now);
    }
    for (std::size_t i = m_clients.size(); i-- > 0;) {
        ClientConnection const& client = *m_clients[i];
        auto const partial = client.partialSince();
        if (partial && m_limits.partialFrameTimeout.count() > 0 &&
            now - *partial >= m_limits.partialFrameTimeout) {
            drop(i, {ClosedReason::FrameTimeout, "clients stuck in a frame",
                     "sent no complete frame in " + secondsText(m_limits.partialFrameTimeout) +
                         " s; connection closed"});
        } else if (!partial && m_limits.idleTimeout.count() > 0 &&
                   now - client.lastRequest() >= m_limits.idleTimeout) {
            drop(i, {ClosedReason::IdleTimeout, "idle clients",
                     "idle for " + secondsText(m_limits.idleTimeout) + " s; connection closed"});
        }
    }
}

void ModbusServer::drop(std::size_t index, Closing const& why) {
    std::string const peer = m_clients[index]->peer().text;
    for (DeferredReplies::Token const token : m_clients[index]->deferredTokens()) {
        orphan(token);
    }
    m_counts.addReceived(m_clients[index]->bytesReceived());
    m_counts.addSent(m_clients[index]->bytesSent());
    m_counts.countClosed(why.reason);
    m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(index));
    if (why.text.empty()) {
        m_log.debug("client " + peer + " disconnected");
    } else {
        m_log.limited(Log::Level::Info, why.kind, "client " + peer + " " + why.text);
    }
}

}  // namespace tarsel::daemon
