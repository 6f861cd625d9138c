#include <algorithm>
#include <thread>

#include "Commander.h"
#include "HostResolver.h"
#include "InterruptibleSocket.h"
#include "sources/nut/UpsClientLibrary.h"

namespace tarsel::daemon::nut {

namespace {

using Clock = std::chrono::steady_clock;

// How often a tracked command is asked after.
constexpr std::chrono::milliseconds kTrackingPeriod{100};
constexpr std::size_t kLineLength = 512;

/* One session with upsd; closed on every way out. */
class Session {
  public:
    Session(Endpoint const& endpoint, std::chrono::seconds connectTimeout,
            Clock::time_point deadline)
        : m_library(UpsClientLibrary::instance()), m_deadline(deadline) {
        if (!m_library.loaded()) {
            m_failure = m_library.failure();
            return;
        }
        m_failure = connectToUpsd(m_library, m_connection, endpoint, connectTimeout);
        m_open = m_failure.empty();
    }
    ~Session() {
        if (m_open) {
            m_library.disconnect(&m_connection);
        }
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    bool open() const { return m_open; }
    std::string const& failure() const { return m_failure; }
    /* The connection's socket; -1 when it is not open. */
    int socket() const { return m_open ? m_connection.fd : -1; }

    /* Sends a line and reads upsd's one-line answer; nothing when upsd did
     * not answer by the deadline or the connection failed (see failure()). */
    std::optional<std::string> ask(std::string const& line) {
        std::string const sent = line + "\n";
        time_t const wait = secondsLeft();
        if (wait <= 0) {
            m_failure = "no answer in time";
            return std::nullopt;
        }
        if (m_library.sendline_timeout(&m_connection, sent.c_str(), sent.size(), wait) < 0) {
            m_failure = m_library.strerror(&m_connection);
            return std::nullopt;
        }
        char buffer[kLineLength] = {};
        if (m_library.readline_timeout(&m_connection, buffer, sizeof buffer, secondsLeft()) < 0) {
            m_failure = m_library.strerror(&m_connection);
            return std::nullopt;
        }
        std::string answer = buffer;
        while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r')) {
            answer.pop_back();
        }
        return answer;
    }

  private:
    /* The library waits in whole seconds: what is left, rounded up, so a
     * silent upsd costs the whole bound (and less than a second more). */
    time_t secondsLeft() const {
        auto const left = m_deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            return 0;
        }
        return static_cast<time_t>(std::chrono::ceil<std::chrono::seconds>(left).count());
    }

    UpsClientLibrary const& m_library;
    Clock::time_point const m_deadline;
    UPSCONN_t m_connection{};
    bool m_open = false;
    std::string m_failure;
};

bool isError(std::string const& answer) {
    return answer.compare(0, 4, "ERR ") == 0;
}

/* "ERR ACCESS-DENIED" -> "ACCESS-DENIED". */
std::string errorOf(std::string const& answer) {
    std::string const rest = answer.substr(4);
    return rest.substr(0, rest.find(' '));
}

class NutCommander : public Commander {
  public:
    NutCommander(Endpoint endpoint, Credentials credentials, std::chrono::seconds connectTimeout,
                 std::chrono::milliseconds bound)
        : m_endpoint(std::move(endpoint)),
          m_credentials(std::move(credentials)),
          m_connectTimeout(connectTimeout),
          m_bound(bound) {}

    CommandResult run(Command const& command) override {
        m_socket.reset();
        Clock::time_point const deadline = Clock::now() + m_bound;
        Session session(m_endpoint, m_connectTimeout, deadline);
        CommandResult result;
        if (!session.open()) {
            result.detail = "cannot reach upsd: " + session.failure();
            return result;
        }
        // Destroyed before the session, which closes the socket.
        InterruptibleSocket::Use const use(m_socket, session.socket());
        result = exchange(session, command, deadline);
        if (m_socket.interrupted() && result.status == CommandResult::Status::NoAnswer) {
            result.detail = "no answer from upsd: the exchange outlived its bound";
        }
        return result;
    }

    void interrupt() override { m_socket.interrupt(); }

  private:
    /* What upsd made of the command, over an open session. */
    CommandResult exchange(Session& session, Command const& command, Clock::time_point deadline) {
        CommandResult result;
        // upsd checks the user when the command comes, not at log-in: a
        // wrong password shows as ACCESS-DENIED on the command itself.
        for (std::string const& line : {"USERNAME " + quotedWord(m_credentials.username),
                                        "PASSWORD " + quotedWord(m_credentials.password)}) {
            std::optional<std::string> const answer = session.ask(line);
            if (!answer) {
                return noAnswer(session);
            }
            if (isError(*answer)) {
                return refused(*answer);
            }
        }
        // Older upsd has no tracking: an OK then only says upsd passed the
        // command on to the driver.
        std::optional<std::string> const tracking = session.ask("SET TRACKING ON");
        if (!tracking) {
            return noAnswer(session);
        }
        std::optional<std::string> const answer = session.ask(command.line());
        if (!answer) {
            return noAnswer(session);
        }
        if (isError(*answer)) {
            return refused(*answer);
        }
        static std::string const kTracked = "OK TRACKING ";
        if (answer->compare(0, kTracked.size(), kTracked) != 0) {
            result.status = CommandResult::Status::Done;
            result.detail = *answer;
            return result;
        }
        return follow(session, answer->substr(kTracked.size()), deadline);
    }

    static CommandResult noAnswer(Session const& session) {
        CommandResult result;
        result.detail = "no answer from upsd: " + session.failure();
        return result;
    }

    static CommandResult refused(std::string const& answer) {
        CommandResult result;
        result.status = CommandResult::Status::Refused;
        result.detail = errorOf(answer);
        return result;
    }

    /* Asks after a tracked command until upsd knows how it ended. */
    static CommandResult follow(Session& session, std::string const& id,
                                Clock::time_point deadline) {
        CommandResult result;
        result.tracked = true;
        for (;;) {
            std::optional<std::string> const state = session.ask("GET TRACKING " + id);
            if (!state) {
                return noAnswer(session);
            }
            if (*state == "SUCCESS") {
                result.status = CommandResult::Status::Done;
                result.detail = *state;
                return result;
            }
            if (isError(*state)) {
                result.status = CommandResult::Status::Failed;
                result.detail = errorOf(*state);
                return result;
            }
            if (Clock::now() + kTrackingPeriod >= deadline) {
                result.detail = "upsd still tracks it as " + *state;
                return result;
            }
            std::this_thread::sleep_for(kTrackingPeriod);
        }
    }

    Endpoint const m_endpoint;
    Credentials const m_credentials;
    std::chrono::seconds const m_connectTimeout;
    std::chrono::milliseconds const m_bound;
    InterruptibleSocket m_socket;
};

}  // namespace

std::unique_ptr<Commander> makeNutCommander(Endpoint endpoint, Credentials credentials,
                                            std::chrono::seconds connectTimeout,
                                            std::chrono::milliseconds bound) {
    return std::make_unique<NutCommander>(std::move(endpoint), std::move(credentials),
                                          connectTimeout, bound);
}

}  // namespace tarsel::daemon::nut
