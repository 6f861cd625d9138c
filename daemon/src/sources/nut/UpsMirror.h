// One UPS of upsd mirrored in the data store: a device named as NUT names
// the UPS, one channel per NUT variable under the variable's own name, the
// identity also as device attributes, outlet.N.* on a sub-device "outlet.N"
// at place N - 1 among the UPS's sub-devices,
// each ups.status token as a boolean channel "ups.status.<TOKEN>", and the
// operating-status channel that opens the register map.
//
// Knows nothing of sockets: it is given the UPS's variables as LIST VAR
// returned them and writes to the store only what changed since the last
// time, so that every notification the library hears is a real change.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "NutNames.h"
#include "cdshost/store.h"

namespace tarsel::daemon::nut {

/* Hands out the ids of what the NUT source creates in the store: one
 * counter, never reused, from a start above every fixed UPS device id, so a
 * UPS that comes back gets its own device id again. */
class IdPool {
  public:
    explicit IdPool(cdshost::Id first) : m_next(first) {}
    cdshost::Id next() { return m_next++; }

  private:
    cdshost::Id m_next;
};

/* The largest outlet number the mirror places. Places follow numbers and the
 * store only appends sub-devices, so outlet N takes N sub-devices: a driver
 * that reports outlet.4000000000.* must not make the UPS that many. This is
 * far more outlets than a UPS or PDU has. */
constexpr unsigned int kMaxOutlet = 256;

/* The store is not as the mirror left it (something else removed the UPS's
 * device or a channel of it): the mirror cannot go on by differences. */
class OutOfStep : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class UpsMirror {
  public:
    UpsMirror(cdshost::Store& store, std::string upsName, cdshost::Id deviceId, IdPool& ids);

    UpsMirror(UpsMirror const&) = delete;
    UpsMirror& operator=(UpsMirror const&) = delete;

    /* Brings the store in step with the UPS's variables. When the UPS is not
     * in the store, its device is built whole (silently, then announced, so
     * it never appears without its channels); otherwise only what changed
     * is written. Returns how many store changes were made. A listener
     * that fails on a change does not stop the others (the store has made
     * the change all the same): see listenerFailures(). Throws OutOfStep. */
    std::size_t apply(Variables const& variables);
    /* What listeners threw during the last apply() or remove(). */
    std::vector<std::string> const& listenerFailures() const { return m_failures; }
    /* The outlets numbered above kMaxOutlet that the last apply() left out
     * and the apply() before it had not (each is said once, not every
     * poll), in number order. */
    std::vector<unsigned int> const& outletsNewlyLeftOut() const { return m_newlyLeftOut; }
    /* Takes the UPS's device (and its outlets) out of the store; apply()
     * builds it again. Nothing when it is not there. */
    void remove();
    /* Forgets the store side without touching it, after the store was found
     * not as this mirror left it; the device is removed if it is still
     * there, so the next apply() starts afresh. */
    void resynchronise();

    bool present() const { return m_present; }
    std::string const& upsName() const { return m_upsName; }
    cdshost::Id deviceId() const { return m_deviceId; }
    Variables const& variables() const { return m_variables; }

  private:
    Variables withoutOutletsBeyondTheLast(Variables variables);
    void build(Variables const& variables);
    void update(Variables const& variables);
    void removeVanished(Variables const& variables);
    void addOrChange(Variables const& variables);
    void addOutlets(std::map<unsigned int, Variables> const& outlets);
    std::vector<cdshost::Id> placeOutlets(std::map<unsigned int, Variables> const& outlets);
    cdshost::Id addPlace(unsigned int outlet);
    void addVariable(cdshost::Id device, std::string const& name, std::string const& value,
                     bool notify);
    void changeVariable(std::string const& name, std::string const& value);
    void removeVariable(std::string const& name);
    void setAttributeOf(cdshost::Id device, std::string const& name, std::string const& value,
                        bool notify);
    void updateStatus(Variables const& variables, bool notify);
    void setDerived(std::string const& channel, kq::CValue const& value, bool notify);
    void removeDerived(std::string const& channel);
    void announce(cdshost::Id device, kq::sub::subscription_type type);
    void requireChannel(cdshost::Id channel) const;
    template <typename Change>
    void notifying(Change const& change);

    cdshost::Store& m_store;
    std::string const m_upsName;
    cdshost::Id const m_deviceId;
    IdPool& m_ids;
    bool m_present = false;
    std::size_t m_changes = 0;
    std::vector<std::string> m_failures;
    Variables m_variables;                          // as last applied
    std::map<std::string, cdshost::Id> m_channels;  // variable or derived channel -> channel id
    std::map<unsigned int, cdshost::Id> m_outlets;  // outlet number -> sub-device id, 1 to N
    std::set<unsigned int> m_leftOut;               // outlets beyond kMaxOutlet, last apply()
    std::vector<unsigned int> m_newlyLeftOut;
};

}  // namespace tarsel::daemon::nut
