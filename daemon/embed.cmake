# Writes OUTPUT, a C++ file with the bytes of MAP, NUT_MAP and SCENARIO as
# arrays.
function(embed_bytes file variable)
    file(READ ${file} hex HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n    "
           bytes "${bytes}")
    set(${variable} "${bytes}" PARENT_SCOPE)
endfunction()

embed_bytes(${MAP} map_bytes)
embed_bytes(${NUT_MAP} nut_map_bytes)
embed_bytes(${SCENARIO} scenario_bytes)
file(WRITE ${OUTPUT} "// Generated from the shipped maps and scenario; do not edit.
#include \"EmbeddedDefaults.h\"

namespace tarsel::daemon {

namespace {
unsigned char const kMap[] = {
    ${map_bytes}};
unsigned char const kNutMap[] = {
    ${nut_map_bytes}};
unsigned char const kScenario[] = {
    ${scenario_bytes}};
}  // namespace

std::string embeddedMap() { return std::string(reinterpret_cast<char const*>(kMap), sizeof kMap); }

std::string embeddedNutMap() {
    return std::string(reinterpret_cast<char const*>(kNutMap), sizeof kNutMap);
}

std::string embeddedScenario() {
    return std::string(reinterpret_cast<char const*>(kScenario), sizeof kScenario);
}

}  // namespace tarsel::daemon
")
