#include "modbus/CdsInBandAccessor.h"

namespace modbus {

namespace {
// The client name under which the library's accessors are known to the data store.
constexpr char const* kClientName = "modbus";
}  // namespace

CdsInBandAccessor::CdsInBandAccessor() : m_cdsAccessor(kClientName, true) {}

CdsInBandAccessor& CdsInBandAccessor::getInstance() {
    // A function-local static: built once, thread-safely, on first use. If the
    // construction throws, the guard is released and the next call tries again.
    static CdsInBandAccessor instance;
    return instance;
}

}  // namespace modbus
