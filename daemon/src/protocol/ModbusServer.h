// The Modbus TCP side: a listening socket and its clients, served from one
// poll() loop. Every socket is non-blocking: frames are cut out of each
// client's byte stream here and answers queue per client, so a slow, silent
// or broken client never holds up the others or the loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

#include "AcceptPause.h"
#include "AccessRules.h"
#include "ClientConnection.h"
#include "ConnectionCounts.h"
#include "Log.h"
#include "RequestHandler.h"
#include "TlsContext.h"

namespace tarsel::daemon {

struct ListenConfig {
    std::string address = "127.0.0.1";
    int port = 1502;  // 0: any free port (see port())
    AccessRules access;
    // Modbus/TCP Security: every client goes through a TLS handshake with a
    // certificate first. Nothing: plain Modbus TCP.
    std::shared_ptr<TlsContext const> tls;
};

/* What one client may hold of the daemon, and for how long. */
struct ClientLimits {
    std::size_t maxClients = 64;
    // A master polling every few minutes stays connected; 0: never.
    std::chrono::milliseconds idleTimeout{600'000};
    // From the first byte of a frame to its last; 0: never.
    std::chrono::milliseconds partialFrameTimeout{10'000};
    // About 250 of the largest answers.
    std::size_t outputQueueBytes = 64 * 1024;
};

class ModbusServer {
  public:
    /* Listens at once; throws std::runtime_error when it cannot. */
    ModbusServer(ListenConfig const& config, ClientLimits const& limits, RequestHandler& handler,
                 Log& log);
    ~ModbusServer();

    ModbusServer(ModbusServer const&) = delete;
    ModbusServer& operator=(ModbusServer const&) = delete;

    int port() const { return m_port; }
    std::size_t clientCount() const { return m_clients.size(); }
    /* True while the listening socket accepts connections. */
    bool listening() const;

    /* Hands the following requests to another handler and judges them by
     * other rules (a reload). Between two requests only: the loop's
     * thread, outside serve(). */
    void setHandler(RequestHandler& handler) { m_handler = &handler; }
    void setAccess(AccessRules const& access) { m_access = access; }

    /* The descriptors to poll: the listener first, then every client. */
    std::vector<pollfd> pollSet() const;
    /* The same appended to `fds`; returns how many were appended. */
    std::size_t appendPollSet(std::vector<pollfd>& fds) const;
    /* Serves what poll() reported ready, for the descriptors of pollSet(). */
    void serve(pollfd const* ready, std::size_t count, SteadyClock::time_point now);
    /* True when a client has whole frames waiting, or bytes its TLS session
     * holds: the loop must come back at once rather than wait for a socket. */
    bool hasBacklog() const;
    /* Drops the clients idle or stuck in a frame for longer than the limits,
     * and listens again once a pause in accepting is over. */
    void expire(SteadyClock::time_point now);
    /* When the loop must wake up to listen again: while the process is out
     * of descriptors the listener is not polled (see AcceptPause). */
    std::optional<SteadyClock::time_point> listenDue() const { return m_acceptPause.due(); }
    /* What became of this listener's connections so far; the bytes include
     * those of the clients still connected. */
    ConnectionCounts connectionCounts() const;

  private:
    using Client = std::unique_ptr<ClientConnection>;

    /* Why a client is closed: `reason` as counted, `kind` names the event
     * for the log's rate limit; no text, no line (a client that simply went
     * away). */
    struct Closing {
        ClosedReason reason = ClosedReason::PeerClosed;
        std::string kind;
        std::string text;
    };

    void acceptAll(SteadyClock::time_point now);
    void serveBacklog(std::vector<int> const& served, SteadyClock::time_point now);
    bool makeRoom(SteadyClock::time_point now);
    /* False when the client is to be dropped; `why` says why, if worth a line. */
    bool serveClient(ClientConnection& client, short events, SteadyClock::time_point now,
                     Closing& why);
    bool answerFrames(ClientConnection& client, Closing& why);
    static bool keepAfterTurn(ClientConnection const& client, bool open, bool reachable = true);
    static bool finished(ClientConnection const& client);
    /* False when the client is to be dropped: the handshake failed, or the
     * certificate has no role the configuration names. */
    bool shakeHands(ClientConnection& client, SteadyClock::time_point now, Closing& why);
    void drop(std::size_t index, Closing const& why);
    static Closing notReading(ClientConnection const& client);
    /* Sends the deferred answers settled since the last pass, each in its
     * client's order. */
    void deliverSettled();
    bool hasSettled(ClientConnection const& client) const;
    /* Keeps the answer to come of a client that is gone, to count it. */
    void orphan(DeferredReplies::Token token);
    /* Counts the writes of clients that are gone whose outcome has come. */
    void countOrphans(DeferredReplies& replies);
    bool hasSettledOrphan() const;

    /* A request whose answer is deferred: what its answer is built from. */
    struct Deferred {
        std::vector<std::uint8_t> frame;
        Answer answer;
    };

    ClientLimits m_limits;
    AccessRules m_access;
    std::shared_ptr<TlsContext const> m_tls;
    RequestHandler* m_handler;
    Log& m_log;
    int m_listener = -1;
    int m_port = 0;
    AcceptPause m_acceptPause;
    std::vector<Client> m_clients;
    ConnectionCounts m_counts;
    std::map<DeferredReplies::Token, Deferred> m_deferred;
    // Tokens in m_deferred whose client is gone.
    std::vector<DeferredReplies::Token> m_orphans;
    // Kept for their storage alone, so that serving allocates nothing.
    std::vector<int> m_served;
    std::vector<std::uint8_t> m_frame;
    std::vector<std::uint8_t> m_reply;
    RequestOrigin m_origin;
};

}  // namespace tarsel::daemon
