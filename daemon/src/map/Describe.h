// The register-map description: every entry with its label, current value,
// source and push image, as Markdown, CSV or JSON.
#pragma once

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
    std::string representation;
    std::string value;
    bool valueAvailable;
    std::string source;
    std::string image;
    unsigned long long pushes;
    std::string note;
};

DescribedEntry describeEntry(ServedEntry const& entry);

}  // namespace tarsel::daemon
