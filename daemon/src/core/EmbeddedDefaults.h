// The shipped maps and scenario, built into the program so that it runs
// without any file.
#pragma once

#include <string>

namespace tarsel::daemon {

std::string embeddedMap();     // daemon/maps/ups-map.json, for the scenario's UPS
std::string embeddedNutMap();  // daemon/maps/nut-ups-map.json, for a UPS of --nut
std::string embeddedScenario();

}  // namespace tarsel::daemon
