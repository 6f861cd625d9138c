// Reads a register map file and checks it completely before anything is
// served: every error is collected, each naming the entry and what is wrong.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "MapModel.h"

namespace tarsel::daemon {

/* A map that cannot be served; errors() lists every problem found. */
class MapError : public std::runtime_error {
  public:
    explicit MapError(std::vector<std::string> errors);
    std::vector<std::string> const& errors() const { return m_errors; }

  private:
    std::vector<std::string> m_errors;
};

/* Parses and validates the JSON text of a map; throws MapError. Reads it
 * with parseRegisterMapQuickly, and a map that this does not accept with
 * parseRegisterMapWithNlohmann, whose errors it throws. */
RegisterMapDefinition parseRegisterMap(std::string const& text);

/* The map read with simdjson; nothing when simdjson cannot read the text the
 * way nlohmann does (see JsonDocument: -0, a field name repeated in an object)
 * or when the map has any error. */
std::optional<RegisterMapDefinition> parseRegisterMapQuickly(std::string const& text);

/* The map read with nlohmann alone; throws MapError with every error. */
RegisterMapDefinition parseRegisterMapWithNlohmann(std::string const& text);

/* More than any map, scenario or settings file: a 65,536-entry map is about
 * 20 MiB. Beyond it a file is refused unread, so that one named by mistake
 * (/dev/zero, a log, a FIFO that never ends) costs no more memory than this. */
constexpr std::size_t kMaxTextFileBytes = std::size_t{64} << 20;

/* A file refused for its size; what() names the file and the bound. */
class TextFileTooLarge : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* Reads a file; throws TextFileTooLarge for one of more than
 * kMaxTextFileBytes, std::runtime_error when it cannot be read. */
std::string readTextFile(std::string const& path);

}  // namespace tarsel::daemon
