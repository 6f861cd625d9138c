// Inside of the simulated data store, shared by the store's own API and the
// host cdsapi client. Not installed, not for tests.
//
// Locking: every member named ...Locked and every field is used with `mutex`
// held. A change collects the notifications it fires as Events while the lock
// is held, turns them into Deliveries (the event plus the subscriptions open at
// that moment) and hands them to deliver() after the lock has been released,
// so callbacks may call back into the store.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "cdshost/store.h"
#include "delivering_threads.h"
#include "open_subscriptions.h"
#include "operation.h"
#include "store_lock.h"

namespace cdshost {

struct Store::Impl {
    /* A channel in its device's index by name: the address of the channel's
     * own name (a channel's node never moves and its name never changes) and
     * its id. Hashed anew from the name whenever needed rather than cached:
     * 24 bytes a node where a view of the name with a cached hash took 40, and
     * a UPS of thousands of channels keeps one each. A look-up passes the
     * address of the name it wants. */
    struct NamedId {
        std::string const* name;
        Id id;
    };
    struct NameHash {
        std::size_t operator()(NamedId const& key) const noexcept {
            return std::hash<std::string_view>()(*key.name);
        }
    };
    struct SameName {
        bool operator()(NamedId const& a, NamedId const& b) const noexcept {
            return *a.name == *b.name;
        }
    };

    struct Device {
        Id id = 0;
        std::string name;
        Id parent = 0;
        std::vector<Id> subDevices;  // in the order they were added
        std::vector<Id> channels;    // likewise
        // The channels by the names they hold: the name is stored once, not
        // twice. A channel leaves this index before it is erased.
        std::unordered_set<NamedId, NameHash, SameName> channelsByName;
        std::map<cdsapi::DeviceAttribute, std::string> attributes;
        std::uint64_t sequence = 0;  // creation order, for the name look-up
    };

    struct Channel {
        Id device = 0;
        std::string name;
        kq::CValue value;
        // getChannelCValue calls on this channel while it exists: the hottest
        // call is counted where its look-up lands anyway, and the count moves
        // to callCountById when the channel goes (eraseChannelLocked).
        std::size_t valueReads = 0;
        // subscribeChannel calls likewise: a map opens one subscription per
        // channel it serves, and a count here costs no node of its own.
        std::size_t subscribes = 0;
        // The alarm settings and record are kept apart (alarmParts): a
        // pointer to them here took the channel's node into the allocator's
        // next size class.
    };

    // The alarm of a channel whose alarm is set up or raised, by channel id;
    // every other channel's settings are the defaults and it has no record.
    // A UPS of thousands of channels has values in almost all of them and an
    // alarm in few. A channel's part goes with the channel.
    struct AlarmPart {
        AlarmSettings settings;
        std::optional<kq::CAlarmRecord> record;
    };

    enum class Kind : std::uint8_t { Channel, Device, Alarm };

    using ChannelCallback = std::function<void(Id, kq::CValue)>;
    using DeviceCallback = std::function<void(Id)>;
    using AlarmCallback = std::function<void(kq::CAlarmUpdate const&)>;

    // One per open subscription, and a map of thousands of entries opens one
    // per channel: what the accounting shows (SubscriptionInfo) is put
    // together when asked, from the kind and the client's interned name. Its
    // fields are in the order that leaves no padding: with the shared
    // pointer's count it fills the allocator's 112-byte class exactly.
    struct Subscription {
        Id id = 0;
        Id target = 0;  // the id given to the subscribe call
        int type = 0;   // kq::sub::subscription_type; 0 for alarms
        Kind kind = Kind::Channel;
        bool includeSubDevices = false;
        bool open = true;
        std::string const* clientName = nullptr;  // in clientNames
        // The callback of the kind, in Kind's order.
        std::variant<ChannelCallback, DeviceCallback, AlarmCallback> callback;
        // Threads inside this subscription's callback right now; unsubscribe()
        // from any other thread waits until they are out.
        DeliveringThreads delivering;

        SubscriptionInfo info() const;
    };
    using SubscriptionPtr = std::shared_ptr<Subscription>;

    /* One notification: of `kind` and `type`, addressed to subscriptions on
     * `target`; the callbacks receive `subject` (the device created, for the
     * creation notice on the all-ones id; otherwise the target itself).
     * `ancestors` are the target's parent chain, for subscriptions that
     * include sub-devices. */
    struct Event {
        Kind kind = Kind::Channel;
        int type = 0;
        Id target = 0;
        Id subject = 0;
        std::vector<Id> ancestors;
    };
    using Events = std::vector<Event>;

    struct Delivery {
        Event event;
        std::vector<SubscriptionPtr> subscribers;
    };
    using Deliveries = std::vector<Delivery>;

    struct Fault {
        Operation operation = Operation::CdsAccessor;
        std::optional<Id> id;
        std::size_t remaining = 0;  // 0: always
        FaultKind kind = FaultKind::Standard;
        std::size_t passing = 0;  // calls it lets pass before it fails
    };

    // ---- State (all guarded by mutex) -----------------------------------
    mutable StoreLock mutex;
    std::condition_variable_any deliveryEnded;
    // The subscription each thread waiting in unsubscribe() waits for: until
    // no thread but itself is inside its callback.
    std::unordered_map<std::thread::id, Subscription const*> awaitedBy;

    std::unordered_map<Id, Device> devices;
    std::unordered_map<Id, Channel> channels;
    // The same channels by id for the ids below kSlottedIds (the ids the
    // store assigns itself, from a counter), so that the read of a value,
    // made for every served entry on every request, finds its channel
    // without hashing. Null where no channel has that id; an element of
    // `channels` keeps its address until it is erased.
    static constexpr Id kSlottedIds = 1 << 16;
    std::vector<Channel*> channelSlots;
    std::unordered_map<Id, AlarmPart> alarmParts;
    // Devices of one name by creation order: the first is the one a look-up
    // by name finds.
    std::unordered_map<std::string, std::map<std::uint64_t, Id>> devicesByName;
    Id nextWorldId = 1;
    std::uint64_t nextSequence = 0;

    // Ordered by id, and ids only grow: iteration order is opening order.
    OpenSubscriptions<SubscriptionPtr> subscriptions;
    // The same subscriptions by kind and target, so that a change finds its
    // subscribers without looking at the others. One node per subscription,
    // no list per target: almost every target has a single subscription of a
    // kind. A change sorts what it finds into opening order (planLocked).
    std::array<std::unordered_multimap<Id, SubscriptionPtr>, 3> subscribersByTarget;
    Id nextSubscriptionId = 1;
    // The clients' names, each kept once for all of its subscriptions; never
    // shrinks (a process has a handful of clients).
    std::set<std::string, std::less<>> clientNames;

    struct CallKey {
        Operation operation;
        Id id;
        bool operator==(CallKey const& other) const {
            return operation == other.operation && id == other.id;
        }
    };
    struct CallKeyHash {
        std::size_t operator()(CallKey const& key) const {
            return std::hash<Id>()(key.id) * kOperationCount +
                   static_cast<std::size_t>(key.operation);
        }
    };
    std::array<std::size_t, kOperationCount> callCount{};
    std::unordered_map<CallKey, std::size_t, CallKeyHash> callCountById;
    // unsubscribe calls on the subscription ids handed out so far, by id: a
    // map served for hours ends all of its subscriptions when the daemon
    // stops, and a slot here costs no node and no rehash of callCountById.
    // Ids never handed out (0, ids ahead of nextSubscriptionId) are counted
    // in callCountById.
    std::vector<std::uint32_t> unsubscribesById;
    bool countingPerId = true;
    std::map<std::string, std::size_t> connectionCount;
    std::vector<Fault> faults;
    std::map<std::string, Id> nameAnswers;
    // The selector of the last getSubDevicesIds() per device asked about:
    // one entry a device, however often it is asked.
    std::unordered_map<Id, unsigned int> lastSubDeviceSelectors;

    // ---- World (lock held) ------------------------------------------------
    Device& deviceLocked(Id id);
    Channel& channelLocked(Id id);
    Id nextFreeIdLocked();
    std::vector<Id> ancestorsLocked(Id device) const;
    Event deviceEventLocked(Id device, int type) const;

    Id addDeviceLocked(std::string const& name, Id id, Id parent, Events& events);
    void removeDeviceLocked(Id device, Events& events);
    void renameDeviceLocked(Id device, std::string const& name, Events& events);
    void setDeviceAttributeLocked(Id device, cdsapi::DeviceAttribute attribute,
                                  std::string const& value, Events& events);
    std::string deviceAttributeTextLocked(Id device, cdsapi::DeviceAttribute attribute);
    kq::CDevice deviceSnapshotLocked(Id device);
    std::optional<Id> deviceByNameLocked(std::string const& name) const;
    void forgetNameLocked(Device const& device);

    Id addChannelLocked(Id device, std::string const& name, kq::CValue const& value, Id id,
                        Events& events);
    void removeChannelLocked(Id channel, Events& events);
    Id channelIdLocked(Id device, std::string const& name) const;
    kq::CChannel channelSnapshotLocked(Id channel);
    /* The alarm settings of a channel (NotFound when there is none): every
     * one at its default until one is set. */
    AlarmSettings const& alarmLocked(Id channel);
    AlarmSettings& alarmToChangeLocked(Id channel);
    /* The alarm record of a channel; none for a channel that is missing. */
    std::optional<kq::CAlarmRecord> recordLocked(Id channel) const;
    void setRecordLocked(Id channel, std::optional<kq::CAlarmRecord> const& record);
    void setChannelValueLocked(Id channel, kq::CValue const& value, Events& events);

    void setAlarmEnabledLocked(Id channel, bool enabled, Events& events);
    void setAlarmThresholdLocked(Id channel, cdsapi::TriggerId trigger, float value,
                                 Events& events);
    void setAlarmThresholdFlagLocked(Id channel, bool flag, Events& events);
    void setAlarmHysteresisLocked(Id channel, float hysteresis, Events& events);
    void setAlarmLevelLocked(Id channel, std::int32_t level, Events& events);
    void setAlarmRecordLocked(Id channel, std::optional<kq::CAlarmRecord> const& record,
                              Events& events);

    // ---- Subscriptions ----------------------------------------------------
    Id subscribeLocked(SubscriptionPtr subscription);
    std::string const* clientNameLocked(std::string const& name);
    void forgetSubscriberLocked(Subscription const& subscription);
    /* Ends a subscription; waits (releasing the lock) until no other thread
     * is still inside its callback, unless that wait would never end. */
    void unsubscribeLocked(Id subscriptionId, std::unique_lock<StoreLock>& lock);
    /* Whether the calling thread, `me`, waiting for `awaited` would wait for
     * itself: a thread inside `awaited` waits, directly or through other
     * waiting threads, for a callback `me` is inside. */
    bool waitWouldNeverEndLocked(Subscription const& awaited, std::thread::id me) const;
    Deliveries planLocked(Events const& events) const;
    /* Calls the subscribers; lock NOT held. Rethrows the first exception a
     * callback threw, once every subscriber has been called. */
    void deliver(Deliveries const& deliveries);

    // ---- Accounting and faults (lock held) ---------------------------------
    /* Counts a client call and throws if a fault is armed for it. */
    void enterCallLocked(Operation operation, std::optional<Id> id);
    /* Counts a call made with an id, on the channel itself where it has a
     * counter for the operation. */
    void countCallLocked(Operation operation, Id id);
    /* getChannelCValue, counted and subject to faults as every client call,
     * with one look-up of the channel for the count and the value. */
    kq::CValue readChannelValueLocked(Id channel);
    /* A channel with an id of kSlottedIds or more; null when there is none. */
    [[gnu::noinline]] Channel* unslottedChannelLocked(Id id);
    /* readChannelValueLocked(), taking the lock itself. */
    kq::CValue readChannelValue(Id channel);
    /* What readChannelValueLocked() does for a channel that is missing (null)
     * or while faults are armed: kept out of the path of every other read. */
    [[gnu::noinline]] kq::CValue readAbsentOrFaultedLocked(Id id, Channel* channel);
    /* Throws if a fault is armed for the call (counted already). */
    void checkFaultsLocked(Operation operation, std::optional<Id> id);
    /* Erases a channel, keeping the calls counted on it. */
    void eraseChannelLocked(Id channel);
    [[noreturn]] void throwFaultLocked(std::vector<Fault>::iterator fault, Operation operation,
                                       std::optional<Id> id);

    void resetLocked();

    // ---- Running a change or a client call ---------------------------------

    /* Runs body(events) under the lock, then delivers its events (only if
     * notify) outside it. Returns what body returns. */
    template <typename Body>
    auto change(bool notify, Body&& body) {
        return run(std::nullopt, std::nullopt, notify, std::forward<Body>(body));
    }

    /* As change(), for a client operation: counted and subject to faults
     * before body runs; always notifies. */
    template <typename Body>
    auto clientCall(Operation operation, std::optional<Id> id, Body&& body) {
        return run(operation, id, true, std::forward<Body>(body));
    }

  private:
    template <typename Body>
    auto run(std::optional<Operation> operation, std::optional<Id> id, bool notify, Body&& body) {
        Deliveries deliveries;
        using Result = decltype(body(std::declval<Events&>()));
        if constexpr (std::is_void_v<Result>) {
            {
                std::lock_guard<StoreLock> lock(mutex);
                Events events;
                if (operation) {
                    enterCallLocked(*operation, id);
                }
                body(events);
                if (notify && !events.empty()) {
                    deliveries = planLocked(events);
                }
            }
            if (!deliveries.empty()) {
                deliver(deliveries);
            }
        } else {
            Result result = [&] {
                std::lock_guard<StoreLock> lock(mutex);
                Events events;
                if (operation) {
                    enterCallLocked(*operation, id);
                }
                Result r = body(events);
                if (notify && !events.empty()) {
                    deliveries = planLocked(events);
                }
                return r;
            }();
            if (!deliveries.empty()) {
                deliver(deliveries);
            }
            return result;
        }
    }
};

}  // namespace cdshost
