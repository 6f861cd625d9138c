// Builds the library's data accessors and encoders for the entries of a map.
#pragma once

#include <memory>
#include <vector>

#include "MapModel.h"
#include "RareField.h"
#include "modbus/CdsDataAccessor.h"
#include "modbus/DiscretesDataAccessor.h"
#include "modbus/RegistersDataAccessor.h"

namespace tarsel::daemon {

/* The encoder of one entry: exactly one of the two pointers is set. */
struct BuiltEncoder {
    std::unique_ptr<modbus::RegistersDataAccessor> registers;
    std::unique_ptr<modbus::DiscretesDataAccessor> discretes;
    // Every data accessor of the entry (owned by the encoder), in the order
    // of the definition's sources, so the daemon can ask each whether its
    // item is there. The string encoder does not listen to its data accessor
    // by itself: the caller wires the first one to it.
    MostlyOne<modbus::CdsDataAccessor*> sources;
};

/* A new data accessor for the source; it detects its item at once. */
std::unique_ptr<modbus::CdsDataAccessor> makeDataAccessor(SourceDefinition const& source);

/* The encoder of a validated entry, with its data accessors and byte order. */
BuiltEncoder makeEncoder(EntryDefinition const& entry);

}  // namespace tarsel::daemon
