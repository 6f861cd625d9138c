#include "modbus/CdsDeviceAccessor.h"

#include <optional>
#include <string>
#include <utility>

#include "kq/model.h"
#include "modbus/CdsInBandAccessor.h"
#include "shared_subscription_registry.h"
#include "update_listener.h"

namespace modbus {

namespace {

constexpr unsigned long long kUnknownDeviceId = ~0ULL;
// The getSubDevicesIds() selector with which the sub-device count is asked for.
constexpr unsigned int kCountSelector = 0x7FFFFFFF;

using shared_registry::inBand;
using Walk = shared_registry::Walk<CdsDeviceAccessor>;

/* Opens a device subscription whose notifications go to `handler` with the
 * subscribed id (the id the store passes along is not used). */
auto deviceSubscriber(kq::sub::subscription_type type, void (*handler)(unsigned long long)) {
    return [type, handler](unsigned long long id, unsigned long long* subscriptionId) {
        inBand().subscribeDevice(
            id, [handler, id](unsigned long long) { handler(id); }, type, false, subscriptionId);
    };
}

/* Removes the accessor from every id of its three registries. */
void leaveEveryRegistry(CdsDeviceAccessor* accessor) {
    using D = CdsDeviceAccessor;
    shared_registry::removeEverywhere(D::m_mapDeviceAccessorDeviceSubscriber,
                                      D::m_mapDeviceAccessorDeviceSubscriberId, accessor);
    shared_registry::removeEverywhere(D::m_mapDeviceAccessorDeviceSettingsSubscriber,
                                      D::m_mapDeviceAccessorDeviceSettingsSubscriberId, accessor);
    shared_registry::removeEverywhere(D::m_mapDeviceAccessorDeviceCreationSubscriber,
                                      D::m_mapDeviceAccessorDeviceCreationSubscriberId, accessor);
}

/* The first detection, run by every constructor. If it throws, the accessor
 * leaves every registry it joined on the way (closing the subscriptions it
 * was the first to open) before the exception leaves the constructor: once the
 * half-built object is freed, no notification may find it. */
void detectOrLeaveNoTrace(CdsDeviceAccessor* accessor) {
    try {
        accessor->detectDevice();
    } catch (...) {
        leaveEveryRegistry(accessor);
        throw;
    }
}

}  // namespace

CdsDeviceAccessor::AccessorRegistry CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriber;
CdsDeviceAccessor::SubscriptionIdRegistry CdsDeviceAccessor::m_mapDeviceAccessorDeviceSubscriberId;
CdsDeviceAccessor::AccessorRegistry CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriber;
CdsDeviceAccessor::SubscriptionIdRegistry
    CdsDeviceAccessor::m_mapDeviceAccessorDeviceSettingsSubscriberId;
CdsDeviceAccessor::AccessorRegistry CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriber;
CdsDeviceAccessor::SubscriptionIdRegistry
    CdsDeviceAccessor::m_mapDeviceAccessorDeviceCreationSubscriberId;

CdsDeviceAccessor::CdsDeviceAccessor(unsigned long long deviceId, cdsapi::DeviceAttribute attribute)
    : m_deviceId(deviceId), m_detectedDeviceId(0), m_attribute(attribute), m_existingInCds(false) {
    detectOrLeaveNoTrace(this);
}

CdsDeviceAccessor::CdsDeviceAccessor(std::string const& deviceName,
                                     cdsapi::DeviceAttribute attribute)
    : m_deviceId(kUnknownDeviceId),
      m_detectedDeviceId(0),
      m_attribute(attribute),
      m_deviceName(deviceName),
      m_existingInCds(false) {
    detectOrLeaveNoTrace(this);
}

CdsDeviceAccessor::CdsDeviceAccessor(unsigned long long deviceId,
                                     std::vector<unsigned int> const& subDeviceIndexes,
                                     cdsapi::DeviceAttribute attribute)
    : m_deviceId(deviceId),
      m_detectedDeviceId(0),
      m_subDeviceIndexes(subDeviceIndexes),
      m_attribute(attribute),
      m_existingInCds(false) {
    detectOrLeaveNoTrace(this);
}

CdsDeviceAccessor::~CdsDeviceAccessor() {
    if (m_detectedDeviceId != 0) {
        unsubscribeDeviceUpdate(m_detectedDeviceId, this);
        unsubscribeDeviceSettings(m_detectedDeviceId, this);
    }
    unsubscribeDeviceCreation(m_deviceId, this);
    // An update read that failed for a vanished device keeps the update
    // registration under an id this accessor no longer holds; leave it too.
    leaveEveryRegistry(this);
    // A listener may destroy an accessor while a notification walks its id.
    Walk::forget(this);
}

void CdsDeviceAccessor::setCValue(kq::CValue const& value) {
    // The sub-device count is derived by the store, so it has nothing to write.
    if (!m_existingInCds || m_attribute == cdsapi::AttributeSubDeviceCount) {
        return;
    }
    inBand().setDeviceAttribute(m_detectedDeviceId, m_attribute, value.as_string());
}

kq::CValue CdsDeviceAccessor::getCValue() const {
    if (m_attribute == cdsapi::AttributeSubDeviceCount) {
        // Counted without looking at m_existingInCds: before detection this
        // asks about device 0. Intended; the count is the store's to refuse.
        auto const count = inBand().getSubDevicesIds(m_detectedDeviceId, kCountSelector).size();
        return kq::CValue(static_cast<unsigned long long>(count));
    }
    if (!m_existingInCds) {
        return kq::CValue();
    }
    return kq::CValue(inBand().getDeviceAttribute(m_detectedDeviceId, m_attribute));
}

bool CdsDeviceAccessor::isExitingInCds() const {
    return m_existingInCds;
}

void CdsDeviceAccessor::setUpdateCallback(std::function<void(kq::CValue const&)> callback) {
    detail::installListener(m_updateCallback, std::move(callback));
    if (m_updateCallback) {
        detail::callListener(m_updateCallback, getCValue());
    }
}

void CdsDeviceAccessor::callbackUpdateDeviceValue(kq::CValue const& value) {
    detail::callListener(m_updateCallback, value);
}

void CdsDeviceAccessor::detectDevice() {
    // A failing name look-up is not absorbed here (unlike the channel and
    // alarm accessors): it leaves the constructor or the notification.
    if (m_deviceId == kUnknownDeviceId) {
        m_deviceId = CdsInBandAccessor::getInstance().cdsAccessor().getDeviceByName(m_deviceName);
    }

    std::optional<unsigned long long> const found =
        shared_registry::followIndexPath(m_deviceId, m_subDeviceIndexes);
    if (!found) {
        if (m_detectedDeviceId != 0) {
            unsubscribeDeviceSettings(m_detectedDeviceId, this);
            // An update handler whose read failed clears m_existingInCds before
            // detecting again, so its update subscription is kept on purpose.
            if (m_existingInCds) {
                unsubscribeDeviceUpdate(m_detectedDeviceId, this);
            }
        }
        subscribeDeviceCreation(m_deviceId, this);
        m_existingInCds = false;
        m_detectedDeviceId = 0;
        callbackUpdateDeviceValue(kq::CValue());
        return;
    }

    unsigned long long const id = *found;
    if (id == m_detectedDeviceId) {
        // The same device found again is reported as not existing, and its
        // subscriptions are left alone: intended, the accessor only counts
        // as existing once the device shows up under a new id.
        unsubscribeDeviceCreation(m_deviceId, this);
        m_existingInCds = false;
        callbackUpdateDeviceValue(kq::CValue());
        return;
    }

    subscribeDeviceSettings(id, this);
    if (m_detectedDeviceId != 0) {
        // Only the update subscription moves; the old device's settings
        // subscription is kept on purpose.
        unsubscribeDeviceUpdate(m_detectedDeviceId, this);
    }
    subscribeDeviceUpdate(id, this);
    m_detectedDeviceId = id;
    unsubscribeDeviceCreation(m_deviceId, this);
    m_existingInCds = true;
    if (m_updateCallback) {
        // The raw attribute, attribute 16 included: the listener gets the
        // store's own text for it here, not the count. Intended.
        detail::callListener(m_updateCallback, kq::CValue(inBand().getDeviceAttribute(
                                                   m_detectedDeviceId, m_attribute)));
    }
}

void CdsDeviceAccessor::subscribeDeviceUpdate(unsigned long long id, CdsDeviceAccessor* accessor) {
    shared_registry::add(
        m_mapDeviceAccessorDeviceSubscriber, m_mapDeviceAccessorDeviceSubscriberId, id, accessor,
        deviceSubscriber(kq::sub::DeviceChanged, &CdsDeviceAccessor::cdsDeviceUpdate));
}

void CdsDeviceAccessor::subscribeDeviceSettings(unsigned long long id,
                                                CdsDeviceAccessor* accessor) {
    shared_registry::add(
        m_mapDeviceAccessorDeviceSettingsSubscriber, m_mapDeviceAccessorDeviceSettingsSubscriberId,
        id, accessor,
        deviceSubscriber(kq::sub::DeviceChanged, &CdsDeviceAccessor::cdsDeviceSettings));
}

void CdsDeviceAccessor::subscribeDeviceCreation(unsigned long long id,
                                                CdsDeviceAccessor* accessor) {
    shared_registry::add(
        m_mapDeviceAccessorDeviceCreationSubscriber, m_mapDeviceAccessorDeviceCreationSubscriberId,
        id, accessor,
        deviceSubscriber(kq::sub::DeviceCreated, &CdsDeviceAccessor::cdsDeviceCreation));
}

void CdsDeviceAccessor::unsubscribeDeviceUpdate(unsigned long long id,
                                                CdsDeviceAccessor* accessor) {
    shared_registry::remove(m_mapDeviceAccessorDeviceSubscriber,
                            m_mapDeviceAccessorDeviceSubscriberId, id, accessor);
}

void CdsDeviceAccessor::unsubscribeDeviceSettings(unsigned long long id,
                                                  CdsDeviceAccessor* accessor) {
    shared_registry::remove(m_mapDeviceAccessorDeviceSettingsSubscriber,
                            m_mapDeviceAccessorDeviceSettingsSubscriberId, id, accessor);
}

void CdsDeviceAccessor::unsubscribeDeviceCreation(unsigned long long id,
                                                  CdsDeviceAccessor* accessor) {
    shared_registry::remove(m_mapDeviceAccessorDeviceCreationSubscriber,
                            m_mapDeviceAccessorDeviceCreationSubscriberId, id, accessor);
}

void CdsDeviceAccessor::cdsDeviceUpdate(unsigned long long id) {
    // Copied: a re-detection below changes the registries.
    Walk accessors(m_mapDeviceAccessorDeviceSubscriber.at(id));
    accessors.forEach([id, &accessors](CdsDeviceAccessor* accessor) {
        try {
            accessor->callbackUpdateDeviceValue(
                kq::CValue(inBand().getDeviceAttribute(id, accessor->m_attribute)));
        } catch (...) {
            // A listener that destroyed its own accessor before it threw
            // leaves nothing to detect.
            if (!accessors.holds(accessor)) {
                return;
            }
            // Only the failing accessor looks for its device again.
            accessor->m_existingInCds = false;
            accessor->detectDevice();
        }
    });
}

void CdsDeviceAccessor::cdsDeviceSettings(unsigned long long id) {
    try {
        Walk accessors(m_mapDeviceAccessorDeviceSettingsSubscriber.at(id));
        accessors.forEach([](CdsDeviceAccessor* accessor) { accessor->detectDevice(); });
    } catch (...) {
        // Swallowed, and the first failing detection ends the walk: the
        // accessors after it are not detected again. Intended.
    }
}

void CdsDeviceAccessor::cdsDeviceCreation(unsigned long long id) {
    Walk accessors(m_mapDeviceAccessorDeviceCreationSubscriber.at(id));
    accessors.forEach([](CdsDeviceAccessor* accessor) { accessor->detectDevice(); });
}

}  // namespace modbus
