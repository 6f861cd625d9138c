// The fetcher over NUT's C++ client: one TCP connection per UPS, opened
// again after any failure, with a timeout on every round trip.
#include <nutclient.h>

#include "Poller.h"

namespace tarsel::daemon::nut {

namespace {

bool mentions(std::string const& text, char const* word) {
    return text.find(word) != std::string::npos;
}

class NutFetcher : public Fetcher {
  public:
    NutFetcher(Endpoint endpoint, std::chrono::seconds timeout)
        : m_endpoint(std::move(endpoint)), m_timeout(timeout) {}

    Reading fetch() override {
        Reading reading;
        try {
            connect();
            for (auto const& [name, values] : m_client.getDeviceVariableValues(m_endpoint.ups)) {
                // A variable has one value; LIST VAR never gives it more.
                reading.variables.emplace(name, values.empty() ? std::string() : values.front());
            }
            reading.state = Reading::State::Fresh;
        } catch (::nut::IOException const& error) {
            // Timeouts, refused connections, a upsd that went away: start
            // with a new connection next time.
            disconnect();
            reading.state = Reading::State::Unreachable;
            reading.detail = error.what();
        } catch (::nut::NutException const& error) {
            reading.detail = error.what();
            reading.state = classify(reading.detail);
        }
        return reading;
    }

  private:
    /* What upsd's refusal of LIST VAR means. */
    static Reading::State classify(std::string const& error) {
        if (mentions(error, "DATA-STALE") || mentions(error, "DRIVER-NOT-CONNECTED")) {
            return Reading::State::Stale;
        }
        if (mentions(error, "UNKNOWN-UPS")) {
            return Reading::State::Unknown;
        }
        return Reading::State::Unreachable;
    }

    void connect() {
        if (!m_connected) {
            m_client.setTimeout(static_cast<time_t>(m_timeout.count()));
            m_client.connect(m_endpoint.host, m_endpoint.port);
            m_connected = true;
        }
    }

    void disconnect() {
        m_connected = false;
        try {
            m_client.disconnect();
        } catch (::nut::NutException const&) {
            // Closing a connection that already failed may fail again.
        }
    }

    Endpoint const m_endpoint;
    std::chrono::seconds const m_timeout;
    ::nut::TcpClient m_client;
    bool m_connected = false;
};

}  // namespace

std::unique_ptr<Fetcher> makeNutFetcher(Endpoint endpoint, std::chrono::seconds timeout) {
    return std::make_unique<NutFetcher>(std::move(endpoint), timeout);
}

}  // namespace tarsel::daemon::nut
