// What is valid in a map but will surprise its clients; --check and the
// start-up log print these.
#pragma once

#include <string>
#include <vector>

#include "FloatProbe.h"
#include "MapModel.h"

namespace tarsel::daemon {

/* One line per entry whose xor bitmask any client may write (every write
 * stores the mask); then one line per byte order of the library's float
 * encoder that the map uses while the linked libmodbus does not decode its
 * own float layout in that order, naming every such entry; nothing when all
 * is well. */
std::vector<std::string> mapWarnings(RegisterMapDefinition const& map,
                                     FloatLayoutReport const& floatLayout);

}  // namespace tarsel::daemon
