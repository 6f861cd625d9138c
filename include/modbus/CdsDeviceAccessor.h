// One attribute of a data-store device.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cdsapi/types.h"
#include "modbus/CdsDataAccessor.h"
#include "modbus/export.h"

namespace modbus {

/*
 * One attribute of a device named by id, by name, or by id plus a path of
 * sub-device indexes. Attributes are handed on as string values; attribute 16
 * reads as the number of sub-devices (an unsigned 64-bit value) and cannot be
 * written.
 *
 * Not thread-safe: the caller serialises construction, destruction, reads,
 * writes and notification handlers.
 */
class TARSEL_MODBUS_EXPORT CdsDeviceAccessor : public CdsDataAccessor {
  public:
    CdsDeviceAccessor(unsigned long long deviceId, cdsapi::DeviceAttribute attribute);
    CdsDeviceAccessor(std::string const& deviceName, cdsapi::DeviceAttribute attribute);
    CdsDeviceAccessor(unsigned long long deviceId,
                      std::vector<unsigned int> const& subDeviceIndexes,
                      cdsapi::DeviceAttribute attribute);
    ~CdsDeviceAccessor() override;

    CdsDeviceAccessor(CdsDeviceAccessor const&) = delete;
    CdsDeviceAccessor& operator=(CdsDeviceAccessor const&) = delete;

    void setCValue(kq::CValue const& value) override;
    kq::CValue getCValue() const override;
    bool isExitingInCds() const override;
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override;

    void callbackUpdateDeviceValue(kq::CValue const& value);
    void detectDevice();

    static void subscribeDeviceUpdate(unsigned long long id, CdsDeviceAccessor* accessor);
    static void subscribeDeviceSettings(unsigned long long id, CdsDeviceAccessor* accessor);
    static void subscribeDeviceCreation(unsigned long long id, CdsDeviceAccessor* accessor);
    static void unsubscribeDeviceUpdate(unsigned long long id, CdsDeviceAccessor* accessor);
    static void unsubscribeDeviceSettings(unsigned long long id, CdsDeviceAccessor* accessor);
    static void unsubscribeDeviceCreation(unsigned long long id, CdsDeviceAccessor* accessor);

    static void cdsDeviceUpdate(unsigned long long id);
    static void cdsDeviceSettings(unsigned long long id);
    static void cdsDeviceCreation(unsigned long long id);

    using AccessorRegistry = std::map<unsigned long long, std::set<CdsDeviceAccessor*>>;
    using SubscriptionIdRegistry = std::map<unsigned long long, unsigned long long>;

    static AccessorRegistry m_mapDeviceAccessorDeviceSubscriber;
    static SubscriptionIdRegistry m_mapDeviceAccessorDeviceSubscriberId;
    static AccessorRegistry m_mapDeviceAccessorDeviceSettingsSubscriber;
    static SubscriptionIdRegistry m_mapDeviceAccessorDeviceSettingsSubscriberId;
    static AccessorRegistry m_mapDeviceAccessorDeviceCreationSubscriber;
    static SubscriptionIdRegistry m_mapDeviceAccessorDeviceCreationSubscriberId;

  private:
    unsigned long long m_deviceId;
    unsigned long long m_detectedDeviceId;
    std::vector<unsigned int> m_subDeviceIndexes;
    cdsapi::DeviceAttribute m_attribute;
    std::string m_deviceName;
    bool m_existingInCds;
    // Shared so that a call in progress keeps its function alive even when the
    // listener replaces or clears itself from inside that call.
    std::shared_ptr<std::function<void(kq::CValue const&)> const> m_updateCallback;
};

}  // namespace modbus
