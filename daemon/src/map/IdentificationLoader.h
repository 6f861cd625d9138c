// The map's "identification" section: the objects Read Device Identification
// answers, each a static text or a source of the data store.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "JsonChecks.h"
#include "MapModel.h"

namespace tarsel::daemon {

class JsonView;

/* Parses a source as the map's entries name them; reports its errors. Json
 * is nlohmann::json or JsonView, the map's two readings. */
template <class Json>
using SourceParser =
    std::function<std::optional<SourceDefinition>(Json const&, std::string const&)>;

/* Checks the section completely, reporting every problem to `check`:
 * unknown object names and fields, objects with neither text nor source,
 * alarm sources and channel data other than the value, texts too long for
 * one answer, and missing basic objects (VendorName, ProductCode,
 * MajorMinorRevision). Returns the objects in id order. */
template <class Json>
std::vector<IdentificationObjectDefinition> parseIdentification(
    Json const& section, JsonChecker& check, SourceParser<Json> const& parseSource);

/* "VendorName" for 0x00 ... "UserApplicationName" for 0x06; nothing for
 * other ids. */
std::optional<std::string> identificationObjectName(std::uint8_t id);
std::vector<std::string> identificationObjectNames();

}  // namespace tarsel::daemon
