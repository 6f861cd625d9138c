// Arbitrary text as a scenario: valid or a list of errors, nothing else.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    try {
        tarsel::daemon::parseScenario(std::string(reinterpret_cast<char const*>(data), size));
    } catch (tarsel::daemon::ScenarioError const&) {
    }
    return 0;
}
