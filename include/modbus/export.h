// Symbol visibility of libtarsel_modbus: everything is hidden unless marked.
#pragma once

#if defined(TARSEL_MODBUS_STATIC)
#define TARSEL_MODBUS_EXPORT
#elif defined(TARSEL_MODBUS_BUILDING)
#define TARSEL_MODBUS_EXPORT __attribute__((visibility("default")))
#else
#define TARSEL_MODBUS_EXPORT __attribute__((visibility("default")))
#endif
