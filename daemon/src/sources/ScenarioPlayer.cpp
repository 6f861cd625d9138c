// Playing a scenario into the simulated data store.
#include <algorithm>
#include <cmath>

#include "MapModel.h"
#include "Scenario.h"

namespace tarsel::daemon {

namespace {

using json = nlohmann::json;

cdsapi::DeviceAttribute attributeOf(json const& value) {
    if (value.is_number_unsigned()) {
        return static_cast<cdsapi::DeviceAttribute>(value.get<unsigned>());
    }
    return attributeFromName(value.get<std::string>()).value();
}

/* The run-th of the event's values: "values" cycle, "value" stays. */
json const& pick(json const& body, std::size_t run) {
    if (body.contains("values")) {
        json const& values = body["values"];
        return values[run % values.size()];
    }
    return body["value"];
}

/* The object or array the field holds, or an empty one; unlike
 * json::value(), without copying it (a device may have thousands of
 * channels). */
json const& fieldOrEmpty(json const& object, char const* key, json::value_t type) {
    static json const kNoObject = json::object();
    static json const kNoArray = json::array();
    auto const found = object.find(key);
    if (found != object.end()) {
        return *found;
    }
    return type == json::value_t::array ? kNoArray : kNoObject;
}

/* The first time whose elapsed seconds since `start`, as playDue() reads
 * them, reach `seconds`: the event is due from then on and not before. The
 * cast to ticks alone can land a tick either side of it (a time that is not
 * a whole number of nanoseconds; past 2^23 s, one that several ticks read
 * as); the division rounds monotonically, so a few steps settle it. A time
 * the clock cannot reach (with room to spare for the steps) is never. */
ScenarioPlayer::Clock::time_point firstTickAt(ScenarioPlayer::Clock::time_point start,
                                              double seconds) {
    using Clock = ScenarioPlayer::Clock;
    using Seconds = std::chrono::duration<double>;
    constexpr Clock::duration kTick{1};
    Clock::duration const room = Clock::time_point::max() - start;
    if (!(seconds < Seconds(room).count() / 2)) {
        return Clock::time_point::max();
    }
    auto tick = std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    while (Seconds(tick).count() < seconds) {
        tick += kTick;
    }
    while (Seconds(tick - kTick).count() >= seconds) {
        tick -= kTick;
    }
    return start + tick;
}

}  // namespace

ScenarioPlayer::ScenarioPlayer(Scenario scenario, cdshost::Store& store, Log& log)
    : m_store(store), m_log(log), m_devices(std::move(scenario.devices)) {
    for (auto& event : scenario.events) {
        double const at = event.at;
        m_pending.push_back({std::move(event), at, 0});
    }
}

void ScenarioPlayer::seed() {
    std::vector<std::string> refused;
    for (std::size_t i = 0; i < m_devices.size(); ++i) {
        try {
            addDevice(m_devices[i], "devices[" + std::to_string(i) + "]", 0, false);
        } catch (std::invalid_argument const& error) {
            refused.emplace_back(error.what());
        }
    }
    if (!refused.empty()) {
        throw ScenarioError(std::move(refused));
    }
    // The store holds the devices now; their description is not needed again
    // and, for a large world, is megabytes of parsed JSON.
    m_devices = nlohmann::json();
}

void ScenarioPlayer::start(Clock::time_point now) {
    m_start = now;
    m_earliestKnown = false;  // its time counts from the start
}

ScenarioPlayer::Pending* ScenarioPlayer::earliest() {
    // The loop asks on every pass; only a run changes the answer.
    if (m_earliestKnown) {
        return m_earliest < m_pending.size() ? &m_pending[m_earliest] : nullptr;
    }
    Pending* best = nullptr;
    for (auto& pending : m_pending) {
        bool const live = pending.event.times == 0 || pending.runs < pending.event.times;
        if (live && (best == nullptr || pending.next < best->next)) {
            best = &pending;
        }
    }
    m_earliest =
        best != nullptr ? static_cast<std::size_t>(best - m_pending.data()) : m_pending.size();
    m_earliestAt = best != nullptr ? firstTickAt(m_start, best->next) : Clock::time_point::max();
    m_earliestKnown = true;
    return best;
}

std::optional<ScenarioPlayer::Clock::time_point> ScenarioPlayer::nextDue() const {
    auto* self = const_cast<ScenarioPlayer*>(this);
    if (self->earliest() == nullptr) {
        return std::nullopt;
    }
    return m_earliestAt;
}

void ScenarioPlayer::playDue(Clock::time_point now) {
    // Before that tick nothing is due; from it on, seconds decide as they
    // always did.
    if (earliest() == nullptr || now < m_earliestAt) {
        return;
    }
    double const elapsed = std::chrono::duration<double>(now - m_start).count();
    std::size_t runs = 0;
    for (Pending* next = earliest();
         next != nullptr && next->next <= elapsed && runs < kRunsPerPass; next = earliest()) {
        run(*next);
        ++runs;
    }
}

void ScenarioPlayer::playFirst(double seconds) {
    // What the clock cannot reach never comes, here as when playing along
    // the clock: past it, a second added to an event's time could leave it
    // where it was, and the loop below would never end.
    using Seconds = std::chrono::duration<double>;
    double const reachable = Seconds(Clock::duration::max()).count() / 2;
    seconds = std::min(seconds, reachable);
    for (Pending* next = earliest(); next != nullptr && next->next <= seconds; next = earliest()) {
        run(*next);
    }
}

void ScenarioPlayer::run(Pending& pending) {
    try {
        apply(pending.event, pending.runs);
    } catch (std::exception const& error) {
        // A scenario step that does not fit the store as it is now (a device
        // already removed, say) is reported and the scenario goes on. A
        // repeat fails the same way each run: a few lines a minute per event,
        // then a count, rather than one line every period.
        m_log.limited(
            Log::Level::Warning, "scenario " + pending.event.path,
            "scenario " + pending.event.path + " (" + pending.event.action + "): " + error.what());
    } catch (cdshost::ForeignFault const& fault) {
        m_log.limited(Log::Level::Warning, "scenario " + pending.event.path,
                      "scenario " + pending.event.path + ": foreign fault in " + fault.operation);
    }
    ++pending.runs;
    ++m_played;
    m_earliestKnown = false;
    // An event without "every" runs once per its "times" at the same moment.
    // A repeat's time is counted from "at", not added up run by run: the
    // rounding of each addition would move the schedule a little further
    // every run (0.1 added 15 times is more than 1.5).
    if (pending.event.every > 0) {
        pending.next = pending.event.at + static_cast<double>(pending.runs) * pending.event.every;
    }
}

void ScenarioPlayer::apply(ScenarioEvent const& event, std::size_t run) {
    json const& body = event.body;
    std::string const& action = event.action;
    m_log.debug("scenario " + event.path + ": " + action);
    if (action == "log") {
        m_log.info("scenario: " + body["text"].get<std::string>());
    } else if (action == "add-device") {
        unsigned long long const parent =
            body.contains("parent")
                ? resolveDevice({{"device", body["parent"]},
                                 {"path", body.value("parentPath", json::array())}})
                : 0;
        addDevice(body["device"], event.path + ".device", parent,
                  body.value("parentChanged", true));
    } else if (action == "remove-device") {
        m_store.removeDevice(resolveDevice(body));
    } else if (action == "rename-device") {
        rename(resolveDevice(body), body["name"].get<std::string>());
    } else if (action == "set-channel") {
        m_store.setChannelValue(resolveChannel(body), valueFromJson(pick(body, run)));
    } else if (action == "add-channel") {
        m_store.addChannel(resolveDevice(body), body["channel"].get<std::string>(),
                           body.contains("value") ? valueFromJson(body["value"]) : kq::CValue());
    } else if (action == "remove-channel") {
        m_store.removeChannel(resolveChannel(body));
    } else if (action == "set-attribute") {
        m_store.setDeviceAttribute(resolveDevice(body), attributeOf(body["attribute"]),
                                   pick(body, run).get<std::string>());
    } else if (action == "raise-alarm") {
        kq::CAlarmRecord record;
        record.level = body["level"].get<std::int32_t>();
        record.direction = body.value("direction", true);
        m_store.raiseAlarm(resolveChannel(body), record);
    } else if (action == "clear-alarm") {
        m_store.clearAlarm(resolveChannel(body));
    } else if (action == "notify-device") {
        bool const created = body["event"].get<std::string>() == "created";
        m_store.notifyDevice(resolveDevice(body),
                             created ? kq::sub::DeviceCreated : kq::sub::DeviceChanged);
    } else if (action == "alarm-settings") {
        applyAlarmSettings(resolveChannel(body), body["settings"]);
    }
}

unsigned long long ScenarioPlayer::addDevice(json const& device, std::string const& where,
                                             unsigned long long parent, bool parentChanged) {
    // The device is built silently with everything it holds, then announced:
    // a device appears in the data store whole, never without its channels.
    // Sub-devices are announced before their parent, so whoever waits for the
    // parent finds its sub-devices there already.
    std::vector<std::pair<cdshost::Id, cdshost::Id>> created;
    cdshost::Id const id = buildDevice(device, where, parent, created);
    for (auto it = created.rbegin(); it != created.rend(); ++it) {
        announce(it->first, kq::sub::DeviceCreated);
        announce(cdshost::kAllOnes, kq::sub::DeviceCreated);
        if (it->first == id && parent != 0 && parentChanged) {
            announce(parent, kq::sub::DeviceChanged);
        }
    }
    return id;
}

void ScenarioPlayer::announce(cdshost::Id device, kq::sub::subscription_type type) {
    try {
        m_store.notifyDevice(device, type);
    } catch (std::exception const& error) {
        // The store has told every listener; one of them failed.
        m_log.warning("scenario: a listener failed on the creation of device " +
                      std::to_string(device) + ": " + error.what());
    }
}

cdshost::Id ScenarioPlayer::buildDevice(json const& device, std::string const& where,
                                        cdshost::Id parent,
                                        std::vector<std::pair<cdshost::Id, cdshost::Id>>& created) {
    constexpr bool kSilent = false;
    std::string const name = device["name"].get<std::string>();
    cdshost::Id id = 0;
    try {
        id = m_store.addDevice(name, device.value("id", 0ULL), parent, kSilent);
    } catch (std::invalid_argument const& error) {
        // An id in use: one the store gave a device of the scenario that has
        // none, which the file's checks cannot foresee.
        throw std::invalid_argument(where + ": " + error.what());
    }
    created.emplace_back(id, parent);
    m_names[name] = id;
    json const& attributes = fieldOrEmpty(device, "attributes", json::value_t::object);
    json const& channels = fieldOrEmpty(device, "channels", json::value_t::object);
    json const& alarms = fieldOrEmpty(device, "alarms", json::value_t::object);
    for (auto const& item : attributes.items()) {
        m_store.setDeviceAttribute(id, attributeFromName(item.key()).value(),
                                   item.value().get<std::string>(), kSilent);
    }
    for (auto const& item : channels.items()) {
        m_store.addChannel(id, item.key(), valueFromJson(item.value()), 0, kSilent);
    }
    for (auto const& item : alarms.items()) {
        cdshost::Id channel = m_store.channelId(id, item.key());
        if (channel == 0) {
            channel = m_store.addChannel(id, item.key(), {}, 0, kSilent);
        }
        applyAlarmSettings(channel, item.value(), kSilent);
    }
    json const& subDevices = fieldOrEmpty(device, "subDevices", json::value_t::array);
    for (std::size_t i = 0; i < subDevices.size(); ++i) {
        buildDevice(subDevices[i], where + ".subDevices[" + std::to_string(i) + "]", id, created);
    }
    return id;
}

/* The device goes by its new name from now on, in the scenario as in the
 * store. */
void ScenarioPlayer::rename(unsigned long long device, std::string const& name) {
    m_store.renameDevice(device, name);
    for (auto it = m_names.begin(); it != m_names.end();) {
        it = it->second == device ? m_names.erase(it) : std::next(it);
    }
    m_names[name] = device;
}

unsigned long long ScenarioPlayer::resolveDevice(json const& body) const {
    json const& ref = body["device"];
    unsigned long long id = 0;
    if (ref.is_number_unsigned()) {
        id = ref.get<unsigned long long>();
    } else {
        auto const found = m_names.find(ref.get<std::string>());
        if (found == m_names.end()) {
            throw std::runtime_error("no device named \"" + ref.get<std::string>() + "\"");
        }
        id = found->second;
    }
    json const path = body.value("path", json::array());
    for (auto const& index : path) {
        auto const subs = m_store.subDevices(id);
        std::size_t const i = index.get<std::size_t>();
        if (i >= subs.size()) {
            throw std::runtime_error("device " + std::to_string(id) + " has no sub-device " +
                                     std::to_string(i));
        }
        id = subs[i];
    }
    if (!m_store.hasDevice(id)) {
        throw std::runtime_error("no device " + std::to_string(id));
    }
    return id;
}

unsigned long long ScenarioPlayer::resolveChannel(json const& body) const {
    unsigned long long const device = resolveDevice(body);
    std::string const name = body["channel"].get<std::string>();
    unsigned long long const channel = m_store.channelId(device, name);
    if (channel == 0) {
        throw std::runtime_error("device " + std::to_string(device) + " has no channel \"" + name +
                                 "\"");
    }
    return channel;
}

void ScenarioPlayer::applyAlarmSettings(unsigned long long channel, json const& settings,
                                        bool notify) {
    if (settings.contains("thresholds")) {
        for (std::uint32_t i = 0; i < 4; ++i) {
            m_store.setAlarmThreshold(channel, static_cast<cdsapi::TriggerId>(i),
                                      settings["thresholds"][i].get<float>(), notify);
        }
    }
    if (settings.contains("thresholdFlag")) {
        m_store.setAlarmThresholdFlag(channel, settings["thresholdFlag"].get<bool>(), notify);
    }
    if (settings.contains("hysteresis")) {
        m_store.setAlarmHysteresis(channel, settings["hysteresis"].get<float>(), notify);
    }
    if (settings.contains("level")) {
        m_store.setAlarmLevel(channel, settings["level"].get<std::int32_t>(), notify);
    }
    if (settings.contains("enabled")) {
        m_store.setAlarmEnabled(channel, settings["enabled"].get<bool>(), notify);
    }
}

}  // namespace tarsel::daemon
