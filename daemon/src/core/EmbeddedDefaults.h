// The shipped UPS map and scenario, built into the program so that it runs
// without any file.
#pragma once

#include <string>

namespace tarsel::daemon {

std::string embeddedMap();
std::string embeddedScenario();

}  // namespace tarsel::daemon
