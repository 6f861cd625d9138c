// The data side of every binding: one value of the data store as a kq::CValue.
#pragma once

#include <functional>

#include "kq/value.h"
#include "modbus/export.h"

namespace modbus {

/*
 * One value of the data store (a channel value or alarm setting, a device
 * attribute, an alarm state).
 *
 * Listener contract: setUpdateCallback() installs the one listener, replacing
 * the previous one; an empty function removes it. The listener is called on
 * the thread that delivers data-store notifications (and, for the accessors of
 * this library, once from setUpdateCallback() itself with the current value).
 * It receives an invalid value when the item disappears. The accessor stores
 * the function; whatever it captures must outlive the accessor or be replaced.
 */
class TARSEL_MODBUS_EXPORT CdsDataAccessor {
  public:
    virtual ~CdsDataAccessor() = default;

    /* Writes the value to the data store. */
    virtual void setCValue(kq::CValue const& value) = 0;
    /* The current value; an invalid value when the item does not exist. */
    virtual kq::CValue getCValue() const = 0;
    /* Whether the bound item currently exists in the data store. The name is
     * spelled so in every implementation; the daemon's code depends on it. */
    virtual bool isExitingInCds() const = 0;
    /* Installs the one listener for value changes. */
    virtual void setUpdateCallback(std::function<void(kq::CValue const&)> callback) = 0;
};

}  // namespace modbus
