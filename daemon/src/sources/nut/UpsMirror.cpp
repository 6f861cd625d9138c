#include "UpsMirror.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <set>
#include <sstream>

namespace tarsel::daemon::nut {

namespace {

constexpr bool kSilent = false;
constexpr bool kNotify = true;

/* The tokens of ups.status, in capitals: NUT's own monitor (upsmon) reads
 * them whatever their case, so a driver's "ob lb" means on battery, low
 * battery here too. */
std::set<std::string> tokensOf(Variables const& variables) {
    std::set<std::string> tokens;
    auto const status = variables.find(kStatusVariable);
    if (status != variables.end()) {
        std::istringstream words(status->second);
        for (std::string token; words >> token;) {
            std::transform(token.begin(), token.end(), token.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            tokens.insert(token);
        }
    }
    return tokens;
}

/* The variables but those named as a channel the mirror derives: upsd
 * never lists such names, and the channel is the mirror's. */
Variables withoutDerivedNames(Variables variables) {
    for (auto it = variables.begin(); it != variables.end();) {
        it = isDerivedName(it->first) ? variables.erase(it) : std::next(it);
    }
    return variables;
}

/* The variables of each outlet among `variables`, by outlet number. */
std::map<unsigned int, Variables> outletsOf(Variables const& variables) {
    std::map<unsigned int, Variables> outlets;
    for (auto const& [name, value] : variables) {
        if (auto const outlet = outletNumber(name)) {
            outlets[*outlet].emplace(name, value);
        }
    }
    return outlets;
}

}  // namespace

UpsMirror::UpsMirror(cdshost::Store& store, std::string upsName, cdshost::Id deviceId, IdPool& ids)
    : m_store(store), m_upsName(std::move(upsName)), m_deviceId(deviceId), m_ids(ids) {}

std::size_t UpsMirror::apply(Variables const& given) {
    m_changes = 0;
    m_failures.clear();
    m_newlyLeftOut.clear();
    if (m_present && !m_store.hasDevice(m_deviceId)) {
        throw OutOfStep("device " + std::to_string(m_deviceId) + " was removed by someone else");
    }
    Variables const variables = withoutOutletsBeyondTheLast(withoutDerivedNames(given));
    if (m_present) {
        update(variables);
    } else {
        build(variables);
    }
    m_variables = variables;
    return m_changes;
}

void UpsMirror::remove() {
    m_failures.clear();
    m_newlyLeftOut.clear();
    // A UPS that comes back says again what it leaves out.
    m_leftOut.clear();
    if (!m_present) {
        return;
    }
    m_present = false;
    m_variables.clear();
    m_channels.clear();
    m_outlets.clear();
    if (m_store.hasDevice(m_deviceId)) {
        notifying([&] { m_store.removeDevice(m_deviceId); });
    }
}

void UpsMirror::resynchronise() {
    m_present = true;
    remove();
}

/* The variables but those of outlets numbered above kMaxOutlet, which get
 * no place; the numbers not left out the last time are noted, to be said. */
Variables UpsMirror::withoutOutletsBeyondTheLast(Variables variables) {
    std::set<unsigned int> leftOut;
    for (auto it = variables.begin(); it != variables.end();) {
        auto const outlet = outletNumber(it->first);
        if (outlet && *outlet > kMaxOutlet) {
            leftOut.insert(*outlet);
            it = variables.erase(it);
        } else {
            ++it;
        }
    }
    std::set_difference(leftOut.begin(), leftOut.end(), m_leftOut.begin(), m_leftOut.end(),
                        std::back_inserter(m_newlyLeftOut));
    m_leftOut = std::move(leftOut);
    return variables;
}

void UpsMirror::build(Variables const& variables) {
    m_store.addDevice(m_upsName, m_deviceId, 0, kSilent);
    m_present = true;
    m_store.setDeviceAttribute(m_deviceId, cdsapi::AttributeName, m_upsName, kSilent);
    std::vector<cdshost::Id> const built = placeOutlets(outletsOf(variables));
    for (auto const& [name, value] : variables) {
        if (!outletNumber(name)) {
            addVariable(m_deviceId, name, value, kSilent);
        }
    }
    updateStatus(variables, kSilent);
    // Outlets are announced before their UPS, so whoever waits for the UPS
    // finds its outlets there already.
    for (cdshost::Id const outlet : built) {
        announce(outlet, kq::sub::DeviceCreated);
        announce(cdshost::kAllOnes, kq::sub::DeviceCreated);
    }
    announce(m_deviceId, kq::sub::DeviceCreated);
    announce(cdshost::kAllOnes, kq::sub::DeviceCreated);
    ++m_changes;
}

void UpsMirror::update(Variables const& variables) {
    removeVanished(variables);
    addOrChange(variables);
    updateStatus(variables, kNotify);
}

/* Each variable that is gone loses its channel and empties its attribute. An
 * outlet that goes with all its variables keeps its sub-device, emptied: an
 * entry's path names a place among the UPS's sub-devices, so removing it
 * would move every outlet after it up one place (their entries would read
 * the next outlet's name, and an outlet coming back would be added last,
 * where no entry looks for it). It takes its own place again when it comes
 * back; the whole UPS going takes its outlets with it. */
void UpsMirror::removeVanished(Variables const& variables) {
    for (auto const& [name, value] : m_variables) {
        if (variables.count(name) == 0) {
            removeVariable(name);
        }
    }
}

void UpsMirror::addOrChange(Variables const& variables) {
    std::map<unsigned int, Variables> newOutlets;
    for (auto const& [name, value] : variables) {
        auto const known = m_variables.find(name);
        if (known != m_variables.end()) {
            if (known->second != value) {
                changeVariable(name, value);
            }
            continue;
        }
        auto const outlet = outletNumber(name);
        if (!outlet) {
            addVariable(m_deviceId, name, value, kNotify);
        } else if (m_outlets.count(*outlet) != 0) {
            addVariable(m_outlets.at(*outlet), name, value, kNotify);
        } else {
            newOutlets[*outlet].emplace(name, value);
        }
    }
    addOutlets(newOutlets);
}

void UpsMirror::addOutlets(std::map<unsigned int, Variables> const& outlets) {
    std::vector<cdshost::Id> const created = placeOutlets(outlets);
    for (cdshost::Id const device : created) {
        announce(device, kq::sub::DeviceCreated);
        announce(cdshost::kAllOnes, kq::sub::DeviceCreated);
        ++m_changes;
    }
    if (!created.empty()) {
        // The UPS is announced again with its new outlets, as a card does:
        // entries over an outlet's place among the sub-devices find it then.
        // (A change notification instead would make the library take the
        // UPS for a device found again and its attribute entries unavailable.)
        announce(m_deviceId, kq::sub::DeviceCreated);
    }
}

/* Puts each outlet, silently, at its place: outlet N at N - 1 among the
 * UPS's sub-devices, where the map's entries look for it, whatever order the
 * outlets appear in. The store only appends sub-devices, so the places
 * before N that no outlet has taken yet are created first, emptied as an
 * outlet that went is kept; an outlet that comes later fills its own. The
 * outlets given have no place yet. Returns the sub-devices created, in place
 * order, to be announced. */
std::vector<cdshost::Id> UpsMirror::placeOutlets(std::map<unsigned int, Variables> const& outlets) {
    std::vector<cdshost::Id> created;
    for (auto const& [outlet, variables] : outlets) {
        while (m_outlets.size() < outlet) {
            created.push_back(addPlace(static_cast<unsigned int>(m_outlets.size()) + 1));
        }
        for (auto const& [name, value] : variables) {
            addVariable(m_outlets.at(outlet), name, value, kSilent);
        }
    }
    return created;
}

/* Outlet N's sub-device, appended at place N - 1 (places 0 to N - 2 are
 * there already), without variables yet. */
cdshost::Id UpsMirror::addPlace(unsigned int outlet) {
    cdshost::Id const device =
        m_store.addDevice(outletDeviceName(outlet), m_ids.next(), m_deviceId, kSilent);
    m_store.setDeviceAttribute(device, cdsapi::AttributeName, "", kSilent);
    m_outlets[outlet] = device;
    return device;
}

void UpsMirror::addVariable(cdshost::Id device, std::string const& name, std::string const& value,
                            bool notify) {
    cdshost::Id const id = m_ids.next();
    m_channels[name] = id;
    notifying([&] { m_store.addChannel(device, name, storeValue(name, value), id, notify); });
    setAttributeOf(device, name, value, notify);
    m_changes += notify ? 1 : 0;
}

void UpsMirror::changeVariable(std::string const& name, std::string const& value) {
    auto const known = m_channels.find(name);
    if (known == m_channels.end()) {
        throw OutOfStep("variable " + name + " has no channel");
    }
    cdshost::Id const channel = known->second;
    requireChannel(channel);
    notifying([&] { m_store.setChannelValue(channel, storeValue(name, value)); });
    auto const outlet = outletNumber(name);
    setAttributeOf(outlet ? m_outlets.at(*outlet) : m_deviceId, name, value, kNotify);
    ++m_changes;
}

void UpsMirror::removeVariable(std::string const& name) {
    auto const channel = m_channels.find(name);
    if (channel == m_channels.end()) {
        throw OutOfStep("variable " + name + " has no channel");
    }
    cdshost::Id const id = channel->second;
    requireChannel(id);
    m_channels.erase(channel);
    notifying([&] { m_store.removeChannel(id); });
    // An attribute cannot be taken away, only emptied.
    auto const outlet = outletNumber(name);
    setAttributeOf(outlet ? m_outlets.at(*outlet) : m_deviceId, name, "", kNotify);
    ++m_changes;
}

void UpsMirror::setAttributeOf(cdshost::Id device, std::string const& name,
                               std::string const& value, bool notify) {
    if (auto const outlet = outletNumber(name)) {
        // An outlet's description is its name, as the store calls it.
        if (name == outletDeviceName(*outlet) + ".desc") {
            notifying(
                [&] { m_store.setDeviceAttribute(device, cdsapi::AttributeName, value, notify); });
        }
        return;
    }
    if (auto const attribute = identityAttribute(name)) {
        notifying([&] { m_store.setDeviceAttribute(device, *attribute, value, notify); });
    }
}

void UpsMirror::updateStatus(Variables const& variables, bool notify) {
    bool const reported = variables.count(kStatusVariable) != 0;
    auto const tokens = tokensOf(variables);
    for (auto const& token : statusTokens()) {
        std::string const channel = statusChannelName(token);
        if (reported) {
            setDerived(channel, kq::CValue(tokens.count(token) != 0), notify);
        } else {
            removeDerived(channel);
        }
    }
    unsigned int const operating =
        tokens.empty() ? kOperatingStatusWaiting : kOperatingStatusRunning;
    setDerived(kOperatingStatusChannel, kq::CValue(operating), notify);
}

void UpsMirror::setDerived(std::string const& channel, kq::CValue const& value, bool notify) {
    auto const known = m_channels.find(channel);
    if (known == m_channels.end()) {
        cdshost::Id const id = m_ids.next();
        m_channels[channel] = id;
        notifying([&] { m_store.addChannel(m_deviceId, channel, value, id, notify); });
        m_changes += notify ? 1 : 0;
        return;
    }
    cdshost::Id const id = known->second;
    requireChannel(id);
    if (m_store.channelValue(id) != value) {
        notifying([&] { m_store.setChannelValue(id, value, notify); });
        ++m_changes;
    }
}

void UpsMirror::removeDerived(std::string const& channel) {
    auto const known = m_channels.find(channel);
    if (known != m_channels.end()) {
        cdshost::Id const id = known->second;
        requireChannel(id);
        m_channels.erase(known);
        notifying([&] { m_store.removeChannel(id); });
        ++m_changes;
    }
}

void UpsMirror::announce(cdshost::Id device, kq::sub::subscription_type type) {
    notifying([&] { m_store.notifyDevice(device, type); });
}

void UpsMirror::requireChannel(cdshost::Id channel) const {
    if (!m_store.hasChannel(channel)) {
        throw OutOfStep("channel " + std::to_string(channel) + " was removed by someone else");
    }
}

template <typename Change>
void UpsMirror::notifying(Change const& change) {
    // The store makes a change before it notifies, and calls every listener
    // even when one throws: what a listener throws leaves the store as this
    // mirror wants it, so it is reported and the mirror goes on.
    try {
        change();
    } catch (std::exception const& error) {
        m_failures.emplace_back(error.what());
    }
}

}  // namespace tarsel::daemon::nut
