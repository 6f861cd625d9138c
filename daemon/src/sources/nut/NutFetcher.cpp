// The fetcher over NUT's client library (libupsclient, loaded at the first
// fetcher: UpsClientLibrary): one TCP connection
// per UPS, opened again after any failure. Nothing waits for ever: the
// connect is bounded by our timeout, and the library itself waits at most
// 5 s for each line of an answer and never for a send, so a upsd that takes
// a request and never answers it (SIGSTOPped, say) costs one such wait, not
// a hung thread. (NUT's C++ client blocks on reads without a bound.)
#include <optional>
#include <vector>

#include "Poller.h"
#include "sources/nut/UpsClientLibrary.h"

namespace tarsel::daemon::nut {

namespace {

timeval toTimeval(std::chrono::seconds timeout) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout.count());
    return tv;
}

class NutFetcher : public Fetcher {
  public:
    NutFetcher(Endpoint endpoint, std::chrono::seconds timeout)
        : m_library(UpsClientLibrary::instance()),
          m_endpoint(std::move(endpoint)),
          m_timeout(timeout) {}

    ~NutFetcher() override { disconnect(); }

    NutFetcher(NutFetcher const&) = delete;
    NutFetcher& operator=(NutFetcher const&) = delete;

    Reading fetch() override {
        Reading reading;
        if (!connect(reading)) {
            return reading;
        }
        char const* query[] = {"VAR", m_endpoint.ups.c_str()};
        if (m_library.list_start(&m_connection, 2, query) < 0) {
            return failure();
        }
        std::size_t count = 0;
        char** answer = nullptr;
        int more = 0;
        // Each line is VAR <ups> <name> <value>.
        while ((more = m_library.list_next(&m_connection, 2, query, &count, &answer)) == 1) {
            if (count >= 4) {
                reading.variables.emplace(answer[2], answer[3]);
            }
        }
        if (more < 0) {
            return failure();
        }
        // Commands change only with the driver: listed once per connection
        // and again after any fault.
        if (!m_commands && !listCommands() && !commandsRefused()) {
            return failure();
        }
        reading.commands = *m_commands;
        reading.state = Reading::State::Fresh;
        return reading;
    }

  private:
    /* LIST CMD: each line is CMD <ups> <command>. */
    bool listCommands() {
        char const* query[] = {"CMD", m_endpoint.ups.c_str()};
        if (m_library.list_start(&m_connection, 2, query) < 0) {
            return false;
        }
        std::vector<std::string> commands;
        std::size_t count = 0;
        char** answer = nullptr;
        int more = 0;
        while ((more = m_library.list_next(&m_connection, 2, query, &count, &answer)) == 1) {
            if (count >= 3) {
                commands.emplace_back(answer[2]);
            }
        }
        if (more < 0) {
            return false;
        }
        m_commands = std::move(commands);
        return true;
    }

    /* upsd answered LIST CMD with an error that concerns the list only (a
     * upsd that keeps commands to itself): the UPS simply offers none. */
    bool commandsRefused() {
        switch (m_library.upserror(&m_connection)) {
            case UPSCLI_ERR_ACCESSDENIED:
            case UPSCLI_ERR_INVLISTTYPE:
            case UPSCLI_ERR_UNKCOMMAND:
            case UPSCLI_ERR_INVALIDARG:
            case UPSCLI_ERR_CMDNOTSUPP:
                m_commands.emplace();
                return true;
            default:
                return false;
        }
    }

    bool connect(Reading& reading) {
        if (m_connected) {
            return true;
        }
        if (!m_library.loaded()) {
            reading.state = Reading::State::Unreachable;
            reading.detail = m_library.failure();
            return false;
        }
        timeval tv = toTimeval(m_timeout);
        if (m_library.tryconnect(&m_connection, m_endpoint.host.c_str(), m_endpoint.port, 0, &tv) <
            0) {
            reading.state = Reading::State::Unreachable;
            reading.detail = m_library.strerror(&m_connection);
            m_library.disconnect(&m_connection);
            return false;
        }
        m_connected = true;
        return true;
    }

    /* What upsd's refusal, or the connection's failure, means. */
    Reading failure() {
        m_commands.reset();
        Reading reading;
        reading.detail = m_library.strerror(&m_connection);
        switch (m_library.upserror(&m_connection)) {
            case UPSCLI_ERR_DATASTALE:
            case UPSCLI_ERR_DRVNOTCONN:
                reading.state = Reading::State::Stale;
                break;
            case UPSCLI_ERR_UNKNOWNUPS:
                reading.state = Reading::State::Unknown;
                break;
            default:
                // Timeouts, resets, a upsd that went away or answered
                // nonsense: start with a new connection next time.
                reading.state = Reading::State::Unreachable;
                disconnect();
                break;
        }
        return reading;
    }

    void disconnect() {
        if (m_connected) {
            m_library.disconnect(&m_connection);
            m_connected = false;
        }
    }

    UpsClientLibrary const& m_library;
    Endpoint const m_endpoint;
    std::chrono::seconds const m_timeout;
    UPSCONN_t m_connection{};
    bool m_connected = false;
    std::optional<std::vector<std::string>> m_commands;  // as last listed
};

}  // namespace

std::unique_ptr<Fetcher> makeNutFetcher(Endpoint endpoint, std::chrono::seconds timeout) {
    return std::make_unique<NutFetcher>(std::move(endpoint), timeout);
}

}  // namespace tarsel::daemon::nut
