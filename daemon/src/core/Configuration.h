// Building the daemon's configuration from its command line and the files it
// names, as one call that can be made again: at start and on every reload.
// Reads files, changes nothing.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "DaemonCore.h"
#include "MapModel.h"
#include "Options.h"
#include "Scenario.h"

namespace tarsel::daemon {

struct Configuration {
    Options options;
    RegisterMapDefinition map;
    // The maps of --nut-map, one per --nut (nothing: the UPS is served
    // with `map`).
    std::vector<std::optional<RegisterMapDefinition>> upsMaps;
    std::optional<Scenario> scenario;  // nothing: no scenario (none, or NUT)
};

/* One thing of a configuration that cannot be used (a file, a setting):
 * what it is, and every error found in it (none when the heading says it
 * all). */
struct Refusal {
    std::string heading;
    std::vector<std::string> errors;
};

/* A configuration that cannot be served: every file or setting at fault,
 * each with its errors, so that one look at the log (or one --check) shows
 * all there is to mend. what() is the first heading. */
class ConfigurationError : public std::runtime_error {
  public:
    ConfigurationError(std::string const& heading, std::vector<std::string> errors)
        : ConfigurationError(std::vector<Refusal>{{heading, std::move(errors)}}) {}
    /* At least one refusal. */
    explicit ConfigurationError(std::vector<Refusal> refusals)
        : std::runtime_error(refusals.at(0).heading), m_refusals(std::move(refusals)) {}
    std::vector<Refusal> const& refusals() const { return m_refusals; }

  private:
    std::vector<Refusal> m_refusals;
};

/* The heading of a scenario's errors, naming its file. */
std::string scenarioHeading(std::string const& file);

/* The refusals as log lines: each heading, then its errors indented. */
std::vector<std::string> refusalLines(std::vector<Refusal> const& refusals);

/* Reads and checks the maps and the scenario the options name. Throws
 * ConfigurationError listing every file at fault: every error of a file
 * with errors, the option, the file and the reason for a file that cannot
 * be read. A bad map does not hide a bad scenario. */
Configuration loadFiles(Options options);
/* The command line, then its files; a bad command line is a
 * ConfigurationError too. */
Configuration loadConfiguration(std::vector<std::string> const& args);

/* The maps to serve and their unit ids: the map under --unit-id and, with
 * several --nut UPSes, each further UPS under the following unit ids with
 * its own map (--nut-map) or the shared one, moved onto its device. Throws
 * ConfigurationError past unit id 247. */
ServedConfig servedConfig(Configuration const& configuration);

/* The settings that differ between two option sets and cannot change while
 * the daemon runs (listeners, data source, files opened at start); empty
 * when a reload can apply `next`. */
std::vector<std::string> settingsNeedingRestart(Options const& running, Options const& next);

}  // namespace tarsel::daemon
