#include "modbus/CdsInBandAccessor.h"

#include <atomic>

namespace modbus {

namespace {
// The client name under which the library's accessors are known to the data store.
constexpr char const* kClientName = "modbus";
}  // namespace

CdsInBandAccessor::CdsInBandAccessor() : m_cdsAccessor(kClientName, true) {}

namespace {
// The connection once built: every data-store operation asks for it, and
// from then on the answer is one load, without the static's guard.
std::atomic<CdsInBandAccessor*> g_built{nullptr};
}  // namespace

CdsInBandAccessor& CdsInBandAccessor::getInstance() {
    if (CdsInBandAccessor* const built = g_built.load(std::memory_order_acquire)) {
        return *built;
    }
    return firstInstance();
}

CdsInBandAccessor& CdsInBandAccessor::firstInstance() {
    // A function-local static: built once, thread-safely, on first use. If the
    // construction throws, the guard is released and the next call tries again.
    static CdsInBandAccessor instance;
    g_built.store(&instance, std::memory_order_release);
    return instance;
}

}  // namespace modbus
