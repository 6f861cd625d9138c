// A channel of a data-store device: its value or one setting of its alarm.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "modbus/CdsDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/* What a channel accessor binds: the channel's value or one alarm setting. */
enum class DataType : int {
    Value = 0,                  // the channel value, as the store delivers it
    AlarmEnabled = 1,           // bool
    AlarmThreshold0 = 2,        // float, trigger 0
    AlarmThreshold1 = 3,        // float, trigger 1
    AlarmThreshold2 = 4,        // float, trigger 2
    AlarmThreshold3 = 5,        // float, trigger 3
    AlarmThresholdEnabled = 6,  // bool, the threshold flag
    AlarmHysteresis = 7,        // float
    AlarmLevel = 8,             // int
};

/*
 * Finds a channel by device (id, name, or id plus a path of sub-device
 * indexes) and channel name, follows the device's creation and changes, and
 * pushes every change of the bound item to its one listener.
 *
 * An accessor always holds one of three positions: waiting for its top device
 * (device-creation registry), waiting for its channel inside a present device
 * (device-settings registry), or bound (the channel registry of its kind plus
 * the device-settings registry of the channel's device). Many accessors on one
 * id share one data-store subscription through the static registries.
 *
 * Not thread-safe: construction, destruction, reads, writes and notification
 * handlers must be serialised by the caller.
 */
class TARSEL_MODBUS_EXPORT CdsChannelAccessor : public CdsDataAccessor {
  public:
    CdsChannelAccessor(unsigned long long deviceId, std::string const& channelName,
                       DataType dataType);
    CdsChannelAccessor(unsigned long long deviceId,
                       std::vector<unsigned int> const& subDeviceIndexes,
                       std::string const& channelName, DataType dataType);
    CdsChannelAccessor(std::string const& deviceName, std::string const& channelName,
                       DataType dataType);
    ~CdsChannelAccessor() override;

    CdsChannelAccessor(CdsChannelAccessor const&) = delete;
    CdsChannelAccessor& operator=(CdsChannelAccessor const&) = delete;

    void setCValue(kq::CValue const& value) override;
    kq::CValue getCValue() const override;
    bool isExitingInCds() const override;
    /* Replaces the listener; a non-empty one is called at once with getCValue(). */
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override;

    void detectChannel();
    void callbackUpdateChannelValue(kq::CValue const& value);

    static void subscribeChannelUpdate(unsigned long long id, CdsChannelAccessor* accessor);
    static void subscribeChannelState(unsigned long long id, CdsChannelAccessor* accessor);
    static void subscribeChannelSettings(unsigned long long id, CdsChannelAccessor* accessor);
    static void subscribeDeviceSettings(unsigned long long id, CdsChannelAccessor* accessor);
    static void subscribeDeviceCreation(unsigned long long id, CdsChannelAccessor* accessor);
    static void unsubscribeChannelUpdate(unsigned long long id, CdsChannelAccessor* accessor);
    static void unsubscribeChannelState(unsigned long long id, CdsChannelAccessor* accessor);
    static void unsubscribeChannelSettings(unsigned long long id, CdsChannelAccessor* accessor);
    static void unsubscribeDeviceSettings(unsigned long long id, CdsChannelAccessor* accessor);
    static void unsubscribeDeviceCreation(unsigned long long id, CdsChannelAccessor* accessor);

    static void cdsChannelUpdate(unsigned long long channelId);
    static void cdsChannelState(unsigned long long channelId);
    static void cdsChannelSettings(unsigned long long channelId);
    static void cdsDeviceSettings(unsigned long long deviceId);
    static void cdsDeviceCreation(unsigned long long deviceId);

    using AccessorRegistry = std::map<unsigned long long, std::set<CdsChannelAccessor*>>;
    using SubscriptionIdRegistry = std::map<unsigned long long, unsigned long long>;

    static AccessorRegistry m_mapChannelAccessorChannelUpdateSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorChannelUpdateSubscriberId;
    static AccessorRegistry m_mapChannelAccessorChannelStateSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorChannelStateSubscriberId;
    static AccessorRegistry m_mapChannelAccessorChannelSettingsSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorChannelSettingsSubscriberId;
    static AccessorRegistry m_mapChannelAccessorDeviceSettingsSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorDeviceSettingsSubscriberId;
    static AccessorRegistry m_mapChannelAccessorDeviceCreationSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorDeviceCreationSubscriberId;

  private:
    // The sub-device path and the device name: only an accessor that has one
    // or the other carries them, so that the many accessors of a large map
    // that find their device by id alone stay small.
    struct Route;

    unsigned long long m_deviceId;
    unsigned long long m_channelDeviceId;
    std::unique_ptr<Route const> m_route;
    std::string m_channelName;
    DataType m_dataType;
    bool m_isExisting;
    unsigned long long m_channelId;
    // Shared so that a call in progress keeps its function alive even when the
    // listener replaces or clears itself from inside that call.
    std::shared_ptr<std::function<void(kq::CValue const&)> const> m_updateCallback;
};

}  // namespace modbus
