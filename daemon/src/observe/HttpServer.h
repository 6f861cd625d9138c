// The health and metrics endpoint's HTTP side: a listening socket and a few
// clients, served from the daemon's poll() loop like the Modbus clients.
// Every client gets one request and one answer, within bounded bytes and
// time; a slow, silent or hostile HTTP client is closed and never holds up
// the loop or the Modbus side.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

#include "AcceptPause.h"
#include "HttpRequest.h"
#include "Log.h"

namespace tarsel::daemon {

struct HttpLimits {
    std::size_t maxClients = 8;
    std::size_t maxRequestBytes = 4096;
    // From the connection to the end of its request header.
    std::chrono::milliseconds requestTimeout{5000};
    // From the end of the request to the last byte of the answer sent, and
    // again from then to the client's close.
    std::chrono::milliseconds responseTimeout{5000};
};

/* "127.0.0.1", "127.1.2.3": an IPv4 address of 127.0.0.0/8. */
bool isLoopbackAddress(std::string const& address);

class HttpServer {
  public:
    using Clock = std::chrono::steady_clock;
    /* Answers a well-formed request; runs on the loop's thread. */
    using Responder = std::function<HttpResponse(HttpRequest const&)>;

    /* Listens at once (IPv4); throws std::runtime_error when it cannot. */
    HttpServer(std::string const& address, int port, HttpLimits const& limits, Responder responder,
               Log& log);
    ~HttpServer();

    HttpServer(HttpServer const&) = delete;
    HttpServer& operator=(HttpServer const&) = delete;

    int port() const { return m_port; }
    std::size_t clientCount() const { return m_clients.size(); }

    /* The listener first, then every client. */
    std::vector<pollfd> pollSet() const;
    /* Serves what poll() reported ready, for the descriptors of pollSet(). */
    void serve(pollfd const* ready, std::size_t count, Clock::time_point now);
    /* Closes the clients past their time, and listens again once a pause in
     * accepting is over. */
    void expire(Clock::time_point now);
    /* When the loop must wake up to listen again: while the process is out
     * of descriptors the listener is not polled (see AcceptPause). */
    std::optional<Clock::time_point> listenDue() const { return m_acceptPause.due(); }

  private:
    struct Client;

    void acceptAll(Clock::time_point now);
    /* Makes room for a new client by closing the one answered the longest
     * ago that has not closed yet (it has all it asked for), or else the
     * one connected the longest ago that has been sending its request for a
     * second or more: clients that never close, or send a byte now and
     * then, must not keep the next scrape out. False when every client is
     * being answered or connected within the last second. */
    bool makeRoom(Clock::time_point now);
    /* False when the client is done (answered or gone). */
    bool readFrom(Client& client, Clock::time_point now);
    void answer(Client& client, HttpResponse const& response, bool headOnly, Clock::time_point now);
    /* Sends what the socket takes; false when the client is done. */
    bool flush(Client& client, Clock::time_point now);
    /* Reads and drops what the client sends after its answer; false when it
     * closed or sent too much. */
    bool drain(Client& client);

    HttpLimits m_limits;
    Responder m_responder;
    Log& m_log;
    int m_listener = -1;
    int m_port = 0;
    AcceptPause m_acceptPause;
    std::vector<std::unique_ptr<Client>> m_clients;
};

}  // namespace tarsel::daemon
