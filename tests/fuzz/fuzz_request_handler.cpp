// Arbitrary bytes as one Modbus TCP frame, from a client with or without
// the right to write, against the shipped map over a running UPS: the
// handler must answer or refuse, and every answer must encode.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "DaemonCore.h"
#include "EmbeddedDefaults.h"
#include "MapLoader.h"
#include "ResponseEncoder.h"

namespace {

using namespace tarsel::daemon;

/* The shipped scenario with its UPS present and running from the start and
 * no timed events: the whole map is served. */
std::string runningUps() {
    auto scenario = nlohmann::json::parse(embeddedScenario());
    for (auto const& event : scenario["events"]) {
        if (event["do"] == "add-device" && event["at"] == 2) {
            auto ups = event["device"];
            ups["channels"]["PowerDistribution.Status.OperatingStatus"] = {{"uint32", 16}};
            scenario["devices"].push_back(ups);
        }
    }
    scenario["events"] = nlohmann::json::array();
    return scenario.dump();
}

struct World {
    std::ostringstream logText;
    Log log{logText, false};
    AccessRules rules;
    std::unique_ptr<DaemonCore> core;

    World() {
        CoreConfig config;
        config.map = parseRegisterMap(embeddedMap());
        config.scenario = parseScenario(runningUps());
        core = std::make_unique<DaemonCore>(std::move(config), log);
        applyAllowOption(rules, true, "coils=127.0.0.1");
    }
};

World& world() {
    static World instance;
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    World& w = world();
    if (size == 0) {
        return 0;
    }
    // The first byte picks who asks: the rest is the frame.
    std::uint8_t const who = data[0];
    RequestOrigin const origin{"127.0.0.1:1", (who & 1) ? 0x7F000002u : 0x7F000001u,
                               (who & 2) ? &w.rules : nullptr, (who & 4) == 0};
    Answer const answer = w.core->handler().handle(data + 1, size - 1, origin);
    if (!answer.closeConnection && size - 1 >= 7) {
        auto const frame = encodeResponse(data + 1, size - 1, answer);
        if (frame.size() < 9 || frame.size() > 260) {
            throw std::logic_error("answer frame of impossible size");
        }
    }
    // Keeps the log from growing without bound over millions of runs.
    w.logText.str("");
    return 0;
}
