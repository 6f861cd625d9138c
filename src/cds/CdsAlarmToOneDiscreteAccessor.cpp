#include "modbus/CdsAlarmToOneDiscreteAccessor.h"

#include <optional>
#include <string>
#include <utility>

#include "kq/model.h"
#include "shared_subscription_registry.h"
#include "update_listener.h"

namespace modbus {

namespace {

constexpr unsigned long long kUnknownDeviceId = ~0ULL;
// The alarm record level that the "Level7" types look for.
constexpr std::int32_t kLevel7 = 7;

using shared_registry::inBand;
using Walk = shared_registry::Walk<CdsAlarmToOneDiscreteAccessor>;

using Handler = void (*)(unsigned long long);

/* Opens a device subscription whose notifications go to `handler` with the
 * subscribed id (the id the store passes along is not used). */
auto deviceSubscriber(kq::sub::subscription_type type, Handler handler) {
    return [type, handler](unsigned long long id, unsigned long long* subscriptionId) {
        inBand().subscribeDevice(
            id, [handler, id](unsigned long long) { handler(id); }, type, false, subscriptionId);
    };
}

/* Opens the alarm subscription of a channel; the update it carries is not
 * used, the handler reads the alarm again. */
void subscribeAlarms(unsigned long long channelId, unsigned long long* subscriptionId) {
    inBand().subscribeDeviceAlarms(
        channelId,
        [channelId](kq::CAlarmUpdate const&) {
            CdsAlarmToOneDiscreteAccessor::cdsChannelAlarm(channelId);
        },
        subscriptionId);
}

/* The channel's id, 0 when the device has none of that name or the store fails. */
unsigned long long channelIdOrZero(unsigned long long deviceId, std::string const& channelName) {
    try {
        return inBand().getChannelId(deviceId, channelName);
    } catch (...) {
        return 0;
    }
}

/* The AlarmType that an alarm record stands for. */
std::int32_t alarmCode(kq::CAlarmRecord const& record, AlarmType wanted) {
    std::int32_t code = record.direction ? AlarmTypeFlagSet : AlarmTypeFlagClear;
    // Only a type that asks about level 7 sees the level; so a level-7 record
    // with the flag clear is true for both FlagClear and FlagClearLevel7.
    bool const asksLevel7 = wanted == AlarmTypeFlagClearLevel7 || wanted == AlarmTypeFlagSetLevel7;
    if (asksLevel7 && record.level == kLevel7) {
        code = record.direction ? AlarmTypeFlagSetLevel7 : AlarmTypeFlagClearLevel7;
    }
    return code;
}

/* Removes the accessor from every id of its three registries. */
void leaveEveryRegistry(CdsAlarmToOneDiscreteAccessor* accessor) {
    using A = CdsAlarmToOneDiscreteAccessor;
    shared_registry::removeEverywhere(A::m_mapChannelAccessorChannelAlarmSubscriber,
                                      A::m_mapChannelAccessorChannelAlarmSubscriberId, accessor);
    shared_registry::removeEverywhere(A::m_mapChannelAccessorDeviceSettingsSubscriber,
                                      A::m_mapChannelAccessorDeviceSettingsSubscriberId, accessor);
    shared_registry::removeEverywhere(A::m_mapChannelAccessorDeviceCreationSubscriber,
                                      A::m_mapChannelAccessorDeviceCreationSubscriberId, accessor);
}

/* The first detection, run by every constructor. If it throws, the accessor
 * leaves every registry it joined on the way (closing the subscriptions it
 * was the first to open) before the exception leaves the constructor: once the
 * half-built object is freed, no notification may find it. */
void detectOrLeaveNoTrace(CdsAlarmToOneDiscreteAccessor* accessor) {
    try {
        accessor->detectChannel();
    } catch (...) {
        leaveEveryRegistry(accessor);
        throw;
    }
}

}  // namespace

CdsAlarmToOneDiscreteAccessor::AccessorRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorChannelAlarmSubscriber;
CdsAlarmToOneDiscreteAccessor::SubscriptionIdRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorChannelAlarmSubscriberId;
CdsAlarmToOneDiscreteAccessor::AccessorRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorDeviceSettingsSubscriber;
CdsAlarmToOneDiscreteAccessor::SubscriptionIdRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorDeviceSettingsSubscriberId;
CdsAlarmToOneDiscreteAccessor::AccessorRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorDeviceCreationSubscriber;
CdsAlarmToOneDiscreteAccessor::SubscriptionIdRegistry
    CdsAlarmToOneDiscreteAccessor::m_mapChannelAccessorDeviceCreationSubscriberId;

CdsAlarmToOneDiscreteAccessor::CdsAlarmToOneDiscreteAccessor(unsigned long long deviceId,
                                                             std::string const& channelName,
                                                             AlarmType type)
    : m_deviceId(deviceId),
      m_detectedDeviceId(0),
      m_channelName(channelName),
      m_alarmType(type),
      m_existingInCds(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsAlarmToOneDiscreteAccessor::CdsAlarmToOneDiscreteAccessor(
    unsigned long long deviceId, std::vector<unsigned int> const& subDeviceIndexes,
    std::string const& channelName, AlarmType type)
    : m_deviceId(deviceId),
      m_detectedDeviceId(0),
      m_subDeviceIndexes(subDeviceIndexes),
      m_channelName(channelName),
      m_alarmType(type),
      m_existingInCds(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsAlarmToOneDiscreteAccessor::CdsAlarmToOneDiscreteAccessor(std::string const& deviceName,
                                                             std::string const& channelName,
                                                             AlarmType type)
    : m_deviceId(kUnknownDeviceId),
      m_detectedDeviceId(kUnknownDeviceId),
      m_channelName(channelName),
      m_deviceName(deviceName),
      m_alarmType(type),
      m_existingInCds(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsAlarmToOneDiscreteAccessor::~CdsAlarmToOneDiscreteAccessor() {
    if (m_channelId != 0) {
        unsubscribeChannelAlarm(m_channelId, this);
    }
    if (m_detectedDeviceId != 0) {
        unsubscribeDeviceSettings(m_detectedDeviceId, this);
    }
    unsubscribeDeviceCreation(m_deviceId, this);
    // Detection can leave this accessor registered under ids it no longer
    // holds: the all-ones creation entry of a by-name accessor whose name
    // resolved later, or the alarm entry of a channel replaced without a
    // notification in between. Leave those too.
    leaveEveryRegistry(this);
    // A listener may destroy an accessor while a notification walks its id.
    Walk::forget(this);
}

void CdsAlarmToOneDiscreteAccessor::setCValue(kq::CValue const&) {
    // Read-only on purpose: an alarm state is the store's to decide.
}

kq::CValue CdsAlarmToOneDiscreteAccessor::getCValue() const {
    if (!m_existingInCds || !inBand().getChannelAlarmEnabled(m_channelId)) {
        return kq::CValue(false);
    }
    if (m_alarmType == AlarmTypeTrigger) {
        kq::CValue const value = inBand().getChannelCValue(m_channelId);
        // Plain CValue equality: a channel of another type than bool never
        // equals the threshold flag (int 1 is not true). Intended.
        return kq::CValue(value ==
                          kq::CValue(inBand().getChannelAlarmTriggerThreshold(m_channelId)));
    }
    kq::CChannel const channel = inBand().getChannel(m_detectedDeviceId, m_channelName);
    if (!channel.hasAlarm()) {
        return kq::CValue(false);
    }
    // Types above 4 never match a code, so they read false.
    return kq::CValue(alarmCode(*channel.alarm, m_alarmType) == m_alarmType);
}

bool CdsAlarmToOneDiscreteAccessor::isExitingInCds() const {
    return m_existingInCds;
}

void CdsAlarmToOneDiscreteAccessor::setUpdateCallback(
    std::function<void(kq::CValue const&)> callback) {
    detail::installListener(m_updateCallback, std::move(callback));
    if (m_updateCallback) {
        detail::callListener(m_updateCallback, getCValue());
    }
}

void CdsAlarmToOneDiscreteAccessor::callbackUpdateChannelValue(kq::CValue const& value) {
    detail::callListener(m_updateCallback, value);
}

void CdsAlarmToOneDiscreteAccessor::detectChannel() {
    // Leaves the channel, if one is bound, and reports false (where the device
    // accessor reports the invalid value: intended, a discrete is 0 or 1).
    auto const unbindChannel = [this] {
        if (m_channelId != 0) {
            unsubscribeChannelAlarm(m_channelId, this);
            m_channelId = 0;
        }
        m_existingInCds = false;
        detail::callListener(m_updateCallback, kq::CValue(false));
    };

    bool nameKnown = true;
    if (m_deviceId == kUnknownDeviceId) {
        try {
            m_deviceId =
                CdsInBandAccessor::getInstance().cdsAccessor().getDeviceByName(m_deviceName);
        } catch (...) {
            // Unlike the device accessor, a failing name look-up only means
            // "not there yet"; the id stays unknown and the name is looked up
            // again at the next detection. Intended.
            nameKnown = false;
        }
    }
    std::optional<unsigned long long> device;
    if (nameKnown) {
        device = shared_registry::followIndexPath(m_deviceId, m_subDeviceIndexes);
    }
    if (!device) {
        if (m_detectedDeviceId != 0) {
            unsubscribeDeviceSettings(m_detectedDeviceId, this);
        }
        subscribeDeviceCreation(m_deviceId, this);
        m_detectedDeviceId = 0;
        unbindChannel();
        return;
    }

    if (*device != m_detectedDeviceId) {
        subscribeDeviceSettings(*device, this);
        if (m_channelId != 0) {
            unsubscribeChannelAlarm(m_channelId, this);
        }
    }
    m_detectedDeviceId = *device;
    unsigned long long const candidate = channelIdOrZero(*device, m_channelName);
    if (candidate == 0) {
        // The device is there without the channel: wait for a change of the
        // device now, not for its creation.
        unsubscribeDeviceCreation(m_deviceId, this);
        unbindChannel();
        return;
    }
    subscribeChannelAlarm(candidate, this);
    unsubscribeDeviceCreation(m_deviceId, this);
    m_channelId = candidate;
    m_existingInCds = true;
    if (m_updateCallback) {
        detail::callListener(m_updateCallback, getCValue());
    }
}

void CdsAlarmToOneDiscreteAccessor::subscribeChannelAlarm(unsigned long long id,
                                                          CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorChannelAlarmSubscriber,
                         m_mapChannelAccessorChannelAlarmSubscriberId, id, accessor,
                         &subscribeAlarms);
}

void CdsAlarmToOneDiscreteAccessor::subscribeDeviceSettings(
    unsigned long long id, CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorDeviceSettingsSubscriber,
                         m_mapChannelAccessorDeviceSettingsSubscriberId, id, accessor,
                         deviceSubscriber(kq::sub::DeviceChanged,
                                          &CdsAlarmToOneDiscreteAccessor::cdsDeviceSettings));
}

void CdsAlarmToOneDiscreteAccessor::subscribeDeviceCreation(
    unsigned long long id, CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorDeviceCreationSubscriber,
                         m_mapChannelAccessorDeviceCreationSubscriberId, id, accessor,
                         deviceSubscriber(kq::sub::DeviceCreated,
                                          &CdsAlarmToOneDiscreteAccessor::cdsDeviceCreation));
}

void CdsAlarmToOneDiscreteAccessor::unsubscribeChannelAlarm(
    unsigned long long id, CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorChannelAlarmSubscriber,
                            m_mapChannelAccessorChannelAlarmSubscriberId, id, accessor);
}

void CdsAlarmToOneDiscreteAccessor::unsubscribeDeviceSettings(
    unsigned long long id, CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorDeviceSettingsSubscriber,
                            m_mapChannelAccessorDeviceSettingsSubscriberId, id, accessor);
}

void CdsAlarmToOneDiscreteAccessor::unsubscribeDeviceCreation(
    unsigned long long id, CdsAlarmToOneDiscreteAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorDeviceCreationSubscriber,
                            m_mapChannelAccessorDeviceCreationSubscriberId, id, accessor);
}

void CdsAlarmToOneDiscreteAccessor::cdsChannelAlarm(unsigned long long id) {
    // Copied: a re-detection below changes the registries.
    Walk accessors(m_mapChannelAccessorChannelAlarmSubscriber.at(id));
    bool failed = false;
    try {
        // Probes that the channel is still there; the value itself is not used.
        inBand().getChannelCValue(id);
        accessors.forEach([](CdsAlarmToOneDiscreteAccessor* accessor) {
            accessor->callbackUpdateChannelValue(accessor->getCValue());
        });
    } catch (...) {
        failed = true;
    }
    if (!failed) {
        return;
    }
    // Every accessor of the channel is marked gone before any of them looks
    // again, so none reads the channel in between.
    accessors.forEach(
        [](CdsAlarmToOneDiscreteAccessor* accessor) { accessor->m_existingInCds = false; });
    accessors.forEach([](CdsAlarmToOneDiscreteAccessor* accessor) { accessor->detectChannel(); });
}

void CdsAlarmToOneDiscreteAccessor::cdsDeviceSettings(unsigned long long id) {
    try {
        Walk accessors(m_mapChannelAccessorDeviceSettingsSubscriber.at(id));
        accessors.forEach(
            [](CdsAlarmToOneDiscreteAccessor* accessor) { accessor->detectChannel(); });
    } catch (...) {
        // Swallowed, and the first failing detection ends the walk: the
        // accessors after it are not detected again. Intended.
    }
}

void CdsAlarmToOneDiscreteAccessor::cdsDeviceCreation(unsigned long long id) {
    Walk accessors(m_mapChannelAccessorDeviceCreationSubscriber.at(id));
    accessors.forEach([](CdsAlarmToOneDiscreteAccessor* accessor) { accessor->detectChannel(); });
}

}  // namespace modbus
