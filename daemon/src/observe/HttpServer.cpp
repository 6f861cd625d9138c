#include "HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

constexpr int kMaxAcceptsPerPass = 16;
// A request on the endpoint's network comes in a few milliseconds: a client
// still sending its own after this long is slow enough to make room for a
// new one when every place is taken.
constexpr std::chrono::seconds kMinSlowToEvict{1};
// What a client may still send after its answer before it is closed anyway.
constexpr std::size_t kMaxDrainBytes = 64 * 1024;

int listenOn(std::string const& text, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1) {
        throw std::runtime_error("cannot listen for HTTP on \"" + text + "\": not an IPv4 address");
    }
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    }
    int const on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0) {
        std::string const why = std::strerror(errno);
        ::close(fd);
        throw std::runtime_error("cannot listen for HTTP on " + text + ":" + std::to_string(port) +
                                 ": " + why);
    }
    return fd;
}

/* Whether what the client sent so far asks for HEAD: the answer to it has
 * no body, refusals included, or the client would take the body for the
 * start of another answer. */
bool asksForHead(std::string const& input) {
    return input.compare(0, 5, "HEAD ") == 0;
}

}  // namespace

bool isLoopbackAddress(std::string const& address) {
    in_addr parsed{};
    return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1 &&
           (ntohl(parsed.s_addr) >> 24) == 127;
}

struct HttpServer::Client {
    Client(int descriptor, Clock::time_point now) : fd(descriptor), since(now) {}
    ~Client() { ::close(fd); }
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    enum class Stage {
        Reading,    // until the request header ends
        Answering,  // the answer is being sent
        Draining,   // sent and our side shut: what the client still sends is
                    // read and dropped until it closes, so that closing with
                    // unread bytes does not reset the connection and lose the answer
    };

    int fd;
    Clock::time_point since;  // connected, answered, then done sending
    Stage stage = Stage::Reading;
    std::size_t drained = 0;
    std::string input;
    std::string output;
    std::size_t sent = 0;
};

HttpServer::HttpServer(std::string const& address, int port, HttpLimits const& limits,
                       Responder responder, Log& log)
    : m_limits(limits),
      m_responder(std::move(responder)),
      m_log(log),
      m_listener(listenOn(address, port)) {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&bound), &length);
    m_port = ntohs(bound.sin_port);
}

HttpServer::~HttpServer() {
    m_clients.clear();
    ::close(m_listener);
}

std::vector<pollfd> HttpServer::pollSet() const {
    std::vector<pollfd> fds{
        {m_listener, static_cast<short>(m_acceptPause.active() ? 0 : POLLIN), 0}};
    for (auto const& client : m_clients) {
        bool const sending = client->stage == Client::Stage::Answering;
        fds.push_back({client->fd, static_cast<short>(sending ? POLLOUT : POLLIN), 0});
    }
    return fds;
}

void HttpServer::serve(pollfd const* ready, std::size_t count, Clock::time_point now) {
    for (std::size_t i = 1; i < count; ++i) {
        if (ready[i].revents == 0) {
            continue;
        }
        auto const found = std::find_if(m_clients.begin(), m_clients.end(),
                                        [fd = ready[i].fd](auto const& c) { return c->fd == fd; });
        if (found == m_clients.end()) {
            continue;
        }
        Client& client = **found;
        bool open = true;
        switch (client.stage) {
            case Client::Stage::Reading:
                open = readFrom(client, now);
                break;
            case Client::Stage::Answering:
                open = flush(client, now);
                break;
            case Client::Stage::Draining:
                open = drain(client);
                break;
        }
        if (!open) {
            m_clients.erase(found);
        }
    }
    if (count > 0 && (ready[0].revents & POLLIN) != 0) {
        acceptAll(now);
    }
}

void HttpServer::acceptAll(Clock::time_point now) {
    for (int i = 0; i < kMaxAcceptsPerPass; ++i) {
        int const fd = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (AcceptPause::isExhaustion(errno)) {
                m_log.limited(Log::Level::Warning, "HTTP accept failures",
                              std::string("HTTP: accept: ") + std::strerror(errno) +
                                  "; not accepting for " +
                                  std::to_string(AcceptPause::kLength.count()) + " ms");
                m_acceptPause.start(now);
            }
            return;
        }
        if (m_clients.size() >= m_limits.maxClients && !makeRoom(now)) {
            // Monitoring scrapes one page at a time; more at once is a flood.
            m_log.limited(Log::Level::Warning, "HTTP clients refused",
                          "HTTP: " + std::to_string(m_clients.size()) +
                              " clients connected; connection refused");
            ::close(fd);
            continue;
        }
        m_clients.push_back(std::make_unique<Client>(fd, now));
    }
}

bool HttpServer::makeRoom(Clock::time_point now) {
    auto const oldestIn = [this](Client::Stage stage) {
        auto found = m_clients.end();
        for (auto it = m_clients.begin(); it != m_clients.end(); ++it) {
            if ((*it)->stage == stage &&
                (found == m_clients.end() || (*it)->since < (*found)->since)) {
                found = it;
            }
        }
        return found;
    };
    auto victim = oldestIn(Client::Stage::Draining);
    if (victim == m_clients.end()) {
        victim = oldestIn(Client::Stage::Reading);
        if (victim != m_clients.end() && now - (*victim)->since < kMinSlowToEvict) {
            victim = m_clients.end();
        }
    }
    if (victim == m_clients.end()) {
        return false;
    }
    m_clients.erase(victim);
    return true;
}

bool HttpServer::readFrom(Client& client, Clock::time_point now) {
    char buffer[1024];
    // A client may end its side once its request is sent and still read the
    // answer: its end of stream ends the request, not the connection.
    bool ended = false;
    for (;;) {
        // Never more than one byte past the limit: enough to tell it is over.
        std::size_t const room = m_limits.maxRequestBytes + 1 - client.input.size();
        ssize_t const got = ::recv(client.fd, buffer, std::min(room, sizeof buffer), 0);
        if (got > 0) {
            client.input.append(buffer, static_cast<std::size_t>(got));
            if (client.input.size() > m_limits.maxRequestBytes) {
                break;
            }
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        ended = true;
        break;
    }
    HttpParse const parse = parseHttpRequest(client.input, m_limits.maxRequestBytes);
    switch (parse.status) {
        case HttpParse::Status::Incomplete:
            return !ended;  // gone before its request ended
        case HttpParse::Status::Bad:
            // Limited by status: a flood of one kind does not hide the first of another.
            m_log.limited(
                Log::Level::Warning, "bad HTTP requests (" + std::to_string(parse.code) + ")",
                "HTTP: request refused with " + std::to_string(parse.code) + ": " + parse.reason);
            answer(client, errorResponse(parse.code, parse.reason), asksForHead(client.input), now);
            break;
        case HttpParse::Status::Complete:
            answer(client, m_responder(parse.request), parse.request.method == "HEAD", now);
            break;
    }
    return flush(client, now);
}

void HttpServer::answer(Client& client, HttpResponse const& response, bool headOnly,
                        Clock::time_point now) {
    client.stage = Client::Stage::Answering;
    client.since = now;
    client.output = serializeResponse(response, headOnly);
    client.sent = 0;
}

bool HttpServer::flush(Client& client, Clock::time_point now) {
    while (client.sent < client.output.size()) {
        ssize_t const sent = ::send(client.fd, client.output.data() + client.sent,
                                    client.output.size() - client.sent, MSG_NOSIGNAL);
        if (sent > 0) {
            client.sent += static_cast<std::size_t>(sent);
        } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        } else if (!(sent < 0 && errno == EINTR)) {
            return false;
        }
    }
    // All sent: our side is done; the client closes its side next.
    ::shutdown(client.fd, SHUT_WR);
    client.stage = Client::Stage::Draining;
    client.since = now;
    return drain(client);
}

bool HttpServer::drain(Client& client) {
    char buffer[1024];
    for (;;) {
        ssize_t const got = ::recv(client.fd, buffer, sizeof buffer, 0);
        if (got > 0) {
            client.drained += static_cast<std::size_t>(got);
            if (client.drained > kMaxDrainBytes) {
                return false;
            }
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        // Nothing more for now: wait for the client's end of stream.
        return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

void HttpServer::expire(Clock::time_point now) {
    m_acceptPause.update(now);
    for (std::size_t i = m_clients.size(); i-- > 0;) {
        Client& client = *m_clients[i];
        bool const reading = client.stage == Client::Stage::Reading;
        if (reading && now - client.since >= m_limits.requestTimeout) {
            // A last try to say why; a client that does not read is not waited for.
            answer(client, errorResponse(408, "no whole request in time"),
                   asksForHead(client.input), now);
            if (!flush(client, now)) {
                m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(i));
            }
        } else if (!reading && now - client.since >= m_limits.responseTimeout) {
            m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

}  // namespace tarsel::daemon
