#include "Describe.h"

#include <functional>
#include <sstream>

#include <nlohmann/json.hpp>

#include "EntryWire.h"

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
        } else if (c == '\n' || c == '\r') {
            cell += ' ';
        } else {
            cell += c;
        }
    }
    return cell;
}

/* The columns of the Markdown and CSV tables, in order. */
struct Column {
    char const* name;
    std::function<std::string(DescribedEntry const&)> text;
};

std::vector<Column> const& columns() {
    static std::vector<Column> const list = {
        {"table", [](auto const& r) { return r.table; }},
        {"address", [](auto const& r) { return std::to_string(r.address); }},
        {"size", [](auto const& r) { return std::to_string(r.size); }},
        {"name", [](auto const& r) { return r.name; }},
        {"wire", [](auto const& r) { return r.wire; }},
        {"unit", [](auto const& r) { return r.unit; }},
        {"scale", [](auto const& r) { return plainNumber(r.scale); }},
        {"offset", [](auto const& r) { return plainNumber(r.offset); }},
        {"access", [](auto const& r) { return r.access; }},
        {"unavailable", [](auto const& r) { return r.unavailable; }},
        {"representation", [](auto const& r) { return r.representation; }},
        {"value", [](auto const& r) { return r.value; }},
        {"source", [](auto const& r) { return r.source; }},
        {"image", [](auto const& r) { return r.image; }},
        {"pushes", [](auto const& r) { return std::to_string(r.pushes); }},
        {"note", [](auto const& r) { return r.note; }},
    };
    return list;
}

std::string markdown(DescribeContext const& context) {
    std::ostringstream out;
    out << "# Register map\n\n";
    out << "Map available: " << (context.available ? "yes" : "no") << "\n\n";
    out << "Registers and discretes are 0-based, as on the wire. The value is raw x scale + "
           "offset; 32-bit layouts name where the value's big-endian bytes A B C D lie "
           "(ABCD: register 0 = AB).\n\n";
    out << "Float layout (libmodbus " << context.floatLayout.libmodbusVersion << "):\n\n";
    for (auto const& layout : context.floatLayout.layouts) {
        out << "- " << describeLayout(layout)
            << (layout.roundTrips() ? "" : " (does not round-trip)") << "\n";
    }
    out << "\n|";
    std::string rule = "|";
    for (auto const& column : columns()) {
        out << " " << column.name << " |";
        rule += "---|";
    }
    out << "\n" << rule << "\n";
    for (auto const& entry : context.map.entries()) {
        DescribedEntry const row = describeEntry(*entry, context);
        out << "|";
        for (auto const& column : columns()) {
            out << " " << markdownCell(column.text(row)) << " |";
        }
        out << "\n";
    }
    return out.str();
}

/* RFC 4180: a header record, one record per entry, CRLF line breaks. */
std::string csv(DescribeContext const& context) {
    std::ostringstream out;
    std::string separator;
    for (auto const& column : columns()) {
        out << separator << column.name;
        separator = ",";
    }
    out << "\r\n";
    for (auto const& entry : context.map.entries()) {
        DescribedEntry const row = describeEntry(*entry, context);
        separator.clear();
        for (auto const& column : columns()) {
            out << separator << csvField(column.text(row));
            separator = ",";
        }
        out << "\r\n";
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
        DescribedEntry const row = describeEntry(*entry, context);
        entries.push_back(
            {{"table", row.table},
             {"address", row.address},
             {"size", row.size},
             {"name", row.name},
             {"wire", row.wire},
             {"unit", row.unit},
             {"scale", row.scale},
             {"offset", row.offset},
             {"access", row.access},
             {"unavailable", row.unavailable},
             {"unavailableWords", unavailableWords(entry->definition)},
             {"representation", row.representation},
             {"value", row.value},
             {"available", row.valueAvailable},
             {"source", row.source},
             {"image", entry->image.known() ? json(entry->image.words.vector()) : json()},
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

std::string csvField(std::string const& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string field = "\"";
    for (char const c : text) {
        field += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return field + "\"";
}

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

DescribedEntry describeEntry(ServedEntry const& entry, DescribeContext const& context) {
    EntryDefinition const& definition = entry.definition;
    EntryWire const wire = wireOf(definition);
    DescribedEntry row{tableName(definition.table),
                       definition.address,
                       definition.size,
                       definition.name,
                       wireText(definition, context.floatLayout),
                       definition.unit,
                       wire.scale,
                       wire.offset,
                       accessText(definition, context.readOnly),
                       unavailableText(definition),
                       "",
                       "",
                       false,
                       sourcesText(definition),
                       entry.image.known() ? hexWords(entry.image.words.vector()) : "-",
                       entry.image.pushes,
                       ""};
    if (row.access == "RW" && context.takesWrites && !context.takesWrites(entry)) {
        row.access = "R";  // refused: what it serves cannot be written back
    }
    if (!entry.built()) {
        row.note = "pending: " + context.map.pendingReason(entry);
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
