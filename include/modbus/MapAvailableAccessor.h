// Whether the register map can be served at all.
#pragma once

#include <string>

#include "modbus/export.h"

namespace modbus {

class TARSEL_MODBUS_EXPORT MapAvailableAccessor {
  public:
    virtual ~MapAvailableAccessor() = default;

    /* Whether the map can be served now. */
    virtual bool isAvailable() = 0;
    /* The text the daemon shows instead of the map while isAvailable() is false. */
    virtual std::string notAvailableMessage() const = 0;
};

}  // namespace modbus
