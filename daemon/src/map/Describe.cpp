#include "Describe.h"

#include <sstream>

#include <nlohmann/json.hpp>

namespace tarsel::daemon {

namespace {

using json = nlohmann::json;

std::string sourcesText(EntryDefinition const& definition) {
    if (definition.function.empty()) {
        return describeSource(definition.sources.at(0));
    }
    std::string text = definition.function + "(";
    for (std::size_t i = 0; i < definition.sources.size(); ++i) {
        text += (i ? "; " : "") + describeSource(definition.sources[i]);
    }
    return text + ")";
}

std::string markdownCell(std::string text) {
    std::string cell;
    for (char const c : text) {
        if (c == '|') {
            cell += "\\|";
        } else if (c == '\n') {
            cell += ' ';
        } else {
            cell += c;
        }
    }
    return cell;
}

std::string csvCell(std::string const& text) {
    if (text.find_first_of(",\"\n") == std::string::npos) {
        return text;
    }
    std::string cell = "\"";
    for (char const c : text) {
        cell += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return cell + "\"";
}

std::string markdown(DescribeContext const& context) {
    std::ostringstream out;
    out << "# Register map\n\n";
    out << "Map available: " << (context.available ? "yes" : "no") << "\n\n";
    out << "Float layout (libmodbus " << context.floatLayout.libmodbusVersion << "):\n\n";
    for (auto const& layout : context.floatLayout.layouts) {
        out << "- " << describeLayout(layout)
            << (layout.roundTrips() ? "" : " (does not round-trip)") << "\n";
    }
    out << "\n| table | address | size | name | representation | value | source | pushed image "
           "| pushes | note |\n|---|---|---|---|---|---|---|---|---|---|\n";
    for (auto const& entry : context.map.entries()) {
        DescribedEntry const row = describeEntry(*entry);
        out << "| " << row.table << " | " << row.address << " | " << row.size << " | "
            << markdownCell(row.name) << " | " << markdownCell(row.representation) << " | "
            << markdownCell(row.value) << " | " << markdownCell(row.source) << " | " << row.image
            << " | " << row.pushes << " | " << markdownCell(row.note) << " |\n";
    }
    return out.str();
}

std::string csv(DescribeContext const& context) {
    std::ostringstream out;
    out << "table,address,size,name,representation,value,source,image,pushes,note\n";
    for (auto const& entry : context.map.entries()) {
        DescribedEntry const row = describeEntry(*entry);
        out << row.table << "," << row.address << "," << row.size << "," << csvCell(row.name) << ","
            << csvCell(row.representation) << "," << csvCell(row.value) << ","
            << csvCell(row.source) << "," << csvCell(row.image) << "," << row.pushes << ","
            << csvCell(row.note) << "\n";
    }
    return out.str();
}

json layoutJson(FloatLayoutReport const& report) {
    json layouts = json::array();
    for (auto const& layout : report.layouts) {
        layouts.push_back({{"byteOrder", layout.byteOrder},
                           {"probe", FloatLayout::kProbeValue},
                           {"pair", {layout.pair[0], layout.pair[1]}},
                           {"decoded", layout.decoded},
                           {"readLayout", layout.readLayout},
                           {"writeLayout", layout.writeLayout},
                           {"roundTrips", layout.roundTrips()}});
    }
    return {{"libmodbus", report.libmodbusVersion}, {"layouts", layouts}};
}

std::string jsonText(DescribeContext const& context) {
    json entries = json::array();
    for (auto const& entry : context.map.entries()) {
        DescribedEntry const row = describeEntry(*entry);
        entries.push_back({{"table", row.table},
                           {"address", row.address},
                           {"size", row.size},
                           {"name", row.name},
                           {"representation", row.representation},
                           {"value", row.value},
                           {"available", row.valueAvailable},
                           {"source", row.source},
                           {"image", entry->image.known ? json(entry->image.words) : json()},
                           {"pushes", row.pushes},
                           {"note", row.note}});
    }
    json root = {{"available", context.available},
                 {"floatLayout", layoutJson(context.floatLayout)},
                 {"entries", entries}};
    if (!context.available) {
        root["notAvailableMessage"] = context.notAvailableMessage;
    }
    return root.dump(2) + "\n";
}

}  // namespace

std::optional<DescribeFormat> describeFormatFromName(std::string const& name) {
    if (name == "markdown" || name == "md") {
        return DescribeFormat::Markdown;
    }
    if (name == "csv") {
        return DescribeFormat::Csv;
    }
    if (name == "json") {
        return DescribeFormat::Json;
    }
    return std::nullopt;
}

DescribedEntry describeEntry(ServedEntry const& entry) {
    EntryDefinition const& definition = entry.definition;
    DescribedEntry row{tableName(definition.table),
                       definition.address,
                       definition.size,
                       definition.name,
                       "",
                       "",
                       false,
                       sourcesText(definition),
                       entry.image.known ? hexWords(entry.image.words) : "-",
                       entry.image.pushes,
                       ""};
    if (!entry.built()) {
        row.note = "pending: " + entry.pendingReason;
        return row;
    }
    auto const& encoder = entry.encoder;
    try {
        row.representation = encoder.registers ? encoder.registers->getDataRepresentation()
                                               : encoder.discretes->getDataRepresentation();
        row.valueAvailable = encoder.registers ? encoder.registers->isDataAvailable()
                                               : encoder.discretes->isDataAvailable();
        row.value =
            encoder.registers ? encoder.registers->getStrValue() : encoder.discretes->getStrValue();
    } catch (std::exception const& error) {
        row.value = std::string("error: ") + error.what();
    }
    return row;
}

std::string describeMap(DescribeContext const& context, DescribeFormat format) {
    switch (format) {
        case DescribeFormat::Csv:
            return csv(context);
        case DescribeFormat::Json:
            return jsonText(context);
        case DescribeFormat::Markdown:
            break;
    }
    return markdown(context);
}

}  // namespace tarsel::daemon
