// Helpers of the daemon's unit tests: Modbus TCP frames built by hand, and a
// daemon core over the simulated data store.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "DaemonCore.h"
#include "Log.h"
#include "MapLoader.h"
#include "RemoteWrites.h"
#include "Scenario.h"
#include "cdshost/store.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon::testing {

inline std::vector<std::uint8_t> frame(std::vector<std::uint8_t> const& pdu,
                                       std::uint8_t unit = 1) {
    auto const length = static_cast<std::uint16_t>(pdu.size() + 1);
    // Sized once and filled in place: GCC 12, with -fsanitize=thread, warns
    // (-Warray-bounds) about the header-then-insert form, wrongly.
    std::vector<std::uint8_t> bytes(7 + pdu.size());
    bytes[1] = 0x01;
    bytes[4] = static_cast<std::uint8_t>(length >> 8);
    bytes[5] = static_cast<std::uint8_t>(length & 0xFF);
    bytes[6] = unit;
    std::copy(pdu.begin(), pdu.end(), bytes.begin() + 7);
    return bytes;
}

inline void appendWord(std::vector<std::uint8_t>& bytes, std::uint16_t word) {
    bytes.push_back(static_cast<std::uint8_t>(word >> 8));
    bytes.push_back(static_cast<std::uint8_t>(word & 0xFF));
}

/* Functions 1 to 6: a function code and two words. */
inline std::vector<std::uint8_t> request(std::uint8_t function, std::uint16_t address,
                                         std::uint16_t second, std::uint8_t unit = 1) {
    std::vector<std::uint8_t> pdu = {function};
    appendWord(pdu, address);
    appendWord(pdu, second);
    return frame(pdu, unit);
}

inline std::vector<std::uint8_t> writeRegisters(std::uint16_t address,
                                                std::vector<std::uint16_t> const& words) {
    std::vector<std::uint8_t> pdu = {16};
    appendWord(pdu, address);
    appendWord(pdu, static_cast<std::uint16_t>(words.size()));
    pdu.push_back(static_cast<std::uint8_t>(words.size() * 2));
    for (auto const word : words) {
        appendWord(pdu, word);
    }
    return frame(pdu);
}

inline std::vector<std::uint8_t> writeCoils(std::uint16_t address, std::vector<bool> const& bits) {
    std::vector<std::uint8_t> pdu = {15};
    appendWord(pdu, address);
    appendWord(pdu, static_cast<std::uint16_t>(bits.size()));
    std::vector<std::uint8_t> packed((bits.size() + 7) / 8, 0);
    for (std::size_t i = 0; i < bits.size(); ++i) {
        packed[i / 8] = static_cast<std::uint8_t>(packed[i / 8] | (bits[i] ? 1u << (i % 8) : 0u));
    }
    pdu.push_back(static_cast<std::uint8_t>(packed.size()));
    pdu.insert(pdu.end(), packed.begin(), packed.end());
    return frame(pdu);
}

/* A daemon core over a map and a scenario given as JSON texts. */
class TestDaemon {
  public:
    TestDaemon(std::string const& map, std::string const& scenario, bool verbose = true)
        : m_log(m_logText, verbose) {
        CoreConfig config;
        config.map = parseRegisterMap(map);
        config.scenario = parseScenario(scenario);
        m_core = std::make_unique<DaemonCore>(std::move(config), m_log);
    }

    Answer ask(std::vector<std::uint8_t> const& bytes) {
        return m_core->handler().handle(bytes.data(), bytes.size());
    }

    DaemonCore& core() { return *m_core; }
    Log& log() { return m_log; }
    void stop() { m_core.reset(); }
    std::string logText() const { return m_logText.str(); }

    /* The channel's current value in the store. */
    static kq::CValue channel(unsigned long long device, std::string const& name) {
        auto& store = cdshost::Store::instance();
        return store.channelValue(store.channelId(device, name));
    }
    static void setChannel(unsigned long long device, std::string const& name,
                           kq::CValue const& value) {
        auto& store = cdshost::Store::instance();
        store.setChannelValue(store.channelId(device, name), value);
    }

  private:
    std::ostringstream m_logText;
    Log m_log;
    std::unique_ptr<DaemonCore> m_core;
};

/* Takes every write to another system and keeps how to tell its outcome,
 * so a test decides when and how each one ends. */
class HeldWrites : public RemoteWrites {
  public:
    bool owns(ServedEntry const&) const override { return true; }
    std::optional<RemoteOutcome> start(ServedEntry const&, std::vector<std::uint16_t> const&,
                                       std::string const&, Done done) override {
        pending.push_back(std::move(done));
        return std::nullopt;
    }
    std::vector<Done> pending;
};

/* Two running UPSes (devices 2 and 3, channel T 5 and 7): the map serves
 * the first under unit id 1 and, moved onto the second, under unit id 9. */
inline CoreConfig twoUpsConfig(char const* map) {
    CoreConfig config;
    config.map = parseRegisterMap(map);
    config.scenario = parseScenario(R"({"devices": [
      {"id": 2, "name": "first", "channels": {
        "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}},
      {"id": 3, "name": "second", "channels": {"T": 7}}]})");
    config.moreUnits.push_back({9, nut::mapForUps(config.map, 1)});
    return config;
}

}  // namespace tarsel::daemon::testing
