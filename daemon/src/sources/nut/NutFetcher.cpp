// The fetcher over NUT's client library (libupsclient, loaded at the first
// fetcher: UpsClientLibrary): one TCP connection
// per UPS, opened again after any failure. Nothing waits for ever: the
// connect is bounded by our timeout, and the library itself waits at most
// 5 s for each line of an answer and never for a send, so a upsd that takes
// a request and never answers it (SIGSTOPped, say) costs one such wait, not
// a hung thread. (NUT's C++ client blocks on reads without a bound.)
// What the library does not bound, the length of a whole answer, the poller
// does: it interrupts a poll that outlives its bound by shutting the
// connection down under the library's feet, and a list longer than any UPS
// has is cut short here.
#include <strings.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HostResolver.h"
#include "InterruptibleSocket.h"
#include "Poller.h"
#include "sources/nut/UpsClientLibrary.h"

namespace tarsel::daemon::nut {

namespace {

// More variables (or commands) than any UPS or PDU lists: the rest of such
// a list is not read, so a upsd that lists for ever costs a bounded amount
// of memory.
constexpr std::size_t kMaxListLines = 10000;

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
        if (m_socket.takeInterruption()) {
            disconnect();  // its socket is shut down: no use any more
        }
        if (!connect(reading)) {
            return reading;
        }
        char const* query[] = {"VAR", m_endpoint.ups.c_str()};
        if (m_library.list_start(&m_connection, 2, query) < 0) {
            return failure();
        }
        m_midList = true;
        std::size_t count = 0;
        char** answer = nullptr;
        int more = 0;
        std::size_t lines = 0;
        // Each line is VAR <ups> <name> <value>.
        while ((more = m_library.list_next(&m_connection, 2, query, &count, &answer)) == 1) {
            if (++lines > kMaxListLines) {
                return tooLong("variables");
            }
            if (count >= 4) {
                reading.variables.emplace(answer[2], answer[3]);
            }
        }
        if (more < 0) {
            return failure();
        }
        if (!endsOurList(count, answer, "VAR")) {
            return endedAsAnother(endLine(count, answer));
        }
        m_midList = false;
        // Commands change only with the driver: listed once per connection
        // and again after any fault.
        if (!m_commands) {
            std::string foreignEnd;
            switch (listCommands(foreignEnd)) {
                case Listed::Whole:
                    break;
                case Listed::TooLong:
                    return tooLong("commands");
                case Listed::EndedAsAnother:
                    return endedAsAnother(foreignEnd);
                case Listed::Failed:
                    if (!commandsRefused()) {
                        return failure();
                    }
                    break;
            }
        }
        reading.commands = *m_commands;
        reading.state = Reading::State::Fresh;
        return reading;
    }

    void interrupt() override { m_socket.interrupt(); }

  private:
    enum class Listed { Whole, Failed, TooLong, EndedAsAnother };

    /* LIST CMD: each line is CMD <ups> <command>. When upsd ends the list
     * as another one, `foreignEnd` is the line it ended it with. */
    Listed listCommands(std::string& foreignEnd) {
        char const* query[] = {"CMD", m_endpoint.ups.c_str()};
        if (m_library.list_start(&m_connection, 2, query) < 0) {
            return Listed::Failed;
        }
        m_midList = true;
        std::vector<std::string> commands;
        std::size_t count = 0;
        char** answer = nullptr;
        int more = 0;
        while ((more = m_library.list_next(&m_connection, 2, query, &count, &answer)) == 1) {
            if (commands.size() >= kMaxListLines) {
                return Listed::TooLong;
            }
            if (count >= 3) {
                commands.emplace_back(answer[2]);
            }
        }
        if (more < 0) {
            return Listed::Failed;
        }
        if (!endsOurList(count, answer, "CMD")) {
            foreignEnd = endLine(count, answer);
            return Listed::EndedAsAnother;
        }
        m_midList = false;
        m_commands = std::move(commands);
        return Listed::Whole;
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
        std::string failure = connectToUpsd(m_library, m_connection, m_endpoint, m_timeout);
        if (!failure.empty()) {
            reading.state = Reading::State::Unreachable;
            reading.detail = std::move(failure);
            return false;
        }
        m_connected = true;
        m_socket.attach(m_connection.fd);
        return true;
    }

    /* Whether the line a list ended with, END LIST <kind> <ups>, ends the
     * list asked for. The library takes any END LIST for the end: a upsd
     * that ended another list there (one list crossed with another) would
     * have its lines taken for this UPS's whole list. */
    bool endsOurList(std::size_t count, char** answer, char const* kind) const {
        return count >= 4 && ::strcasecmp(answer[2], kind) == 0 &&
               ::strcasecmp(answer[3], m_endpoint.ups.c_str()) == 0;
    }

    static std::string endLine(std::size_t count, char** answer) {
        std::string line;
        for (std::size_t i = 0; i < count; ++i) {
            line += (i == 0 ? "" : " ") + std::string(answer[i]);
        }
        return line;
    }

    /* A list that upsd ended as another one: none of it is taken, and the
     * connection, out of step with upsd, is opened anew next time. */
    Reading endedAsAnother(std::string const& line) {
        m_commands.reset();
        disconnect();
        Reading reading;
        reading.detail = "upsd ended the list of \"" + m_endpoint.ups + "\" with \"" + line + "\"";
        return reading;
    }

    /* A list longer than any UPS has: the rest of it is left unread, with
     * the connection it is still coming on. */
    Reading tooLong(char const* what) {
        m_commands.reset();
        disconnect();
        Reading reading;
        reading.detail =
            std::string("upsd listed more than ") + std::to_string(kMaxListLines) + " " + what;
        return reading;
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
        if (m_midList) {
            // An error inside a list: what followed it may still come, and
            // would be read as the answer to the next request.
            disconnect();
        }
        return reading;
    }

    void disconnect() {
        m_midList = false;
        if (m_connected) {
            m_socket.detach();
            m_library.disconnect(&m_connection);
            m_connected = false;
        }
    }

    UpsClientLibrary const& m_library;
    Endpoint const m_endpoint;
    std::chrono::seconds const m_timeout;
    UPSCONN_t m_connection{};
    bool m_connected = false;
    bool m_midList = false;                              // a list began and has not ended
    std::optional<std::vector<std::string>> m_commands;  // as last listed
    InterruptibleSocket m_socket;  // the connection's, as interrupt() shuts it down
};

}  // namespace

std::unique_ptr<Fetcher> makeNutFetcher(Endpoint endpoint, std::chrono::seconds timeout) {
    return std::make_unique<NutFetcher>(std::move(endpoint), timeout);
}

}  // namespace tarsel::daemon::nut
