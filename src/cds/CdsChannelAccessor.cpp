#include "modbus/CdsChannelAccessor.h"

#include <optional>
#include <vector>

#include "cds/read_path.h"
#include "cdsapi/types.h"
#include "kq/model.h"
#include "modbus/CdsInBandAccessor.h"
#include "shared_subscription_registry.h"
#include "update_listener.h"

namespace modbus {

CdsChannelAccessor::AccessorRegistry
    CdsChannelAccessor::m_mapChannelAccessorChannelUpdateSubscriber;
CdsChannelAccessor::SubscriptionIdRegistry
    CdsChannelAccessor::m_mapChannelAccessorChannelUpdateSubscriberId;
CdsChannelAccessor::AccessorRegistry CdsChannelAccessor::m_mapChannelAccessorChannelStateSubscriber;
CdsChannelAccessor::SubscriptionIdRegistry
    CdsChannelAccessor::m_mapChannelAccessorChannelStateSubscriberId;
CdsChannelAccessor::AccessorRegistry
    CdsChannelAccessor::m_mapChannelAccessorChannelSettingsSubscriber;
CdsChannelAccessor::SubscriptionIdRegistry
    CdsChannelAccessor::m_mapChannelAccessorChannelSettingsSubscriberId;
CdsChannelAccessor::AccessorRegistry
    CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriber;
CdsChannelAccessor::SubscriptionIdRegistry
    CdsChannelAccessor::m_mapChannelAccessorDeviceSettingsSubscriberId;
CdsChannelAccessor::AccessorRegistry
    CdsChannelAccessor::m_mapChannelAccessorDeviceCreationSubscriber;
CdsChannelAccessor::SubscriptionIdRegistry
    CdsChannelAccessor::m_mapChannelAccessorDeviceCreationSubscriberId;

struct CdsChannelAccessor::Route {
    std::vector<unsigned int> subDeviceIndexes;
    std::string deviceName;
};

namespace {

using Id = unsigned long long;
using AccessorRegistry = CdsChannelAccessor::AccessorRegistry;
using SubscriptionIdRegistry = CdsChannelAccessor::SubscriptionIdRegistry;

// A device id with every bit set: not known yet, to be looked up by name.
constexpr Id kUnknownDevice = ~0ULL;
// The largest DataType that names a readable, writable item.
constexpr int kLastBoundDataType = static_cast<int>(DataType::AlarmLevel);

/* Opens a channel subscription whose notifications call Handler with the
 * subscribed id; the notification's own arguments are not used. */
template <void (*Handler)(Id)>
void openChannelSubscription(kq::sub::subscription_type type, Id channelId, Id* subscriptionId) {
    CdsInBandAccessor::getInstance().inBand().subscribeChannel(
        channelId, [channelId](Id, kq::CValue const&) { Handler(channelId); }, type,
        subscriptionId);
}

/* Same for a device subscription (without sub-devices). */
template <void (*Handler)(Id)>
void openDeviceSubscription(kq::sub::subscription_type type, Id deviceId, Id* subscriptionId) {
    CdsInBandAccessor::getInstance().inBand().subscribeDevice(
        deviceId, [deviceId](Id) { Handler(deviceId); }, type, false, subscriptionId);
}

/* Which channel registry an accessor of that DataType lives in. */
enum class ChannelRegistry { Update, State, Settings };

ChannelRegistry channelRegistryOf(DataType dataType) {
    switch (dataType) {
        case DataType::Value:
            return ChannelRegistry::Update;
        case DataType::AlarmEnabled:
            return ChannelRegistry::State;
        default:
            // Every alarm setting, and every DataType that binds nothing.
            return ChannelRegistry::Settings;
    }
}

void leaveChannelRegistry(DataType dataType, Id channelId, CdsChannelAccessor* accessor) {
    switch (channelRegistryOf(dataType)) {
        case ChannelRegistry::Update:
            CdsChannelAccessor::unsubscribeChannelUpdate(channelId, accessor);
            break;
        case ChannelRegistry::State:
            CdsChannelAccessor::unsubscribeChannelState(channelId, accessor);
            break;
        case ChannelRegistry::Settings:
            CdsChannelAccessor::unsubscribeChannelSettings(channelId, accessor);
            break;
    }
}

/* Last step of tearing down: leave whatever registry still holds the accessor.
 * Detection can leave an accessor registered under an id it no longer tracks
 * (the all-ones device id it waited under before its name lookup succeeded,
 * the channel id 0 of its first alarm-enabled registration, the device it
 * searched before a sub-device changed). Those entries are kept while the
 * accessor lives, but a destroyed accessor must not stay behind: the next
 * notification for such an id would call into freed memory. */
void leaveEveryRegistry(CdsChannelAccessor* accessor) {
    using C = CdsChannelAccessor;
    shared_registry::removeEverywhere(C::m_mapChannelAccessorChannelUpdateSubscriber,
                                      C::m_mapChannelAccessorChannelUpdateSubscriberId, accessor);
    shared_registry::removeEverywhere(C::m_mapChannelAccessorChannelStateSubscriber,
                                      C::m_mapChannelAccessorChannelStateSubscriberId, accessor);
    shared_registry::removeEverywhere(C::m_mapChannelAccessorChannelSettingsSubscriber,
                                      C::m_mapChannelAccessorChannelSettingsSubscriberId, accessor);
    shared_registry::removeEverywhere(C::m_mapChannelAccessorDeviceSettingsSubscriber,
                                      C::m_mapChannelAccessorDeviceSettingsSubscriberId, accessor);
    shared_registry::removeEverywhere(C::m_mapChannelAccessorDeviceCreationSubscriber,
                                      C::m_mapChannelAccessorDeviceCreationSubscriberId, accessor);
}

/* The first detection, run by every constructor. If it throws, the accessor
 * leaves every registry it joined on the way (closing the subscriptions it
 * was the first to open) before the exception leaves the constructor: once the
 * half-built object is freed, no notification may find it. */
void detectOrLeaveNoTrace(CdsChannelAccessor* accessor) {
    try {
        accessor->detectChannel();
    } catch (...) {
        leaveEveryRegistry(accessor);
        throw;
    }
}

/* Joins the channel registry of the DataType. The state registry takes the
 * channel id of the previous detection; see detectChannel(). */
void joinChannelRegistry(DataType dataType, Id newChannelId, Id previousChannelId,
                         CdsChannelAccessor* accessor) {
    switch (channelRegistryOf(dataType)) {
        case ChannelRegistry::Update:
            CdsChannelAccessor::subscribeChannelUpdate(newChannelId, accessor);
            break;
        case ChannelRegistry::State:
            // Intended: the state subscription follows one detection behind the
            // channel id (0 on the first detection); the daemon's alarm-flag
            // registers have always behaved so.
            CdsChannelAccessor::subscribeChannelState(previousChannelId, accessor);
            break;
        case ChannelRegistry::Settings:
            CdsChannelAccessor::subscribeChannelSettings(newChannelId, accessor);
            break;
    }
}

/* Resolves the top device (by name while its id is unknown), tests that it
 * exists and walks the sub-device path. Returns the device to search the
 * channel in, or nothing when any of it is missing. Only the lookups are
 * guarded: a failure to reach the connection itself propagates. */
std::optional<Id> findSearchedDevice(Id& deviceId, std::string const& deviceName,
                                     std::vector<unsigned int> const& subDeviceIndexes) {
    // Once a lookup answered, the id is kept for good, even for a device that
    // turns out not to exist: the name is only looked up while the id is unknown.
    if (deviceId == kUnknownDevice) {
        CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();
        try {
            deviceId = connection.cdsAccessor().getDeviceByName(deviceName);
        } catch (...) {
            return std::nullopt;
        }
    }
    {
        CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();
        try {
            // Only an existence test: the description itself is not needed.
            static_cast<void>(connection.inBand().getDevice(deviceId));
        } catch (...) {
            return std::nullopt;
        }
    }
    Id searched = deviceId;
    for (unsigned int const index : subDeviceIndexes) {
        CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();
        std::vector<Id> subDevices;
        try {
            subDevices = connection.inBand().getSubDevicesIds(searched, 0);
        } catch (...) {
            return std::nullopt;
        }
        if (index >= subDevices.size()) {
            return std::nullopt;
        }
        searched = subDevices[index];
    }
    return searched;
}

/* The channel's id inside the device; a failed lookup counts as not found. */
Id lookUpChannelId(Id deviceId, std::string const& channelName) {
    CdsInBandAccessor& connection = CdsInBandAccessor::getInstance();
    try {
        return connection.inBand().getChannelId(deviceId, channelName);
    } catch (...) {
        return 0;
    }
}

/* The four alarm thresholds in DataType order. */
cdsapi::TriggerId triggerOf(DataType dataType) {
    return static_cast<cdsapi::TriggerId>(static_cast<int>(dataType) -
                                          static_cast<int>(DataType::AlarmThreshold0));
}

using Walk = shared_registry::Walk<CdsChannelAccessor>;

/* Copies the accessor set of an id; throws std::out_of_range "map::at" for an
 * id without an entry. The handlers walk the copy because a re-detection
 * changes the registries. */
std::set<CdsChannelAccessor*> accessorsOf(AccessorRegistry const& registry, Id id) {
    return registry.at(id);
}

/* After a failed existence test every accessor of the id searches again. All
 * are marked missing first (markMissing reaches the private flag), so none
 * reports existing while the others run. */
void redetectAll(Walk& accessors, void (*markMissing)(CdsChannelAccessor*)) {
    accessors.forEach(markMissing);
    accessors.forEach([](CdsChannelAccessor* accessor) { accessor->detectChannel(); });
}

/* One alarm setting of a channel as the accessor delivers it; an invalid
 * value for a DataType that binds nothing. Each case returns its value as it
 * is built, never copied on its way out. Out of line: a value's read is then
 * one short call. */
[[gnu::noinline]] kq::CValue readAlarmSetting(DataType dataType, Id channelId) {
    if (static_cast<int>(dataType) > kLastBoundDataType) {
        return {};
    }
    cdsapi::InBandAccessor& inBand = CdsInBandAccessor::getInstance().inBand();
    switch (dataType) {
        case DataType::Value:
            return inBand.getChannelCValue(channelId);
        case DataType::AlarmEnabled:
            return inBand.getChannelAlarmEnabled(channelId);
        case DataType::AlarmThreshold0:
        case DataType::AlarmThreshold1:
        case DataType::AlarmThreshold2:
        case DataType::AlarmThreshold3:
            return inBand.getChannelAlarmTriggerThreshold(channelId, triggerOf(dataType));
        case DataType::AlarmThresholdEnabled:
            return inBand.getChannelAlarmTriggerThreshold(channelId);
        case DataType::AlarmHysteresis:
            return inBand.getChannelAlarmHysteresis(channelId);
        case DataType::AlarmLevel:
            return static_cast<int>(inBand.getChannelAlarmLevel(channelId));
    }
    return {};
}

}  // namespace

// ---- Construction and destruction ---------------------------------------------

CdsChannelAccessor::CdsChannelAccessor(unsigned long long deviceId, std::string const& channelName,
                                       DataType dataType)
    : m_deviceId(deviceId),
      m_channelDeviceId(0),
      m_channelName(channelName),
      m_dataType(dataType),
      m_isExisting(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsChannelAccessor::CdsChannelAccessor(unsigned long long deviceId,
                                       std::vector<unsigned int> const& subDeviceIndexes,
                                       std::string const& channelName, DataType dataType)
    : m_deviceId(deviceId),
      m_channelDeviceId(kUnknownDevice),
      m_route(std::make_unique<Route const>(Route{subDeviceIndexes, {}})),
      m_channelName(channelName),
      m_dataType(dataType),
      m_isExisting(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsChannelAccessor::CdsChannelAccessor(std::string const& deviceName,
                                       std::string const& channelName, DataType dataType)
    : m_deviceId(kUnknownDevice),
      m_channelDeviceId(kUnknownDevice),
      m_route(std::make_unique<Route const>(Route{{}, deviceName})),
      m_channelName(channelName),
      m_dataType(dataType),
      m_isExisting(false),
      m_channelId(0) {
    detectOrLeaveNoTrace(this);
}

CdsChannelAccessor::~CdsChannelAccessor() {
    // The removals swallow their own failures, so tearing down never throws.
    if (m_channelId != 0) {
        leaveChannelRegistry(m_dataType, m_channelId, this);
    }
    if (m_channelDeviceId != 0) {
        unsubscribeDeviceSettings(m_channelDeviceId, this);
    }
    unsubscribeDeviceCreation(m_deviceId, this);
    leaveEveryRegistry(this);
    // A listener may destroy an accessor while a notification walks its id.
    Walk::forget(this);
}

// ---- CdsDataAccessor ------------------------------------------------------------

// Spelled so on purpose: the daemon calls the interface by this name.
bool CdsChannelAccessor::isExitingInCds() const {
    return m_isExisting;
}

TARSEL_READ_PATH kq::CValue CdsChannelAccessor::getCValue() const {
    if (!m_isExisting) {
        return {};
    }
    // What nearly every read asks, on its own so that it costs one call: the
    // alarm settings are read by a function of their own.
    if (m_dataType == DataType::Value) {
        return CdsInBandAccessor::getInstance().inBand().getChannelCValue(m_channelId);
    }
    return readAlarmSetting(m_dataType, m_channelId);
}

void CdsChannelAccessor::setCValue(kq::CValue const& value) {
    if (!m_isExisting) {
        return;
    }
    // The change comes back, if at all, as a notification: no listener here.
    switch (m_dataType) {
        case DataType::Value:
            CdsInBandAccessor::getInstance().inBand().setChannelCValue(m_channelId, value);
            break;
        case DataType::AlarmEnabled:
            CdsInBandAccessor::getInstance().inBand().setChannelAlarmEnabled(m_channelId,
                                                                             value.as_bool());
            break;
        case DataType::AlarmThreshold0:
        case DataType::AlarmThreshold1:
        case DataType::AlarmThreshold2:
        case DataType::AlarmThreshold3:
            CdsInBandAccessor::getInstance().inBand().setChannelAlarmTriggerThreshold(
                m_channelId, triggerOf(m_dataType), value.as_float());
            break;
        case DataType::AlarmThresholdEnabled:
            CdsInBandAccessor::getInstance().inBand().setChannelAlarmTriggerThreshold(
                m_channelId, value.as_bool());
            break;
        case DataType::AlarmHysteresis:
            CdsInBandAccessor::getInstance().inBand().setChannelAlarmHysteresis(m_channelId,
                                                                                value.as_float());
            break;
        case DataType::AlarmLevel:
            CdsInBandAccessor::getInstance().inBand().setChannelAlarmLevel(
                m_channelId, static_cast<cdsapi::LevelAlarm>(value.as_int32()));
            break;
        default:
            // A DataType past the table binds nothing: writes are ignored.
            break;
    }
}

void CdsChannelAccessor::setUpdateCallback(std::function<void(kq::CValue const&)> callback) {
    detail::installListener(m_updateCallback, std::move(callback));
    if (m_updateCallback) {
        detail::callListener(m_updateCallback, getCValue());
    }
}

void CdsChannelAccessor::callbackUpdateChannelValue(kq::CValue const& value) {
    detail::callListener(m_updateCallback, value);
}

// ---- Detection -------------------------------------------------------------------

void CdsChannelAccessor::detectChannel() {
    // An accessor of a device by id alone has no route: the empty one.
    static Route const none;
    Route const& route = m_route ? *m_route : none;
    std::optional<Id> const searched =
        findSearchedDevice(m_deviceId, route.deviceName, route.subDeviceIndexes);
    if (!searched) {
        // The device (or a sub-device of the path) is missing: wait for the top
        // device to be created.
        if (m_channelDeviceId != 0) {
            unsubscribeDeviceSettings(m_channelDeviceId, this);
        }
        subscribeDeviceCreation(m_deviceId, this);
        m_channelDeviceId = 0;
    } else {
        if (*searched != m_channelDeviceId) {
            // Intended: the device-settings entry of the previous device is kept;
            // only the destructor and a missing device remove it.
            subscribeDeviceSettings(*searched, this);
            if (m_channelId != 0) {
                leaveChannelRegistry(m_dataType, m_channelId, this);
            }
        }
        m_channelDeviceId = *searched;
        Id const channelId = lookUpChannelId(*searched, m_channelName);
        if (channelId != 0) {
            joinChannelRegistry(m_dataType, channelId, m_channelId, this);
            unsubscribeDeviceCreation(m_deviceId, this);
            m_channelId = channelId;
            m_isExisting = true;
            if (m_updateCallback) {
                detail::callListener(m_updateCallback, getCValue());
            }
            return;
        }
        // The device is there but the channel is not: wait for the device to change.
        unsubscribeDeviceCreation(m_deviceId, this);
    }

    if (m_channelId != 0) {
        leaveChannelRegistry(m_dataType, m_channelId, this);
        m_channelId = 0;
    }
    m_isExisting = false;
    // Intended: every failed detection tells the listener, even when the channel
    // was already missing, so encoders always drop a stale value.
    detail::callListener(m_updateCallback, kq::CValue());
}

// ---- Registries ------------------------------------------------------------------

void CdsChannelAccessor::subscribeChannelUpdate(unsigned long long id,
                                                CdsChannelAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorChannelUpdateSubscriber,
                         m_mapChannelAccessorChannelUpdateSubscriberId, id, accessor,
                         [](Id key, Id* out) {
                             openChannelSubscription<&CdsChannelAccessor::cdsChannelUpdate>(
                                 kq::sub::ChannelValue, key, out);
                         });
}

void CdsChannelAccessor::subscribeChannelState(unsigned long long id,
                                               CdsChannelAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorChannelStateSubscriber,
                         m_mapChannelAccessorChannelStateSubscriberId, id, accessor,
                         [](Id key, Id* out) {
                             openChannelSubscription<&CdsChannelAccessor::cdsChannelState>(
                                 kq::sub::ChannelState, key, out);
                         });
}

void CdsChannelAccessor::subscribeChannelSettings(unsigned long long id,
                                                  CdsChannelAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorChannelSettingsSubscriber,
                         m_mapChannelAccessorChannelSettingsSubscriberId, id, accessor,
                         [](Id key, Id* out) {
                             openChannelSubscription<&CdsChannelAccessor::cdsChannelSettings>(
                                 kq::sub::ChannelSettings, key, out);
                         });
}

void CdsChannelAccessor::subscribeDeviceSettings(unsigned long long id,
                                                 CdsChannelAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorDeviceSettingsSubscriber,
                         m_mapChannelAccessorDeviceSettingsSubscriberId, id, accessor,
                         [](Id key, Id* out) {
                             openDeviceSubscription<&CdsChannelAccessor::cdsDeviceSettings>(
                                 kq::sub::DeviceChanged, key, out);
                         });
}

void CdsChannelAccessor::subscribeDeviceCreation(unsigned long long id,
                                                 CdsChannelAccessor* accessor) {
    shared_registry::add(m_mapChannelAccessorDeviceCreationSubscriber,
                         m_mapChannelAccessorDeviceCreationSubscriberId, id, accessor,
                         [](Id key, Id* out) {
                             openDeviceSubscription<&CdsChannelAccessor::cdsDeviceCreation>(
                                 kq::sub::DeviceCreated, key, out);
                         });
}

void CdsChannelAccessor::unsubscribeChannelUpdate(unsigned long long id,
                                                  CdsChannelAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorChannelUpdateSubscriber,
                            m_mapChannelAccessorChannelUpdateSubscriberId, id, accessor);
}

void CdsChannelAccessor::unsubscribeChannelState(unsigned long long id,
                                                 CdsChannelAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorChannelStateSubscriber,
                            m_mapChannelAccessorChannelStateSubscriberId, id, accessor);
}

void CdsChannelAccessor::unsubscribeChannelSettings(unsigned long long id,
                                                    CdsChannelAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorChannelSettingsSubscriber,
                            m_mapChannelAccessorChannelSettingsSubscriberId, id, accessor);
}

void CdsChannelAccessor::unsubscribeDeviceSettings(unsigned long long id,
                                                   CdsChannelAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorDeviceSettingsSubscriber,
                            m_mapChannelAccessorDeviceSettingsSubscriberId, id, accessor);
}

void CdsChannelAccessor::unsubscribeDeviceCreation(unsigned long long id,
                                                   CdsChannelAccessor* accessor) {
    shared_registry::remove(m_mapChannelAccessorDeviceCreationSubscriber,
                            m_mapChannelAccessorDeviceCreationSubscriberId, id, accessor);
}

// ---- Notification handlers -------------------------------------------------------

void CdsChannelAccessor::cdsChannelUpdate(unsigned long long channelId) {
    // Intended: an id without an entry throws "map::at" into the client.
    Walk accessors(accessorsOf(m_mapChannelAccessorChannelUpdateSubscriber, channelId));
    try {
        // One read for all accessors of the channel.
        kq::CValue const value =
            CdsInBandAccessor::getInstance().inBand().getChannelCValue(channelId);
        accessors.forEach([&value](CdsChannelAccessor* accessor) {
            accessor->callbackUpdateChannelValue(value);
        });
    } catch (...) {
        redetectAll(accessors, [](CdsChannelAccessor* a) { a->m_isExisting = false; });
    }
}

void CdsChannelAccessor::cdsChannelState(unsigned long long channelId) {
    // Intended: an id without an entry throws "map::at" into the client.
    Walk accessors(accessorsOf(m_mapChannelAccessorChannelStateSubscriber, channelId));
    try {
        // The value itself is not needed: the read fails when the channel is gone.
        static_cast<void>(CdsInBandAccessor::getInstance().inBand().getChannelCValue(channelId));
        kq::CValue const enabled(
            CdsInBandAccessor::getInstance().inBand().getChannelAlarmEnabled(channelId));
        accessors.forEach([&enabled](CdsChannelAccessor* accessor) {
            accessor->callbackUpdateChannelValue(enabled);
        });
    } catch (...) {
        redetectAll(accessors, [](CdsChannelAccessor* a) { a->m_isExisting = false; });
    }
}

void CdsChannelAccessor::cdsChannelSettings(unsigned long long channelId) {
    // Intended: an id without an entry throws "map::at" into the client.
    Walk accessors(accessorsOf(m_mapChannelAccessorChannelSettingsSubscriber, channelId));
    try {
        // Existence test only: each accessor reads its own setting below.
        static_cast<void>(CdsInBandAccessor::getInstance().inBand().getChannelCValue(channelId));
    } catch (...) {
        redetectAll(accessors, [](CdsChannelAccessor* a) { a->m_isExisting = false; });
        return;
    }
    accessors.forEach([](CdsChannelAccessor* accessor) {
        try {
            accessor->callbackUpdateChannelValue(accessor->getCValue());
        } catch (...) {
            // One accessor's failure must not keep the others from their update.
        }
    });
}

void CdsChannelAccessor::cdsDeviceSettings(unsigned long long deviceId) {
    try {
        Walk accessors(accessorsOf(m_mapChannelAccessorDeviceSettingsSubscriber, deviceId));
        accessors.forEach([](CdsChannelAccessor* accessor) { accessor->detectChannel(); });
    } catch (...) {
        // Intended: unlike the other handlers this one lets nothing through, a
        // missing entry included.
    }
}

void CdsChannelAccessor::cdsDeviceCreation(unsigned long long deviceId) {
    // Intended: an id without an entry throws "map::at" into the client.
    Walk accessors(accessorsOf(m_mapChannelAccessorDeviceCreationSubscriber, deviceId));
    accessors.forEach([](CdsChannelAccessor* accessor) { accessor->detectChannel(); });
}

}  // namespace modbus
