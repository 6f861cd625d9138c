// The registry pattern of the channel, device and alarm accessors: many
// accessors share one data-store subscription per id.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <vector>

#include "cdsapi/in_band_accessor.h"
#include "modbus/CdsInBandAccessor.h"

namespace modbus::shared_registry {

/* The connection, fetched anew for every data-store operation. */
inline cdsapi::InBandAccessor& inBand() {
    return CdsInBandAccessor::getInstance().inBand();
}

/* Adds an accessor under an id. Only the first accessor of the id opens the
 * data-store subscription: `subscribe(id, &subscriptionId)` is called then and
 * the id it writes is kept. Its exceptions propagate, and a failed add takes
 * back the entry it made: an accessor must never sit under an id that has no
 * subscription, or its removal would hand unsubscribe() an id 0 and, should
 * that fail, keep the id registered without a subscription for good. */
template <typename Accessor, typename Subscribe>
void add(std::map<unsigned long long, std::set<Accessor*>>& accessors,
         std::map<unsigned long long, unsigned long long>& subscriptionIds, unsigned long long id,
         Accessor* accessor, Subscribe subscribe) {
    bool const inserted = accessors[id].insert(accessor).second;
    if (subscriptionIds.count(id) != 0) {
        return;
    }
    unsigned long long subscriptionId = 0;
    try {
        subscribe(id, &subscriptionId);
    } catch (...) {
        auto const entry = accessors.find(id);
        if (inserted && entry != accessors.end()) {
            entry->second.erase(accessor);
            if (entry->second.empty()) {
                accessors.erase(entry);
            }
        }
        throw;
    }
    subscriptionIds[id] = subscriptionId;
}

/* Removes an accessor from an id; the last one closes the subscription. Never
 * throws: an id that was never registered (map::at) simply ends the removal. */
template <typename Accessor>
void remove(std::map<unsigned long long, std::set<Accessor*>>& accessors,
            std::map<unsigned long long, unsigned long long>& subscriptionIds,
            unsigned long long id, Accessor* accessor) noexcept {
    try {
        auto& set = accessors.at(id);
        set.erase(accessor);
        if (!set.empty()) {
            return;
        }
        // If unsubscribe() throws, both entries stay with an empty set, and the
        // next add for the id reuses them without opening a new subscription.
        // Intended: there is never more than one subscription per id.
        inBand().unsubscribe(subscriptionIds[id]);
        subscriptionIds.erase(id);
        accessors.erase(id);
    } catch (...) {
    }
}

/* Removes an accessor from every id it is still registered under. A
 * destructor's last step: some detection outcomes deliberately leave an
 * accessor registered under an id it no longer remembers, and a destroyed
 * accessor must never be reached by a notification. */
template <typename Accessor>
void removeEverywhere(std::map<unsigned long long, std::set<Accessor*>>& accessors,
                      std::map<unsigned long long, unsigned long long>& subscriptionIds,
                      Accessor* accessor) noexcept {
    std::vector<unsigned long long> ids;
    for (auto const& [id, set] : accessors) {
        if (set.count(accessor) != 0) {
            ids.push_back(id);
        }
    }
    for (unsigned long long const id : ids) {
        remove(accessors, subscriptionIds, id, accessor);
    }
}

/* Follows a path of sub-device indexes from an existing device. Empty when the
 * device is missing, an index is past the end of its list, or the store fails. */
inline std::optional<unsigned long long> followIndexPath(unsigned long long deviceId,
                                                         std::vector<unsigned int> const& path) {
    constexpr unsigned int kDirectSubDevices = 0;
    try {
        // Only the throw matters: it says that the device does not exist.
        inBand().getDevice(deviceId);
        unsigned long long id = deviceId;
        for (unsigned int const index : path) {
            auto const subDevices = inBand().getSubDevicesIds(id, kDirectSubDevices);
            if (index >= subDevices.size()) {
                return std::nullopt;
            }
            id = subDevices[index];
        }
        return id;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace modbus::shared_registry
