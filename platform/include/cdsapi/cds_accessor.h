// Connection to the card's central data store.
#pragma once

#include <string>

#include "cdsapi/in_band_accessor.h"

namespace cdsapi {

/* A client connection registered under a client name. Construction opens the
 * connection and throws when that fails. */
class CdsAccessor {
  public:
    CdsAccessor(std::string const& clientName, bool inBand);
    ~CdsAccessor();

    CdsAccessor(CdsAccessor const&) = delete;
    CdsAccessor& operator=(CdsAccessor const&) = delete;

    /* The id of the device of that name; throws when there is none. */
    unsigned long long getDeviceByName(std::string const& name);

    InBandAccessor& getInBandAccessor() { return m_inBand; }

  private:
    InBandAccessor m_inBand;
};

}  // namespace cdsapi
