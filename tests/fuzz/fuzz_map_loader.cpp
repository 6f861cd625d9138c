// Arbitrary text as a register map: valid or a list of errors, nothing else.
#include <cstddef>
#include <cstdint>
#include <string>

#include "MapLoader.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    try {
        tarsel::daemon::parseRegisterMap(std::string(reinterpret_cast<char const*>(data), size));
    } catch (tarsel::daemon::MapError const&) {
    }
    return 0;
}
