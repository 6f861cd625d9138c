#include "MapWarnings.h"

namespace tarsel::daemon {

namespace {

std::string entriesOnLibraryFloat(RegisterMapDefinition const& map, int byteOrder) {
    std::string names;
    for (EntryDefinition const& entry : map.entries) {
        int const order = entry.byteOrder == 1 ? 1 : 0;
        if (entry.encoder == EncoderKind::Float && order == byteOrder) {
            names += (names.empty() ? "" : ", ") + entry.path + " \"" + entry.name + "\"";
        }
    }
    return names;
}

}  // namespace

std::vector<std::string> mapWarnings(RegisterMapDefinition const& map,
                                     FloatLayoutReport const& floatLayout) {
    std::vector<std::string> lines;
    for (FloatLayout const& layout : floatLayout.layouts) {
        if (layout.roundTrips()) {
            continue;
        }
        std::string const names = entriesOnLibraryFloat(map, layout.byteOrder);
        if (names.empty()) {
            continue;
        }
        lines.push_back("encoder \"float\" in byte order " + std::to_string(layout.byteOrder) +
                        ": libmodbus " + floatLayout.libmodbusVersion + " serves layout " +
                        layout.readLayout + " but decodes writes as " + layout.writeLayout +
                        ", so a float written back as it was read is stored as another value; "
                        "entries: " +
                        names + "; \"float32\" with a \"layout\" reads and writes alike");
    }
    return lines;
}

}  // namespace tarsel::daemon
