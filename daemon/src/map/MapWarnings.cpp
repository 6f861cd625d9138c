#include "MapWarnings.h"

namespace tarsel::daemon {

namespace {

std::string entriesOnLibraryFloat(RegisterMapDefinition const& map, int byteOrder) {
    std::string names;
    for (EntryDefinition const& entry : map.entries) {
        int const order = entry.byteOrder == 1 ? 1 : 0;
        if (entry.encoder == EncoderKind::Float && order == byteOrder) {
            names += (names.empty() ? "" : ", ") + entry.path() + " \"" + entry.name + "\"";
        }
    }
    return names;
}

/* The library's xor bitmask stores its mask on every write, whatever the
 * client wrote (a write of 0 as much as of 1): right for a register that
 * triggers something on any write, a surprise for one read as a setting. */
void xorBitmasksTakingWrites(RegisterMapDefinition const& map, std::vector<std::string>& lines) {
    for (EntryDefinition const& entry : map.entries) {
        bool const nobodyWrites = entry.allowWrite && entry.allowWrite->empty();
        if (entry.encoder != EncoderKind::Uint16 || !entry.useBitmask ||
            entry.bitmaskOp != modbus::BitmaskOp::Xor || !isWritableTable(entry.table) ||
            nobodyWrites) {
            continue;
        }
        lines.push_back(entry.path() + " \"" + entry.name + "\": bitmask \"xor\" in " +
                        tableName(entry.table) + ": every write stores the mask (" +
                        std::to_string(entry.mask) +
                        ") whatever the client writes; serve it from input-registers, or refuse "
                        "its writes with \"allowWrite\": []");
    }
}

}  // namespace

std::vector<std::string> mapWarnings(RegisterMapDefinition const& map,
                                     FloatLayoutReport const& floatLayout) {
    std::vector<std::string> lines;
    xorBitmasksTakingWrites(map, lines);
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
