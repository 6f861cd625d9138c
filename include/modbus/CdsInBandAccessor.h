// The one process-wide connection of the library's data accessors.
#pragma once

#include "cdsapi/cds_accessor.h"
#include "modbus/export.h"

namespace modbus {

/*
 * Holds the one cdsapi::CdsAccessor, registered under the client name "modbus",
 * through which every data accessor reaches the data store.
 *
 * getInstance() builds it on first use (thread-safely; a failed construction
 * propagates and the next call tries again) and it lives until the process
 * ends or the library is unloaded. Callers go through getInstance() right
 * before each data-store operation and never keep the reference.
 */
class TARSEL_MODBUS_EXPORT CdsInBandAccessor {
  public:
    static CdsInBandAccessor& getInstance();

    cdsapi::CdsAccessor& cdsAccessor() { return m_cdsAccessor; }
    cdsapi::InBandAccessor& inBand() { return m_cdsAccessor.getInBandAccessor(); }

    CdsInBandAccessor(CdsInBandAccessor const&) = delete;
    CdsInBandAccessor& operator=(CdsInBandAccessor const&) = delete;

  private:
    static CdsInBandAccessor& firstInstance();
    CdsInBandAccessor();
    ~CdsInBandAccessor() = default;

    cdsapi::CdsAccessor m_cdsAccessor;
};

}  // namespace modbus
