// The value a write through an entry's encoder would store, found without
// touching what the entry reads: the encoder is built once more over a
// silent copy of its channel (or attribute) on a scratch device, the write
// goes there, and the copy's new value is the answer. So a value written to
// a UPS behind upsd is exactly what the same write would have stored, with
// every multiplier, offset, byte order and inversion of the entry.
#pragma once

#include <cstdint>
#include <vector>

#include "MapModel.h"
#include "cdshost/store.h"
#include "kq/value.h"

namespace tarsel::daemon {

/* Ids the scratch device and its channel may take: ids no one else uses. */
struct ScratchIds {
    cdshost::Id device = 0;
    cdshost::Id channel = 0;
};

/* What writing `words` through an entry of one channel or attribute source
 * stores, starting from `current` (the source's value now). Throws
 * std::invalid_argument for an entry of another kind, and whatever the
 * encoder throws on the write. Only on the thread that serves the map. */
kq::CValue captureWrite(EntryDefinition const& entry, kq::CValue const& current,
                        std::vector<std::uint16_t> const& words, cdshost::Store& store,
                        ScratchIds ids);

}  // namespace tarsel::daemon
