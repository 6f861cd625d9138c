// The register-map description: a reference an integrator can hand to whoever
// configures the Modbus master (per entry its wire type and layout, unit,
// scaling, access and unavailable value) together with what the daemon sees
// (the library's label, current value, source and push image), as Markdown,
// CSV (RFC 4180, for spreadsheets) or JSON.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "FloatProbe.h"
#include "ServedMap.h"

namespace tarsel::daemon {

enum class DescribeFormat { Markdown, Csv, Json };

std::optional<DescribeFormat> describeFormatFromName(std::string const& name);

struct DescribeContext {
    ServedMap const& map;
    FloatLayoutReport const& floatLayout;
    bool available;
    std::string notAvailableMessage;
    bool readOnly = false;  // the daemon refuses every write (--nut)
    // Where writes are handed to another system (--nut-writes): whether it
    // takes the entry's writes (an entry over a NUT variable or command);
    // the others are refused. Empty: every entry of a writable table may be.
    std::function<bool(ServedEntry const&)> takesWrites;
};

std::string describeMap(DescribeContext const& context, DescribeFormat format);

/* One row of the description; the texts of the library, or the error a read
 * raised. A pending entry has no encoder yet: no representation, an empty
 * value and a note saying why it is pending. */
struct DescribedEntry {
    std::string table;
    unsigned address;
    unsigned size;
    std::string name;
    std::string wire;  // "float32 ABCD", "int16", "string 16 chars", "bits"
    std::string unit;
    double scale;  // value = raw x scale + offset
    double offset;
    std::string access;       // "R" or "RW"
    std::string unavailable;  // what a read answers while the value is missing
    std::string representation;
    std::string value;
    bool valueAvailable;
    std::string source;
    std::string image;
    unsigned long long pushes;
    std::string note;
};

DescribedEntry describeEntry(ServedEntry const& entry, DescribeContext const& context);

/* One field of a CSV record: quoted (quotes doubled) when it holds a comma,
 * a quote or a line break, as RFC 4180 has it. */
std::string csvField(std::string const& text);

}  // namespace tarsel::daemon
