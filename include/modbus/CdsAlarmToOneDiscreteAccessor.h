// One boolean fact about the alarm of a channel, for a discrete.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "modbus/CdsDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/* Which alarm fact the accessor reads; the value is true when... */
enum AlarmType : std::int32_t {
    AlarmTypeTrigger = 0,    // the alarm is enabled and the value equals the bool threshold flag
    AlarmTypeFlagClear = 1,  // the alarm is enabled and its record's direction flag is false
    AlarmTypeFlagClearLevel7 = 2,  // as FlagClear, and the record's level is 7
    AlarmTypeFlagSet = 3,          // the alarm is enabled and its record's direction flag is true
    AlarmTypeFlagSetLevel7 = 4,    // as FlagSet, and the record's level is 7
};

/*
 * A read-only boolean: whether a channel's alarm is in the state of its
 * AlarmType. Reports false (never an invalid value) while the channel is not
 * found. Follows device creation and changes like CdsChannelAccessor, and
 * re-reads on every alarm change of the channel.
 *
 * Its registries are its own, separate from CdsChannelAccessor's despite the
 * same names. Not thread-safe: the caller serialises all calls.
 */
class TARSEL_MODBUS_EXPORT CdsAlarmToOneDiscreteAccessor : public CdsDataAccessor {
  public:
    CdsAlarmToOneDiscreteAccessor(unsigned long long deviceId, std::string const& channelName,
                                  AlarmType type);
    CdsAlarmToOneDiscreteAccessor(unsigned long long deviceId,
                                  std::vector<unsigned int> const& subDeviceIndexes,
                                  std::string const& channelName, AlarmType type);
    CdsAlarmToOneDiscreteAccessor(std::string const& deviceName, std::string const& channelName,
                                  AlarmType type);
    ~CdsAlarmToOneDiscreteAccessor() override;

    CdsAlarmToOneDiscreteAccessor(CdsAlarmToOneDiscreteAccessor const&) = delete;
    CdsAlarmToOneDiscreteAccessor& operator=(CdsAlarmToOneDiscreteAccessor const&) = delete;

    /* Does nothing: alarm discretes are read-only. */
    void setCValue(kq::CValue const& value) override;
    kq::CValue getCValue() const override;
    bool isExitingInCds() const override;
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override;

    void callbackUpdateChannelValue(kq::CValue const& value);
    void detectChannel();

    static void subscribeChannelAlarm(unsigned long long id,
                                      CdsAlarmToOneDiscreteAccessor* accessor);
    static void subscribeDeviceSettings(unsigned long long id,
                                        CdsAlarmToOneDiscreteAccessor* accessor);
    static void subscribeDeviceCreation(unsigned long long id,
                                        CdsAlarmToOneDiscreteAccessor* accessor);
    static void unsubscribeChannelAlarm(unsigned long long id,
                                        CdsAlarmToOneDiscreteAccessor* accessor);
    static void unsubscribeDeviceSettings(unsigned long long id,
                                          CdsAlarmToOneDiscreteAccessor* accessor);
    static void unsubscribeDeviceCreation(unsigned long long id,
                                          CdsAlarmToOneDiscreteAccessor* accessor);

    static void cdsChannelAlarm(unsigned long long id);
    static void cdsDeviceSettings(unsigned long long id);
    static void cdsDeviceCreation(unsigned long long id);

    using AccessorRegistry = std::map<unsigned long long, std::set<CdsAlarmToOneDiscreteAccessor*>>;
    using SubscriptionIdRegistry = std::map<unsigned long long, unsigned long long>;

    static AccessorRegistry m_mapChannelAccessorChannelAlarmSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorChannelAlarmSubscriberId;
    static AccessorRegistry m_mapChannelAccessorDeviceSettingsSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorDeviceSettingsSubscriberId;
    static AccessorRegistry m_mapChannelAccessorDeviceCreationSubscriber;
    static SubscriptionIdRegistry m_mapChannelAccessorDeviceCreationSubscriberId;

  private:
    unsigned long long m_deviceId;
    unsigned long long m_detectedDeviceId;
    std::vector<unsigned int> m_subDeviceIndexes;
    std::string m_channelName;
    std::string m_deviceName;
    AlarmType m_alarmType;
    bool m_existingInCds;
    unsigned long long m_channelId;
    // Shared so that a call in progress keeps its function alive even when the
    // listener replaces or clears itself from inside that call.
    std::shared_ptr<std::function<void(kq::CValue const&)> const> m_updateCallback;
};

}  // namespace modbus
