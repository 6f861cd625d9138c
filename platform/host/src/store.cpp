// The simulated data store: its world, notifications, accounting and faults.
#include "cdshost/store.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <string>
#include <unordered_set>

#include "read_path.h"
#include "store_impl.h"

namespace cdshost {

namespace {

std::string idText(Id id) {
    return std::to_string(id);
}

[[noreturn]] void throwNoDevice(Id id) {
    throw NotFound("no device " + idText(id));
}

[[noreturn]] void throwNoChannel(Id id) {
    throw NotFound("no channel " + idText(id));
}

// A test that counts or breaks an operation the client does not have (a typo)
// would count nothing and pass; it is told instead.
Operation requireOperation(std::string const& name) {
    auto const operation = operationNamed(name);
    if (!operation) {
        throw std::invalid_argument("the data-store client has no operation \"" + name + "\"");
    }
    return *operation;
}

// Set when the store is destroyed at process exit. A plain flag outlives every
// object, so code that still reaches for the store afterwards (an accessor in
// a static destroyed later) gets an exception instead of a dead object.
std::atomic<bool> g_storeDestroyed{false};
// The store once built: what instance() answers from then on.
std::atomic<Store*> g_store{nullptr};

}  // namespace

// ==== Store::Impl: the world ================================================

Store::Impl::Device& Store::Impl::deviceLocked(Id id) {
    auto const it = devices.find(id);
    if (it == devices.end()) {
        throwNoDevice(id);
    }
    return it->second;
}

Store::Impl::Channel& Store::Impl::channelLocked(Id id) {
    auto const it = channels.find(id);
    if (it == channels.end()) {
        throwNoChannel(id);
    }
    return it->second;
}

Id Store::Impl::nextFreeIdLocked() {
    // Devices and channels draw from one counter, so an assigned id names one
    // thing only and the per-id accounting stays unambiguous.
    while (devices.count(nextWorldId) != 0 || channels.count(nextWorldId) != 0 ||
           nextWorldId == 0 || nextWorldId == kAllOnes) {
        ++nextWorldId;
    }
    return nextWorldId++;
}

std::vector<Id> Store::Impl::ancestorsLocked(Id device) const {
    std::vector<Id> chain;
    auto it = devices.find(device);
    // The depth bound guards against a cycle, which the API cannot build.
    while (it != devices.end() && it->second.parent != 0 && chain.size() < devices.size()) {
        chain.push_back(it->second.parent);
        it = devices.find(it->second.parent);
    }
    return chain;
}

Store::Impl::Event Store::Impl::deviceEventLocked(Id device, int type) const {
    return Event{Kind::Device, type, device, device, ancestorsLocked(device)};
}

Id Store::Impl::addDeviceLocked(std::string const& name, Id id, Id parent, Events& events) {
    if (id == kAllOnes) {
        throw std::invalid_argument("the all-ones id is reserved for devices not known yet");
    }
    if (id != 0 && devices.count(id) != 0) {
        throw std::invalid_argument("device id " + idText(id) + " is in use");
    }
    if (parent != 0 && devices.count(parent) == 0) {
        throwNoDevice(parent);
    }
    Id const newId = id != 0 ? id : nextFreeIdLocked();
    Device device;
    device.id = newId;
    device.name = name;
    device.parent = parent;
    device.sequence = nextSequence++;
    devicesByName[name].emplace(device.sequence, newId);
    devices.emplace(newId, std::move(device));
    if (parent != 0) {
        devices.at(parent).subDevices.push_back(newId);
    }

    events.push_back(deviceEventLocked(newId, kq::sub::DeviceCreated));
    events.push_back(Event{Kind::Device, kq::sub::DeviceCreated, kAllOnes, newId, {}});
    if (parent != 0) {
        events.push_back(deviceEventLocked(parent, kq::sub::DeviceChanged));
    }
    return newId;
}

void Store::Impl::removeDeviceLocked(Id id, Events& events) {
    // Copy: each removal below unlinks itself from this list.
    std::vector<Id> const subs = deviceLocked(id).subDevices;
    for (Id const sub : subs) {
        removeDeviceLocked(sub, events);
    }
    Device const& device = deviceLocked(id);
    Id const parent = device.parent;
    // The chain is taken before the device goes, so that subscriptions that
    // include sub-devices still hear of its removal.
    Event removed = deviceEventLocked(id, kq::sub::DeviceChanged);
    for (Id const channel : device.channels) {
        eraseChannelLocked(channel);
    }
    if (parent != 0) {
        auto& siblings = devices.at(parent).subDevices;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), id), siblings.end());
    }
    forgetNameLocked(device);
    devices.erase(id);

    events.push_back(std::move(removed));
    if (parent != 0) {
        events.push_back(deviceEventLocked(parent, kq::sub::DeviceChanged));
    }
}

void Store::Impl::forgetNameLocked(Device const& device) {
    auto const named = devicesByName.find(device.name);
    named->second.erase(device.sequence);
    if (named->second.empty()) {
        devicesByName.erase(named);
    }
}

void Store::Impl::renameDeviceLocked(Id id, std::string const& name, Events& events) {
    Device& device = deviceLocked(id);
    forgetNameLocked(device);
    device.name = name;
    devicesByName[name].emplace(device.sequence, id);
    events.push_back(deviceEventLocked(id, kq::sub::DeviceChanged));
}

void Store::Impl::setDeviceAttributeLocked(Id id, cdsapi::DeviceAttribute attribute,
                                           std::string const& value, Events& events) {
    deviceLocked(id).attributes[attribute] = value;
    events.push_back(deviceEventLocked(id, kq::sub::DeviceChanged));
}

std::string Store::Impl::deviceAttributeTextLocked(Id id, cdsapi::DeviceAttribute attribute) {
    Device const& device = deviceLocked(id);
    auto const it = device.attributes.find(attribute);
    if (it != device.attributes.end()) {
        return it->second;
    }
    // The store keeps the sub-device count itself; an explicit value wins so
    // that a test can make the two disagree.
    if (attribute == cdsapi::AttributeSubDeviceCount) {
        return std::to_string(device.subDevices.size());
    }
    return "";
}

kq::CDevice Store::Impl::deviceSnapshotLocked(Id id) {
    Device const& device = deviceLocked(id);
    return kq::CDevice{device.id, device.name, device.parent, device.subDevices};
}

std::optional<Id> Store::Impl::deviceByNameLocked(std::string const& name) const {
    // Names need not be unique; the device created first wins.
    auto const named = devicesByName.find(name);
    if (named == devicesByName.end()) {
        return std::nullopt;
    }
    return named->second.begin()->second;
}

Id Store::Impl::addChannelLocked(Id deviceId, std::string const& name, kq::CValue const& value,
                                 Id id, Events& events) {
    Device& device = deviceLocked(deviceId);
    if (id == kAllOnes) {
        throw std::invalid_argument("the all-ones id cannot name a channel");
    }
    if (id != 0 && channels.count(id) != 0) {
        throw std::invalid_argument("channel id " + idText(id) + " is in use");
    }
    if (channelIdLocked(deviceId, name) != 0) {
        throw std::invalid_argument("device " + idText(deviceId) + " already has a channel \"" +
                                    name + "\"");
    }
    Id const newId = id != 0 ? id : nextFreeIdLocked();
    Channel channel;
    channel.device = deviceId;
    channel.name = name;
    channel.value = value;
    Channel& stored = channels.emplace(newId, std::move(channel)).first->second;
    if (newId < kSlottedIds) {
        if (channelSlots.size() <= newId) {
            channelSlots.resize(newId + 1, nullptr);
        }
        channelSlots[newId] = &stored;
    }
    device.channels.push_back(newId);
    device.channelsByName.insert(NamedId{&stored.name, newId});
    events.push_back(deviceEventLocked(deviceId, kq::sub::DeviceChanged));
    return newId;
}

void Store::Impl::removeChannelLocked(Id id, Events& events) {
    Channel const& channel = channelLocked(id);
    Id const deviceId = channel.device;
    Device& device = deviceLocked(deviceId);
    device.channelsByName.erase(NamedId{&channel.name, id});
    eraseChannelLocked(id);
    auto& list = device.channels;
    list.erase(std::remove(list.begin(), list.end(), id), list.end());
    events.push_back(deviceEventLocked(deviceId, kq::sub::DeviceChanged));
}

Id Store::Impl::channelIdLocked(Id deviceId, std::string const& name) const {
    auto const it = devices.find(deviceId);
    if (it == devices.end()) {
        return 0;
    }
    auto const channel = it->second.channelsByName.find(NamedId{&name, 0});
    return channel != it->second.channelsByName.end() ? channel->id : 0;
}

kq::CChannel Store::Impl::channelSnapshotLocked(Id id) {
    Channel const& channel = channelLocked(id);
    return kq::CChannel{id, channel.device, channel.name, channel.value, recordLocked(id)};
}

void Store::Impl::setChannelValueLocked(Id id, kq::CValue const& value, Events& events) {
    // Every write notifies, even one that leaves the value as it was.
    channelLocked(id).value = value;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelValue, id, id, {}});
}

AlarmSettings const& Store::Impl::alarmLocked(Id id) {
    channelLocked(id);  // throws NotFound for a missing channel
    static AlarmSettings const defaults;
    auto const part = alarmParts.find(id);
    return part != alarmParts.end() ? part->second.settings : defaults;
}

AlarmSettings& Store::Impl::alarmToChangeLocked(Id id) {
    channelLocked(id);
    return alarmParts[id].settings;
}

std::optional<kq::CAlarmRecord> Store::Impl::recordLocked(Id id) const {
    auto const part = alarmParts.find(id);
    return part != alarmParts.end() ? part->second.record : std::nullopt;
}

void Store::Impl::setRecordLocked(Id id, std::optional<kq::CAlarmRecord> const& record) {
    channelLocked(id);
    if (record || alarmParts.count(id) != 0) {
        alarmParts[id].record = record;
    }
}

void Store::Impl::setAlarmEnabledLocked(Id id, bool enabled, Events& events) {
    alarmToChangeLocked(id).enabled = enabled;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelState, id, id, {}});
}

void Store::Impl::setAlarmThresholdLocked(Id id, cdsapi::TriggerId trigger, float value,
                                          Events& events) {
    channelLocked(id);  // a missing channel is reported before a bad trigger
    if (static_cast<std::uint32_t>(trigger) > 3) {
        throw std::out_of_range("trigger " + std::to_string(trigger) + " is not 0 to 3");
    }
    alarmToChangeLocked(id).thresholds[trigger] = value;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelSettings, id, id, {}});
}

void Store::Impl::setAlarmThresholdFlagLocked(Id id, bool flag, Events& events) {
    alarmToChangeLocked(id).thresholdFlag = flag;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelSettings, id, id, {}});
}

void Store::Impl::setAlarmHysteresisLocked(Id id, float hysteresis, Events& events) {
    alarmToChangeLocked(id).hysteresis = hysteresis;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelSettings, id, id, {}});
}

void Store::Impl::setAlarmLevelLocked(Id id, std::int32_t level, Events& events) {
    alarmToChangeLocked(id).level = level;
    events.push_back(Event{Kind::Channel, kq::sub::ChannelSettings, id, id, {}});
}

void Store::Impl::setAlarmRecordLocked(Id id, std::optional<kq::CAlarmRecord> const& record,
                                       Events& events) {
    setRecordLocked(id, record);
    events.push_back(Event{Kind::Alarm, 0, id, id, {}});
}

// ==== Store::Impl: subscriptions and delivery =================================

Id Store::Impl::subscribeLocked(SubscriptionPtr subscription) {
    Id const id = nextSubscriptionId++;
    subscription->id = id;
    subscribersByTarget[static_cast<std::size_t>(subscription->kind)].emplace(subscription->target,
                                                                              subscription);
    subscriptions.add(id, std::move(subscription));
    return id;
}

std::string const* Store::Impl::clientNameLocked(std::string const& name) {
    return &*clientNames.insert(name).first;
}

namespace {

char const* kindName(Store::Impl::Kind kind) {
    switch (kind) {
        case Store::Impl::Kind::Channel:
            return "channel";
        case Store::Impl::Kind::Device:
            return "device";
        case Store::Impl::Kind::Alarm:
            return "alarm";
    }
    return "";
}

}  // namespace

SubscriptionInfo Store::Impl::Subscription::info() const {
    return SubscriptionInfo{id, kindName(kind), type, target,
                            clientName != nullptr ? *clientName : std::string()};
}

void Store::Impl::forgetSubscriberLocked(Subscription const& subscription) {
    auto& byTarget = subscribersByTarget[static_cast<std::size_t>(subscription.kind)];
    auto const [first, last] = byTarget.equal_range(subscription.target);
    auto const found = std::find_if(first, last, [&](auto const& candidate) {
        return candidate.second.get() == &subscription;
    });
    if (found != last) {
        byTarget.erase(found);
    }
}

void Store::Impl::unsubscribeLocked(Id subscriptionId, std::unique_lock<StoreLock>& lock) {
    SubscriptionPtr const* const found = subscriptions.find(subscriptionId);
    if (found == nullptr) {
        throw NotFound("no subscription " + idText(subscriptionId));
    }
    SubscriptionPtr const subscription = *found;
    subscription->open = false;
    forgetSubscriberLocked(*subscription);
    subscriptions.erase(subscriptionId);
    // A delivery on another thread may be inside the callback right now; once
    // we return, the caller may free what the callback uses. The delivering
    // thread itself (a callback ending its own or another subscription) must
    // not wait for itself, nor for a thread that waits for it: two callbacks
    // on two threads that end each other's subscriptions would otherwise
    // wait for each other for good. The first of them waits; the second sees
    // the circle and returns, and its callback ending lets the first go.
    std::thread::id const me = std::this_thread::get_id();
    if (!subscription->delivering.anyOtherThan(me)) {
        return;  // nearly always: nothing to wait for, nothing to note
    }
    awaitedBy[me] = subscription.get();
    struct NoLongerWaiting {
        std::unordered_map<std::thread::id, Subscription const*>& awaitedBy;
        std::thread::id me;
        ~NoLongerWaiting() { awaitedBy.erase(me); }
    } const noLongerWaiting{awaitedBy, me};
    deliveryEnded.wait(lock, [&] {
        return !subscription->delivering.anyOtherThan(me) ||
               waitWouldNeverEndLocked(*subscription, me);
    });
}

bool Store::Impl::waitWouldNeverEndLocked(Subscription const& awaited, std::thread::id me) const {
    std::vector<Subscription const*> toVisit{&awaited};
    std::unordered_set<std::thread::id> seen;
    bool circle = false;
    while (!toVisit.empty() && !circle) {
        Subscription const* const subscription = toVisit.back();
        toVisit.pop_back();
        subscription->delivering.forEachOtherThan(me, [&](std::thread::id inside) {
            if (circle || !seen.insert(inside).second) {
                return;
            }
            auto const waiting = awaitedBy.find(inside);
            if (waiting == awaitedBy.end()) {
                return;  // it will leave the callback
            }
            if (waiting->second->delivering.has(me)) {
                circle = true;  // it waits for us
            } else {
                toVisit.push_back(waiting->second);
            }
        });
    }
    return circle;
}

Store::Impl::Deliveries Store::Impl::planLocked(Events const& events) const {
    Deliveries deliveries;
    for (Event const& event : events) {
        auto const& byTarget = subscribersByTarget[static_cast<std::size_t>(event.kind)];
        Delivery delivery{event, {}};
        // Subscriptions on the target itself, of the event's type (alarm
        // subscriptions have one type only).
        auto const [first, last] = byTarget.equal_range(event.target);
        for (auto direct = first; direct != last; ++direct) {
            SubscriptionPtr const& subscription = direct->second;
            if (event.kind == Kind::Alarm || subscription->type == event.type) {
                delivery.subscribers.push_back(subscription);
            }
        }
        // A device's change also reaches subscriptions on its ancestors that
        // include sub-devices.
        if (event.kind == Kind::Device) {
            for (Id const ancestor : event.ancestors) {
                auto const [from, to] = byTarget.equal_range(ancestor);
                for (auto inherited = from; inherited != to; ++inherited) {
                    SubscriptionPtr const& subscription = inherited->second;
                    if (subscription->includeSubDevices && subscription->type == event.type) {
                        delivery.subscribers.push_back(subscription);
                    }
                }
            }
        }
        // Every subscriber is called in opening order; the index keeps none.
        if (delivery.subscribers.size() > 1) {
            std::sort(
                delivery.subscribers.begin(), delivery.subscribers.end(),
                [](SubscriptionPtr const& a, SubscriptionPtr const& b) { return a->id < b->id; });
        }
        if (!delivery.subscribers.empty()) {
            deliveries.push_back(std::move(delivery));
        }
    }
    return deliveries;
}

void Store::Impl::deliver(Deliveries const& deliveries) {
    std::exception_ptr firstError;
    for (Delivery const& delivery : deliveries) {
        Event const& event = delivery.event;
        for (SubscriptionPtr const& subscription : delivery.subscribers) {
            // Checked right before the call: an earlier callback of this same
            // delivery may have ended this subscription.
            kq::CValue value;
            std::optional<kq::CAlarmRecord> record;
            {
                std::lock_guard<StoreLock> lock(mutex);
                if (!subscription->open) {
                    continue;
                }
                subscription->delivering.enter(std::this_thread::get_id());
                auto const channel =
                    event.kind == Kind::Device ? channels.end() : channels.find(event.subject);
                if (channel != channels.end()) {
                    value = channel->second.value;
                    record = recordLocked(event.subject);
                }
            }
            try {
                switch (event.kind) {
                    case Kind::Channel:
                        std::get<ChannelCallback>(subscription->callback)(event.subject, value);
                        break;
                    case Kind::Device:
                        std::get<DeviceCallback>(subscription->callback)(event.subject);
                        break;
                    case Kind::Alarm:
                        std::get<AlarmCallback>(subscription->callback)(
                            kq::CAlarmUpdate{event.subject, record});
                        break;
                }
            } catch (...) {
                if (!firstError) {
                    firstError = std::current_exception();
                }
            }
            {
                std::lock_guard<StoreLock> lock(mutex);
                subscription->delivering.leave(std::this_thread::get_id());
            }
            deliveryEnded.notify_all();
        }
    }
    if (firstError) {
        std::rethrow_exception(firstError);
    }
}

// ==== Store::Impl: accounting and faults ======================================

void Store::Impl::eraseChannelLocked(Id id) {
    auto const it = channels.find(id);
    if (it == channels.end()) {
        return;
    }
    // What the channel counted outlives it only while counting per id:
    // otherwise a store that sees channels come and go under new ids (a UPS
    // that drops out and comes back) would keep a count for each for good.
    if (countingPerId && it->second.valueReads != 0) {
        callCountById[CallKey{Operation::getChannelCValue, id}] += it->second.valueReads;
    }
    if (countingPerId && it->second.subscribes != 0) {
        callCountById[CallKey{Operation::subscribeChannel, id}] += it->second.subscribes;
    }
    if (id < channelSlots.size()) {
        channelSlots[id] = nullptr;
    }
    alarmParts.erase(id);
    channels.erase(it);
}

TARSEL_READ_PATH kq::CValue Store::Impl::readChannelValue(Id id) {
    std::lock_guard<StoreLock> lock(mutex);
    return readChannelValueLocked(id);
}

TARSEL_READ_PATH kq::CValue Store::Impl::readChannelValueLocked(Id id) {
    ++callCount[static_cast<std::size_t>(Operation::getChannelCValue)];
    Channel* const channel =
        id < channelSlots.size() ? channelSlots[id] : unslottedChannelLocked(id);
    if (channel == nullptr || !faults.empty()) {
        return readAbsentOrFaultedLocked(id, channel);
    }
    ++channel->valueReads;
    return channel->value;
}

Store::Impl::Channel* Store::Impl::unslottedChannelLocked(Id id) {
    auto const it = channels.find(id);
    return it != channels.end() ? &it->second : nullptr;
}

kq::CValue Store::Impl::readAbsentOrFaultedLocked(Id id, Channel* channel) {
    if (channel != nullptr) {
        ++channel->valueReads;
    } else if (countingPerId) {
        ++callCountById[CallKey{Operation::getChannelCValue, id}];
    }
    checkFaultsLocked(Operation::getChannelCValue, id);
    if (channel == nullptr) {
        throwNoChannel(id);
    }
    return channel->value;
}

void Store::Impl::enterCallLocked(Operation operation, std::optional<Id> id) {
    ++callCount[static_cast<std::size_t>(operation)];
    if (id) {
        countCallLocked(operation, *id);
    }
    checkFaultsLocked(operation, id);
}

void Store::Impl::countCallLocked(Operation operation, Id id) {
    if (!countingPerId) {
        return;
    }
    if (operation == Operation::subscribeChannel) {
        if (auto const channel = channels.find(id); channel != channels.end()) {
            ++channel->second.subscribes;
            return;
        }
    }
    if (operation == Operation::unsubscribe && id != 0 && id < nextSubscriptionId) {
        if (unsubscribesById.size() < nextSubscriptionId) {
            unsubscribesById.resize(static_cast<std::size_t>(nextSubscriptionId));
        }
        ++unsubscribesById[static_cast<std::size_t>(id)];
        return;
    }
    ++callCountById[CallKey{operation, id}];
}

void Store::Impl::checkFaultsLocked(Operation operation, std::optional<Id> id) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        // A call without an id argument (getDeviceByName, the connection) is
        // hit by a fault armed for an id as well.
        if (it->operation != operation || (it->id && id && *it->id != *id)) {
            continue;
        }
        if (it->passing > 0) {  // armed for a later call of this operation
            --it->passing;
            continue;
        }
        throwFaultLocked(it, operation, id);
    }
}

void Store::Impl::throwFaultLocked(std::vector<Fault>::iterator fault, Operation operation,
                                   std::optional<Id> id) {
    FaultKind const kind = fault->kind;
    if (fault->remaining > 0 && --fault->remaining == 0) {
        faults.erase(fault);
    }
    std::string const name(operationName(operation));
    if (kind == FaultKind::NonStandard) {
        throw ForeignFault{name};
    }
    throw InjectedFault("injected fault in " + name +
                        (id ? " for id " + idText(*id) : std::string()));
}

void Store::Impl::resetLocked() {
    subscriptions.forEach([](SubscriptionPtr const& subscription) { subscription->open = false; });
    subscriptions.clear();
    for (auto& byTarget : subscribersByTarget) {
        byTarget.clear();
    }
    devices.clear();
    channels.clear();
    channelSlots.clear();
    alarmParts.clear();
    devicesByName.clear();
    nextWorldId = 1;
    nextSequence = 0;
    callCount.fill(0);
    callCountById.clear();
    unsubscribesById.clear();
    countingPerId = true;
    connectionCount.clear();
    faults.clear();
    nameAnswers.clear();
    lastSubDeviceSelectors.clear();
}

// ==== Store ====================================================================

Store::Store() : m_impl(std::make_unique<Impl>()) {}

Store::~Store() {
    g_storeDestroyed = true;
}

Store& Store::instance() {
    // Every client call starts here: once the store is built it is one load
    // and one test, without the guard of the function-local static.
    if (Store* const built = g_store.load(std::memory_order_acquire);
        built != nullptr && !g_storeDestroyed.load(std::memory_order_relaxed)) {
        return *built;
    }
    return firstInstance();
}

Store& Store::firstInstance() {
    static Store store;
    if (g_storeDestroyed) {
        throw std::logic_error("the simulated data store is gone: the process is exiting");
    }
    g_store.store(&store, std::memory_order_release);
    return store;
}

void Store::countCallsPerId(bool on) {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->countingPerId = on;
}

void Store::reset() {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->resetLocked();
}

Id Store::addDevice(std::string const& name, Id id, Id parent, bool notify) {
    return m_impl->change(notify, [&](Impl::Events& events) {
        return m_impl->addDeviceLocked(name, id, parent, events);
    });
}

void Store::removeDevice(Id device, bool notify) {
    m_impl->change(notify,
                   [&](Impl::Events& events) { m_impl->removeDeviceLocked(device, events); });
}

void Store::renameDevice(Id device, std::string const& name, bool notify) {
    m_impl->change(notify,
                   [&](Impl::Events& events) { m_impl->renameDeviceLocked(device, name, events); });
}

bool Store::hasDevice(Id device) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->devices.count(device) != 0;
}

std::vector<Id> Store::subDevices(Id device) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->deviceLocked(device).subDevices;
}

void Store::setDeviceAttribute(Id device, cdsapi::DeviceAttribute attribute,
                               std::string const& value, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setDeviceAttributeLocked(device, attribute, value, events);
    });
}

std::optional<std::string> Store::deviceAttribute(Id device,
                                                  cdsapi::DeviceAttribute attribute) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    auto const it = m_impl->devices.find(device);
    if (it == m_impl->devices.end()) {
        return std::nullopt;
    }
    auto const attr = it->second.attributes.find(attribute);
    if (attr == it->second.attributes.end()) {
        return std::nullopt;
    }
    return attr->second;
}

Id Store::addChannel(Id device, std::string const& name, kq::CValue const& value, Id id,
                     bool notify) {
    return m_impl->change(notify, [&](Impl::Events& events) {
        return m_impl->addChannelLocked(device, name, value, id, events);
    });
}

void Store::removeChannel(Id channel, bool notify) {
    m_impl->change(notify,
                   [&](Impl::Events& events) { m_impl->removeChannelLocked(channel, events); });
}

bool Store::hasChannel(Id channel) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->channels.count(channel) != 0;
}

Id Store::channelId(Id device, std::string const& name) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->channelIdLocked(device, name);
}

void Store::setChannelValue(Id channel, kq::CValue const& value, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setChannelValueLocked(channel, value, events);
    });
}

kq::CValue Store::channelValue(Id channel) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    auto const it = m_impl->channels.find(channel);
    return it != m_impl->channels.end() ? it->second.value : kq::CValue();
}

void Store::setAlarmEnabled(Id channel, bool enabled, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmEnabledLocked(channel, enabled, events);
    });
}

void Store::setAlarmThreshold(Id channel, cdsapi::TriggerId trigger, float value, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmThresholdLocked(channel, trigger, value, events);
    });
}

void Store::setAlarmThresholdFlag(Id channel, bool flag, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmThresholdFlagLocked(channel, flag, events);
    });
}

void Store::setAlarmHysteresis(Id channel, float hysteresis, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmHysteresisLocked(channel, hysteresis, events);
    });
}

void Store::setAlarmLevel(Id channel, std::int32_t level, bool notify) {
    m_impl->change(
        notify, [&](Impl::Events& events) { m_impl->setAlarmLevelLocked(channel, level, events); });
}

AlarmSettings Store::alarmSettings(Id channel) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->alarmLocked(channel);
}

void Store::raiseAlarm(Id channel, kq::CAlarmRecord const& record, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmRecordLocked(channel, record, events);
    });
}

void Store::clearAlarm(Id channel, bool notify) {
    m_impl->change(notify, [&](Impl::Events& events) {
        m_impl->setAlarmRecordLocked(channel, std::nullopt, events);
    });
}

std::optional<kq::CAlarmRecord> Store::alarmRecord(Id channel) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->recordLocked(channel);
}

void Store::notifyChannel(Id channel, kq::sub::subscription_type type) {
    m_impl->change(true, [&](Impl::Events& events) {
        events.push_back(Impl::Event{Impl::Kind::Channel, type, channel, channel, {}});
    });
}

void Store::notifyDevice(Id device, kq::sub::subscription_type type) {
    m_impl->change(true, [&](Impl::Events& events) {
        events.push_back(m_impl->deviceEventLocked(device, type));
    });
}

void Store::notifyAlarm(Id channel) {
    m_impl->change(true, [&](Impl::Events& events) {
        events.push_back(Impl::Event{Impl::Kind::Alarm, 0, channel, channel, {}});
    });
}

std::size_t Store::calls(std::string const& operation) const {
    Operation const known = requireOperation(operation);
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->callCount[static_cast<std::size_t>(known)];
}

std::map<std::string, std::size_t> Store::callsByOperation() const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    std::map<std::string, std::size_t> called;
    for (std::size_t i = 0; i < kOperationCount; ++i) {
        if (m_impl->callCount[i] != 0) {
            called.emplace(kOperationNames[i], m_impl->callCount[i]);
        }
    }
    return called;
}

std::size_t Store::calls(std::string const& operation, Id id) const {
    Operation const known = requireOperation(operation);
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    auto const it = m_impl->callCountById.find(Impl::CallKey{known, id});
    std::size_t count = it != m_impl->callCountById.end() ? it->second : 0;
    if (known == Operation::unsubscribe && id < m_impl->unsubscribesById.size()) {
        count += m_impl->unsubscribesById[static_cast<std::size_t>(id)];
    }
    if (auto const channel = m_impl->channels.find(id); channel != m_impl->channels.end()) {
        if (known == Operation::getChannelCValue) {
            count += channel->second.valueReads;
        } else if (known == Operation::subscribeChannel) {
            count += channel->second.subscribes;
        }
    }
    return count;
}

std::optional<unsigned int> Store::lastSubDeviceSelector(Id device) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    auto const found = m_impl->lastSubDeviceSelectors.find(device);
    if (found == m_impl->lastSubDeviceSelectors.end()) {
        return std::nullopt;
    }
    return found->second;
}

void Store::resetCalls() {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->lastSubDeviceSelectors.clear();
    m_impl->callCount.fill(0);
    m_impl->callCountById.clear();
    m_impl->unsubscribesById.clear();
    for (auto& [id, channel] : m_impl->channels) {
        channel.valueReads = 0;
        channel.subscribes = 0;
    }
}

std::vector<SubscriptionInfo> Store::subscriptions() const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    std::vector<SubscriptionInfo> open;
    m_impl->subscriptions.forEach(
        [&](Impl::SubscriptionPtr const& subscription) { open.push_back(subscription->info()); });
    return open;
}

std::size_t Store::subscriptionCount(std::string const& kind, int type, Id target) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    std::size_t count = 0;
    m_impl->subscriptions.forEach([&](Impl::SubscriptionPtr const& subscription) {
        count += kindName(subscription->kind) == kind && subscription->type == type &&
                         subscription->target == target
                     ? 1
                     : 0;
    });
    return count;
}

std::size_t Store::subscriptionCount() const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    return m_impl->subscriptions.size();
}

std::size_t Store::connections(std::string const& clientName) const {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    auto const it = m_impl->connectionCount.find(clientName);
    return it != m_impl->connectionCount.end() ? it->second : 0;
}

void Store::failNext(std::string const& operation, std::size_t times, std::optional<Id> id,
                     FaultKind kind) {
    Operation const known = requireOperation(operation);
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->faults.push_back(Impl::Fault{known, id, times, kind});
}

void Store::failCall(std::string const& operation, std::size_t nth, FaultKind kind) {
    if (nth == 0) {
        throw std::invalid_argument("failCall counts calls from 1");
    }
    Operation const known = requireOperation(operation);
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->faults.push_back(Impl::Fault{known, std::nullopt, 1, kind, nth - 1});
}

void Store::failAlways(std::string const& operation, std::optional<Id> id, FaultKind kind) {
    failNext(operation, 0, id, kind);
}

void Store::answerName(std::string const& name, Id id) {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->nameAnswers[name] = id;
}

void Store::clearFaults() {
    std::lock_guard<StoreLock> lock(m_impl->mutex);
    m_impl->faults.clear();
    m_impl->nameAnswers.clear();
}

}  // namespace cdshost
