// A scenario for the simulated data store: the devices present at start and
// timed events (a device detected, values changing, an outlet appearing and
// disappearing, alarms, attribute changes).
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Log.h"
#include "cdshost/store.h"

namespace tarsel::daemon {

/* The shortest "every" a scenario may give: a shorter period asks for more
 * runs than the loop can play, and one below the resolution of its seconds
 * would never move the event's time on. */
constexpr double kShortestPeriodSeconds = 0.001;

/* A scenario file that cannot be played; errors() lists every problem. */
class ScenarioError : public std::runtime_error {
  public:
    explicit ScenarioError(std::vector<std::string> errors);
    std::vector<std::string> const& errors() const { return m_errors; }

  private:
    std::vector<std::string> m_errors;
};

struct ScenarioEvent {
    std::string path;  // "events[3]", for logs
    double at = 0.0;   // seconds after the start
    double every = 0.0;
    std::size_t times = 1;  // how often it runs; 0: for ever (with every)
    std::string action;
    nlohmann::json body;
};

struct Scenario {
    std::string description;
    nlohmann::json devices = nlohmann::json::array();
    std::vector<ScenarioEvent> events;
};

/* Parses and checks a scenario; throws ScenarioError. */
Scenario parseScenario(std::string const& text);

/* The actions a scenario event may name. */
std::vector<std::string> scenarioActions();

/* What a valid scenario may still get wrong, one line each: a scenario that
 * never names the operating-status channel the availability check reads
 * never lets the map be served. */
std::vector<std::string> scenarioWarnings(Scenario const& scenario);

/* Plays a scenario into the store, on the caller's thread: the data store
 * then notifies the library on that same thread. */
class ScenarioPlayer {
  public:
    using Clock = std::chrono::steady_clock;

    ScenarioPlayer(Scenario scenario, cdshost::Store& store, Log& log);

    /* Creates the devices of the scenario's start, once: their description
     * is let go afterwards. Throws ScenarioError naming each device the
     * store refuses (an id it gave a device without one already). */
    void seed();
    /* Counts event times from now. */
    void start(Clock::time_point now);
    /* Runs the events that are due at `now`, in time order, at most
     * kRunsPerPass of them: what is left stays due, so the loop comes back
     * at once, having heard its clients and signals in between. */
    void playDue(Clock::time_point now);
    /* Runs, at once, every event due within `seconds` of the start. */
    void playFirst(double seconds);
    /* When the next event is due; nothing when none is left. */
    std::optional<Clock::time_point> nextDue() const;
    std::size_t played() const { return m_played; }

    static constexpr std::size_t kRunsPerPass = 1000;

  private:
    struct Pending {
        ScenarioEvent event;
        double next;  // seconds after the start
        std::size_t runs = 0;
    };

    Pending* earliest();
    void run(Pending& pending);
    void apply(ScenarioEvent const& event, std::size_t run);
    unsigned long long addDevice(nlohmann::json const& device, std::string const& where,
                                 unsigned long long parent, bool parentChanged);
    void rename(unsigned long long device, std::string const& name);
    unsigned long long resolveDevice(nlohmann::json const& body) const;
    unsigned long long resolveChannel(nlohmann::json const& body) const;
    cdshost::Id buildDevice(nlohmann::json const& device, std::string const& where,
                            cdshost::Id parent,
                            std::vector<std::pair<cdshost::Id, cdshost::Id>>& created);
    void announce(cdshost::Id device, kq::sub::subscription_type type);
    void applyAlarmSettings(unsigned long long channel, nlohmann::json const& settings,
                            bool notify = true);

    cdshost::Store& m_store;
    Log& m_log;
    nlohmann::json m_devices;
    std::vector<Pending> m_pending;
    // Where earliest() found it (past the end: none), until a run changes it.
    std::size_t m_earliest = 0;
    bool m_earliestKnown = false;
    // The first tick at which that event is due (max: none), for the loop's
    // questions on every pass: a comparison instead of arithmetic in seconds.
    Clock::time_point m_earliestAt = Clock::time_point::max();
    std::map<std::string, unsigned long long> m_names;
    Clock::time_point m_start{};
    std::size_t m_played = 0;
};

/* A scenario value as the store's tagged value: {"float": 1.5}, {"uint32": 7},
 * ... or a plain JSON bool, integer (int32), number (float) or string. */
kq::CValue valueFromJson(nlohmann::json const& value);

}  // namespace tarsel::daemon
