// The registry pattern of the channel, device and alarm accessors: many
// accessors share one data-store subscription per id.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cdsapi/in_band_accessor.h"
#include "modbus/CdsInBandAccessor.h"

namespace modbus::shared_registry {

/* The connection, fetched anew for every data-store operation. */
inline cdsapi::InBandAccessor& inBand() {
    return CdsInBandAccessor::getInstance().inBand();
}

template <typename Accessor>
using Registry = std::map<unsigned long long, std::set<Accessor*>>;

/* The ids each accessor is registered under in one registry, kept in step by
 * add() and remove() (the only two that change a registry), so that leaving
 * every id costs the ids the accessor holds rather than a walk of the whole
 * registry: tearing down a map of thousands of entries stays linear. One node
 * per (accessor, id) pair and no list per accessor: almost every accessor sits
 * under a single id, and a map of thousands of entries keeps this index for
 * as long as it is served. */
template <typename Accessor>
using Placements = std::unordered_multimap<Accessor const*, unsigned long long>;

template <typename Accessor>
using PlacementIndex = std::unordered_map<void const*, Placements<Accessor>>;

template <typename Accessor>
PlacementIndex<Accessor>& placementIndex() {
    static PlacementIndex<Accessor> byRegistry;
    return byRegistry;
}

/* The placements of one registry, made on the first add to it. */
template <typename Accessor>
Placements<Accessor>& placementsIn(Registry<Accessor> const& registry) {
    return placementIndex<Accessor>()[&registry];
}

/* The placements of one registry, or null while nothing was ever added to it.
 * Allocates nothing: removals run in destructors, and a destructor must not
 * fail for want of memory. */
template <typename Accessor>
Placements<Accessor>* existingPlacementsIn(Registry<Accessor> const& registry) {
    auto& index = placementIndex<Accessor>();
    auto const found = index.find(&registry);
    return found != index.end() ? &found->second : nullptr;
}

template <typename Accessor>
void notePlacement(Registry<Accessor> const& registry, Accessor const* accessor,
                   unsigned long long id) {
    placementsIn(registry).emplace(accessor, id);
}

template <typename Accessor>
void forgetPlacement(Registry<Accessor> const& registry, Accessor const* accessor,
                     unsigned long long id) {
    Placements<Accessor>* const placements = existingPlacementsIn(registry);
    if (placements == nullptr) {
        return;
    }
    auto const [first, last] = placements->equal_range(accessor);
    auto const found =
        std::find_if(first, last, [id](auto const& placement) { return placement.second == id; });
    if (found != last) {
        placements->erase(found);
    }
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
    if (inserted) {
        try {
            notePlacement(accessors, accessor, id);
        } catch (...) {
            accessors[id].erase(accessor);  // not noted, so not kept either
            throw;
        }
    }
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
            forgetPlacement(accessors, accessor, id);
            if (entry->second.empty()) {
                accessors.erase(entry);
            }
        }
        throw;
    }
    subscriptionIds[id] = subscriptionId;
}

/* Removes an accessor from an id; the last one closes the subscription. Never
 * throws: an id that was never registered simply ends the removal. */
template <typename Accessor>
void remove(std::map<unsigned long long, std::set<Accessor*>>& accessors,
            std::map<unsigned long long, unsigned long long>& subscriptionIds,
            unsigned long long id, Accessor* accessor) noexcept {
    auto const entry = accessors.find(id);
    if (entry == accessors.end()) {
        return;
    }
    auto& set = entry->second;
    if (set.erase(accessor) != 0) {
        forgetPlacement(accessors, accessor, id);
    }
    if (!set.empty()) {
        return;
    }
    try {
        // If unsubscribe() throws, both entries stay with an empty set, and the
        // next add for the id reuses them without opening a new subscription.
        // Intended: there is never more than one subscription per id. The
        // look-up inserts (an id without a subscription is ended as 0), and
        // both entries are erased through the iterators already found: a map
        // of thousands of entries leaves its registries one id after another
        // when it is torn down.
        auto const subscription = subscriptionIds.try_emplace(id, 0).first;
        inBand().unsubscribe(subscription->second);
        subscriptionIds.erase(subscription);
        accessors.erase(entry);
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
    Placements<Accessor>* const placements = existingPlacementsIn(accessors);
    if (placements == nullptr) {
        return;
    }
    // One placement at a time, taken out of the index before its removal:
    // nothing is copied, so leaving needs no memory.
    for (auto placement = placements->find(accessor); placement != placements->end();
         placement = placements->find(accessor)) {
        unsigned long long const id = placement->second;
        placements->erase(placement);
        remove(accessors, subscriptionIds, id, accessor);
    }
}

/* The accessors one notification handler walks: a copy of an id's set, since
 * detection changes the registries while the walk runs. An accessor destroyed
 * during the walk (by a listener that tears down an encoder, say) is taken out
 * of every walk under way by its destructor, through forget(), so no walk
 * reaches freed memory. Walks nest when a listener causes another
 * notification; each lives on its handler's stack. Nothing is locked: like
 * the registries, walks rely on the caller serialising notifications and
 * destruction. */
template <typename Accessor>
class Walk {
  public:
    explicit Walk(std::set<Accessor*> accessors)
        : m_members(std::move(accessors)), m_outer(innermost()) {
        innermost() = this;
    }
    ~Walk() { innermost() = m_outer; }
    Walk(Walk const&) = delete;
    Walk& operator=(Walk const&) = delete;

    /* Calls visit(accessor) for every accessor of the walk still alive, in
     * ascending address order, as the registries' sets are ordered. visit may
     * destroy any accessor, the one it was given included. */
    template <typename Visit>
    void forEach(Visit visit) {
        for (auto next = m_members.begin(); next != m_members.end();) {
            Accessor* const accessor = *next;
            visit(accessor);
            // Only compared, never followed: the accessor may be gone by now.
            next = m_members.upper_bound(accessor);
        }
    }

    /* Whether the accessor is still alive (it was in the walk to begin with). */
    bool holds(Accessor* accessor) const { return m_members.count(accessor) != 0; }

    /* An accessor's destructor: no walk under way may reach it any more. */
    static void forget(Accessor* accessor) noexcept {
        for (Walk* walk = innermost(); walk != nullptr; walk = walk->m_outer) {
            walk->m_members.erase(accessor);
        }
    }

  private:
    /* Per thread: a walk and the destructions it must hear of run on one
     * thread (the caller serialises them), and handlers that only read,
     * delivered on two threads at once, must not share a chain. */
    static Walk*& innermost() {
        thread_local Walk* walk = nullptr;
        return walk;
    }

    std::set<Accessor*> m_members;
    Walk* m_outer;
};

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
