// The simulated data store behind the host implementation of cdsapi.
//
// One process-wide store holds a world of devices and channels. The host
// cdsapi::CdsAccessor and cdsapi::InBandAccessor are clients of it, exactly as
// the card's client library is a client of the real data store. Tests and
// simulators change the world through this API and watch what the clients did
// through its accounting; they can make any client operation fail on demand.
//
// Which change fires which notification (delivered to subscriptions of that
// kind for that id, in the order the subscriptions were opened):
//
//   change                                   notified
//   ---------------------------------------  -------------------------------------------
//   setChannelValue(ch)                       ChannelValue (15) on ch
//   setAlarmEnabled(ch)                       ChannelState (5) on ch
//   setAlarmThreshold / setAlarmThresholdFlag ChannelSettings (2) on ch
//   / setAlarmHysteresis / setAlarmLevel (ch)
//   raiseAlarm(ch) / clearAlarm(ch)           device-alarm subscriptions on ch
//   addDevice(d)                              DeviceCreated (13) on d, then on the all-ones
//                                             id (hears every creation); if d has a
//                                             parent, DeviceChanged (3) on the parent
//   removeDevice(d)                           DeviceChanged (3) on d (after its removal),
//                                             then on its parent if any; sub-devices are
//                                             removed first, each the same way
//   setDeviceAttribute(d) / renameDevice(d)   DeviceChanged (3) on d
//   addChannel / removeChannel (on d)         DeviceChanged (3) on d
//   notify...()                               exactly the one notification asked for,
//                                             whether or not the id exists
//
// A change made with notify=false changes the world silently. Every change
// notifies, even one that writes the value already there. Changes made through
// the client (setChannelCValue, the alarm setters, setDeviceAttribute) notify
// exactly as the store's own setters.
//
// What the callbacks receive: channel subscriptions the channel id and its
// value at the moment of the call (invalid when the channel is gone); device
// subscriptions the device id (on the all-ones id, the id of the device
// created); alarm subscriptions a kq::CAlarmUpdate with the channel's record
// at the moment of the call. A device subscription opened with
// includeSubDevices also hears the same kind of notification on any device
// below its target.
//
// Delivery: callbacks run on the thread that made the change, outside the
// store's lock, in subscription order. The subscribers of a change are those
// open when the change was made: one opened by a callback hears the next
// change, not the current one. A callback may read, subscribe and unsubscribe
// through the client without deadlock. A subscription ended during a delivery
// is not called after its unsubscribe() has returned; unsubscribe() from
// another thread waits until a callback of that subscription that is running
// has returned. If callbacks throw, every subscriber is still called and the
// first exception then leaves the call that made the change. The store may be
// changed from another thread than the one that reads; each call is atomic.
//
// unsubscribe(0) ends nothing and returns (after any armed fault): 0 is never
// a subscription id, only what a caller holds for one never opened. Any other
// id that is not open throws NotFound.
//
// Missing items in the store's own API: changing a missing device or channel
// throws NotFound; hasDevice()/hasChannel() are false, channelId() is 0,
// channelValue() is invalid, deviceAttribute() and alarmRecord() are empty;
// subDevices() and alarmSettings() throw NotFound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cdsapi/types.h"
#include "kq/model.h"
#include "kq/value.h"

namespace cdshost {

using Id = unsigned long long;
constexpr Id kAllOnes = ~0ULL;

/* Thrown by a client operation that a fault injection made fail. */
class InjectedFault : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* Thrown instead of InjectedFault by a fault of kind NonStandard: it does not
 * derive from std::exception, like the odd foreign exception a real client
 * library may let through. */
struct ForeignFault {
    std::string operation;
};

/* Thrown by client operations on missing devices, channels or subscriptions. */
class NotFound : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* Alarm settings of a channel. */
struct AlarmSettings {
    bool enabled = false;
    float thresholds[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    bool thresholdFlag = false;
    float hysteresis = 0.0f;
    std::int32_t level = 0;
};

/* An open subscription as the accounting shows it. */
struct SubscriptionInfo {
    Id subscriptionId = 0;
    std::string kind;  // "channel", "device" or "alarm"
    int type = 0;      // kq::sub::subscription_type for "channel" and "device"; 0 for "alarm"
    Id target = 0;     // the id given to the subscribe call
    std::string clientName;
};

enum class FaultKind {
    Standard,     // throws InjectedFault (a std::runtime_error)
    NonStandard,  // throws ForeignFault (not a std::exception)
};

class Store {
  public:
    /* The one store of the process. Reached after its destruction at process
     * exit (from the destructor of a static built before it), it throws
     * std::logic_error. */
    static Store& instance();

    /* Empties the world, ends every subscription without notifying, clears
     * the accounting (connections included) and every fault and name answer.
     * Subscription ids keep growing; assigned device and channel ids start
     * again from 1. */
    void reset();

    // ---- The world -----------------------------------------------------

    /* Creates a device. id 0 assigns the next free id (devices and channels
     * draw assigned ids from one counter, so they never share one); an id in
     * use, or the all-ones id, throws std::invalid_argument. With a parent, the device is appended
     * to the parent's sub-device list (the parent must exist). Returns the id. */
    Id addDevice(std::string const& name, Id id = 0, Id parent = 0, bool notify = true);
    /* Removes a device, its channels and, recursively, its sub-devices. */
    void removeDevice(Id device, bool notify = true);
    void renameDevice(Id device, std::string const& name, bool notify = true);
    bool hasDevice(Id device) const;
    std::vector<Id> subDevices(Id device) const;
    void setDeviceAttribute(Id device, cdsapi::DeviceAttribute attribute, std::string const& value,
                            bool notify = true);
    /* The attribute as set, or empty when it never was. (The client's
     * getDeviceAttribute() gives "" for an unset attribute and the sub-device
     * count for AttributeSubDeviceCount unless it was set.) */
    std::optional<std::string> deviceAttribute(Id device, cdsapi::DeviceAttribute attribute) const;

    /* Creates a channel on a device (which must exist). id 0 assigns one. A
     * channel id in use or a name the device already has throws
     * std::invalid_argument. */
    Id addChannel(Id device, std::string const& name, kq::CValue const& value = {}, Id id = 0,
                  bool notify = true);
    void removeChannel(Id channel, bool notify = true);
    bool hasChannel(Id channel) const;
    /* The channel's id, or 0 when the device has no channel of that name. */
    Id channelId(Id device, std::string const& name) const;
    void setChannelValue(Id channel, kq::CValue const& value, bool notify = true);
    kq::CValue channelValue(Id channel) const;

    void setAlarmEnabled(Id channel, bool enabled, bool notify = true);
    void setAlarmThreshold(Id channel, cdsapi::TriggerId trigger, float value, bool notify = true);
    void setAlarmThresholdFlag(Id channel, bool flag, bool notify = true);
    void setAlarmHysteresis(Id channel, float hysteresis, bool notify = true);
    void setAlarmLevel(Id channel, std::int32_t level, bool notify = true);
    AlarmSettings alarmSettings(Id channel) const;
    /* Gives the channel an alarm record, or replaces it. */
    void raiseAlarm(Id channel, kq::CAlarmRecord const& record, bool notify = true);
    void clearAlarm(Id channel, bool notify = true);
    std::optional<kq::CAlarmRecord> alarmRecord(Id channel) const;

    // ---- Raw notifications -------------------------------------------------

    /* Fires one notification of that kind on that id, as the real store would;
     * the id need not exist. */
    void notifyChannel(Id channel, kq::sub::subscription_type type);
    void notifyDevice(Id device, kq::sub::subscription_type type);
    void notifyAlarm(Id channel);

    // ---- Accounting ------------------------------------------------------

    /* How often a client operation was called, in total or for one id (the
     * operation's first argument). Names are the client's method names:
     * "CdsAccessor" (construction), "getDeviceByName", "getDevice",
     * "getSubDevicesIds", "getChannelId", "getCatchedChannelId", "getChannel",
     * "getChannelCValue", "setChannelCValue", "getChannelAlarmEnabled", ...,
     * "subscribeChannel", "subscribeDevice", "subscribeDeviceAlarms",
     * "unsubscribe". Both overloads of getChannelAlarmTriggerThreshold count
     * under that one name (likewise the setter). A name the client does not
     * have throws std::invalid_argument (here and in failNext/failAlways). */
    std::size_t calls(std::string const& operation) const;
    std::size_t calls(std::string const& operation, Id id) const;
    /* Every operation called since the last reset, with its count. */
    std::map<std::string, std::size_t> callsByOperation() const;
    /* The selector that the last getSubDevicesIds() call about that device
     * passed, or nothing when none reached the store since the last reset.
     * The host answers every selector alike; this shows which one the caller
     * asked with. */
    std::optional<unsigned int> lastSubDeviceSelector(Id device) const;
    void resetCalls();
    /* Counting per id keeps a count for every id a call ever named, and
     * subscription ids are never given twice: a store that lives as long as
     * a daemon, through reload after reload, turns it off. calls(operation,
     * id) then answers only a channel's value reads, which the channel
     * itself counts. Totals are always counted. On after construction and
     * reset(). */
    void countCallsPerId(bool on);

    /* Open subscriptions in the order they were opened. */
    std::vector<SubscriptionInfo> subscriptions() const;
    /* How many subscriptions are open of that kind ("channel", "device",
     * "alarm") and type for that target. */
    std::size_t subscriptionCount(std::string const& kind, int type, Id target) const;
    std::size_t subscriptionCount() const;

    /* How many client connections were constructed under that name. */
    std::size_t connections(std::string const& clientName) const;

    // ---- Fault injection -------------------------------------------------

    /* Makes a client operation throw: for its next `times` calls, or always
     * (times 0). A call is counted in the accounting before its fault is
     * checked, so failed attempts count; faults are checked before anything
     * else, so a fault wins over NotFound. Several armed faults are used up
     * in the order they were armed. With an id, only calls whose first argument is that id fail
     * (getDeviceByName and the "CdsAccessor" construction have no id argument:
     * a fault armed for an id hits them too; answerName() steers one name). */
    void failNext(std::string const& operation, std::size_t times = 1,
                  std::optional<Id> id = std::nullopt, FaultKind kind = FaultKind::Standard);
    void failAlways(std::string const& operation, std::optional<Id> id = std::nullopt,
                    FaultKind kind = FaultKind::Standard);
    /* Makes exactly the nth call of the operation from now on throw (1: the
     * next one), once; the calls before it pass. With calls() this fails each
     * call of a scenario in turn. nth 0 throws std::invalid_argument. */
    void failCall(std::string const& operation, std::size_t nth,
                  FaultKind kind = FaultKind::Standard);
    /* Makes getDeviceByName return this id for this name instead of looking it
     * up (a store that answers with an id for a device that does not exist). */
    void answerName(std::string const& name, Id id);
    void clearFaults();

    // ---- For the host client (not for tests) --------------------------------
    struct Impl;
    Impl& impl() { return *m_impl; }

    Store(Store const&) = delete;
    Store& operator=(Store const&) = delete;

  private:
    Store();
    ~Store();
    static Store& firstInstance();
    std::unique_ptr<Impl> m_impl;
};

}  // namespace cdshost
