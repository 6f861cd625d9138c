// The store's open subscriptions in opening order, found by id. Not
// installed, not for tests.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <utility>

#include "cdshost/store.h"

namespace cdshost {

/*
 * Ids are handed out from a counter, so the subscriptions are appended in id
 * order and a look-up is a binary search. One slot of an id and a pointer per
 * subscription, in blocks: a map of thousands of entries keeps one
 * subscription each open for as long as it is served, and a tree node per
 * subscription cost 64 bytes where a slot costs 24. An ended subscription
 * leaves an empty slot behind (ending one in the middle moves nothing); the
 * empty slots are dropped once they outnumber the open ones, so ending every
 * subscription in any order stays linear.
 */
template <typename Pointer>
class OpenSubscriptions {
  public:
    /* Appends a subscription; `id` is above every id added before. */
    void add(Id id, Pointer subscription) {
        m_slots.push_back(Slot{id, std::move(subscription)});
        ++m_open;
    }

    /* The subscription of `id`; null when none is open with it. */
    Pointer const* find(Id id) const {
        auto const slot = locate(id);
        return slot != m_slots.end() && slot->id == id && slot->subscription ? &slot->subscription
                                                                             : nullptr;
    }

    /* Ends the subscription of `id`; false when none is open with it. */
    bool erase(Id id) {
        auto const slot = locate(id);
        if (slot == m_slots.end() || slot->id != id || !slot->subscription) {
            return false;
        }
        slot->subscription = Pointer();
        --m_open;
        dropEmptySlots();
        return true;
    }

    std::size_t size() const { return m_open; }

    /* Calls f(subscription) for each open one, in opening order. */
    template <typename F>
    void forEach(F&& f) const {
        for (Slot const& slot : m_slots) {
            if (slot.subscription) {
                f(slot.subscription);
            }
        }
    }

    void clear() {
        m_slots.clear();
        m_open = 0;
    }

  private:
    struct Slot {
        Id id;
        Pointer subscription;  // empty once ended
    };

    /* The slot of `id`, or where it would be. The newest is tried first: a
     * map torn down last entry first ends its newest subscription each time,
     * and a binary search over the blocks costs tenfold. */
    template <typename Slots>
    static auto locateIn(Slots& slots, Id id) {
        if (!slots.empty() && slots.back().id == id) {
            return std::prev(slots.end());
        }
        return std::lower_bound(slots.begin(), slots.end(), id,
                                [](Slot const& slot, Id wanted) { return slot.id < wanted; });
    }
    typename std::deque<Slot>::const_iterator locate(Id id) const { return locateIn(m_slots, id); }
    typename std::deque<Slot>::iterator locate(Id id) { return locateIn(m_slots, id); }

    void dropEmptySlots() {
        // The ends first: a map torn down last entry first ends its
        // subscriptions from the back, and nothing then is ever compacted.
        while (!m_slots.empty() && !m_slots.back().subscription) {
            m_slots.pop_back();
        }
        while (!m_slots.empty() && !m_slots.front().subscription) {
            m_slots.pop_front();
        }
        if (m_slots.size() - m_open > m_open) {
            m_slots.erase(std::remove_if(m_slots.begin(), m_slots.end(),
                                         [](Slot const& slot) { return !slot.subscription; }),
                          m_slots.end());
        }
    }

    std::deque<Slot> m_slots;
    std::size_t m_open = 0;
};

}  // namespace cdshost
