#include "Options.h"

#include <set>

#include <CLI/CLI.hpp>

#include "HttpServer.h"
#include "MapLoader.h"
#include "OptionTable.h"
#include "PrivateFile.h"
#include "SettingsFile.h"

namespace tarsel::daemon {

namespace {

constexpr char kDescription[] =
    "Serves a UPS register map over Modbus TCP from the simulated data store.\n"
    "Without --map and --scenario it serves the built-in UPS map and scenario.";

constexpr char kFooter[] =
    "Signals: SIGINT and SIGTERM stop the daemon cleanly; SIGHUP reloads the\n"
    "options, the settings file and the map (a bad one is refused and the running\n"
    "one kept); SIGUSR1 logs the register-map description.\n"
    "\n"
    "Exit status: 0 after a clean stop, 1 on a run-time failure (a listener that\n"
    "cannot open), 2 for a bad command line, settings file, map, scenario or other\n"
    "file it names (one that cannot be read or loaded included).\n"
    "\n"
    "See tarsel-modbusd(8).";

/* A command-line parser that knows every option of the table. */
std::unique_ptr<CLI::App> makeParser() {
    auto app = std::make_unique<CLI::App>(kDescription, "tarsel-modbusd");
    app->get_formatter()->column_width(34);
    app->footer(kFooter);
    // Left over for readCommandLine() to name each one.
    app->allow_extras();
    // What a bug report or an upgrade check asks first; like --help, no
    // row of the table, since a settings file has no use for it.
    app->set_version_flag("--version", versionText(), "Print the version and exit");
    for (OptionRow const& row : optionTable()) {
        std::string names = "--" + row.name;
        if (!row.shortName.empty()) {
            names = "-" + row.shortName + "," + names;
        }
        CLI::Option* option = nullptr;
        switch (row.kind) {
            case OptionKind::Flag:
            case OptionKind::Optional:
                // A flag takes a value only after "=": "--describe csv" is
                // two arguments, the second one unexpected.
                option = app->add_flag(names, row.help);
                break;
            case OptionKind::List:
                option = app->add_option(names, row.help)
                             ->allow_extra_args(false)
                             ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
                break;
            case OptionKind::Text:
            case OptionKind::Integer:
            case OptionKind::Seconds:
                // Given twice, the last one counts, as it always has.
                option = app->add_option(names, row.help)
                             ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
                break;
        }
        option->type_name(row.valueName);
    }
    return app;
}

/* What the command line says, as texts, or why it cannot be read. */
struct CommandLine {
    OptionValues values;
    bool help = false;
    bool version = false;
    std::vector<std::string> errors;
};

/* Each --nut-map belongs to the --nut before it: the values of "nut-map"
 * become one per --nut, "" for a UPS without a map of its own. */
void lineUpNutMaps(CLI::App const& app, CommandLine& line) {
    CLI::Option const* nut = app.get_option("--nut");
    CLI::Option const* nutMap = app.get_option("--nut-map");
    if (nutMap->count() == 0 && nut->count() == 0) {
        return;
    }
    std::vector<std::string> const& ups = nut->results();
    std::vector<std::string> const& files = nutMap->results();
    std::vector<std::string> maps;
    std::size_t nextFile = 0;
    for (CLI::Option const* option : app.parse_order()) {
        if (option == nut) {
            maps.emplace_back();
        } else if (option == nutMap) {
            std::string const& file = files.at(nextFile++);
            if (maps.empty()) {
                line.errors.push_back("--nut-map " + file + ": give it after the --nut of its UPS");
            } else if (!maps.back().empty()) {
                line.errors.push_back("--nut-map " + file + ": UPS " + ups.at(maps.size() - 1) +
                                      " has a map already");
            } else {
                maps.back() = file;
            }
        }
    }
    line.values["nut-map"] = maps;
}

/* "; did you mean --port?" for "--prot" or "--prot=502"; "" when no option
 * is that close. */
std::string suggestion(std::string const& unknown) {
    std::size_t const start = unknown.find_first_not_of('-');
    if (start == std::string::npos) {
        return "";
    }
    std::string const name = unknown.substr(start, unknown.find('=', start) - start);
    std::optional<std::string> const closest = closestOptionName(name);
    return closest ? "; did you mean --" + *closest + "?" : "";
}

CommandLine readCommandLine(std::vector<std::string> const& args) {
    CommandLine line;
    auto const app = makeParser();
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
        app->parse(reversed);
    } catch (CLI::CallForHelp const&) {
        line.help = true;
        return line;
    } catch (CLI::CallForVersion const&) {
        line.version = true;
        return line;
    } catch (CLI::ParseError const& error) {
        line.errors.push_back(std::string(error.what()) + " (see --help)");
        return line;
    }
    for (std::string const& extra : app->remaining()) {
        bool const option = extra.size() > 1 && extra[0] == '-';
        line.errors.push_back((option ? "unknown option \"" : "unexpected argument \"") + extra +
                              "\"" + (option ? suggestion(extra) : "") + " (see --help)");
    }
    for (OptionRow const& row : optionTable()) {
        CLI::Option const* option = app->get_option("--" + row.name);
        if (option->count() > 0) {
            line.values[row.name] = option->results();
        }
    }
    lineUpNutMaps(*app, line);
    return line;
}

/* Where each option's values came from, for the errors about them. */
using Origins = std::map<std::string, std::string>;  // name -> file; absent: command line

/* Values of over replace those of under, option by option. */
void overlay(OptionValues& under, Origins& origins, OptionValues const& over,
             std::string const& origin) {
    for (auto const& [name, values] : over) {
        under[name] = values;
        if (origin.empty()) {
            origins.erase(name);
        } else {
            origins[name] = origin;
        }
    }
}

/* The text of a settings or secrets file, or an error. */
std::optional<std::string> readSettingsText(std::string const& path, bool secret,
                                            std::vector<std::string>& errors) {
    try {
        return secret ? readPrivateFile(path) : readTextFile(path);
    } catch (std::exception const& error) {
        errors.push_back(std::string(secret ? "secrets file: " : "settings file: ") + error.what());
        return std::nullopt;
    }
}

/* Reads the settings file and the secrets file into values (the command
 * line's, which override both). */
OptionValues mergeFiles(OptionValues const& commandLine, Origins& origins,
                        std::vector<std::string>& errors) {
    OptionValues merged;
    auto const config = commandLine.find("config");
    if (config != commandLine.end()) {
        std::string const& path = config->second.back();
        if (auto const text = readSettingsText(path, false, errors)) {
            SettingsFile file = parseSettingsFile(*text, path);
            errors.insert(errors.end(), file.errors.begin(), file.errors.end());
            overlay(merged, origins, file.values, path);
        }
    }
    overlay(merged, origins, commandLine, "");
    auto const secrets = merged.find("secrets");
    if (secrets != merged.end()) {
        std::string const path = secrets->second.back();
        if (auto const text = readSettingsText(path, true, errors)) {
            SettingsFile file = parseSettingsFile(*text, path, {"secrets"});
            errors.insert(errors.end(), file.errors.begin(), file.errors.end());
            overlay(merged, origins, file.values, path);
            // ... yet the command line still has the last word.
            overlay(merged, origins, commandLine, "");
        }
    }
    return merged;
}

/* nutRefused: a --nut value was refused (and named) already, so its UPS is
 * missing from nutUpses while its place in nutMaps is not: counting them
 * would only blame a --nut-map nobody gave. */
void checkNut(Options& options, bool nutRefused, std::vector<std::string>& errors) {
    if (options.nutMaps.size() > options.nutUpses.size() && !nutRefused) {
        errors.push_back("nut-map names " + std::to_string(options.nutMaps.size()) + " maps for " +
                         std::to_string(options.nutUpses.size()) + " UPSes of --nut");
    }
    options.nutMaps.resize(options.nutUpses.size());
    if (options.nutWrites && (options.nutUpses.empty() || options.nutCredentials.empty())) {
        errors.push_back("--nut-writes needs --nut and --nut-credentials FILE");
    }
}

void checkHttp(Options const& options, std::vector<std::string>& errors) {
    // The endpoint has no authentication: it tells the world how the UPS
    // and the daemon are doing, so it stays on this host unless asked.
    if (options.httpAddress && !options.httpAllowRemote &&
        !isLoopbackAddress(*options.httpAddress)) {
        errors.push_back("--http-listen " + *options.httpAddress +
                         ": not a loopback address (127.0.0.0/8); add "
                         "--http-allow-remote to serve health and metrics there");
    }
}

void checkTls(Options const& options, std::vector<std::string>& errors) {
    if (!options.tlsPort) {
        return;
    }
    TlsConfig const& tls = options.tls;
    if (tls.certificateFile.empty() || tls.keyFile.empty() || tls.caFile.empty()) {
        errors.push_back("--tls-port needs --tls-cert, --tls-key and --tls-ca");
    }
    if (tls.roles.empty()) {
        errors.push_back(
            "--tls-port needs at least one --tls-role: without one no client could do anything");
    }
}

}  // namespace

LoadedOptions loadOptions(std::vector<std::string> const& args) {
    LoadedOptions loaded;
    Options& options = loaded.options;
    options.tlsAccess.allowWrite(std::nullopt, parseCidrList("any"));
    CommandLine const line = readCommandLine(args);
    if (!line.errors.empty()) {
        loaded.errors = line.errors;
        return loaded;
    }
    if (line.help || line.version) {
        options.help = line.help;
        options.version = line.version;
        return loaded;
    }
    Origins origins;
    OptionValues const values = mergeFiles(line.values, origins, loaded.errors);
    std::set<std::string> refused;
    // In the table's order, whatever order they were given in.
    for (OptionRow const& row : optionTable()) {
        auto const found = values.find(row.name);
        if (found == values.end()) {
            continue;
        }
        for (std::string const& value : found->second) {
            try {
                row.apply(options, value);
            } catch (std::invalid_argument const& error) {
                refused.insert(row.name);
                auto const origin = origins.find(row.name);
                loaded.errors.push_back(
                    (origin == origins.end() ? "--" + row.name : origin->second + ": " + row.name) +
                    " " + error.what());
            }
        }
    }
    checkTls(options, loaded.errors);
    checkNut(options, refused.count("nut") != 0, loaded.errors);
    checkHttp(options, loaded.errors);
    return loaded;
}

Options parseOptions(std::vector<std::string> const& args) {
    LoadedOptions loaded = loadOptions(args);
    if (!loaded.errors.empty()) {
        std::string text;
        for (auto const& error : loaded.errors) {
            text += (text.empty() ? "" : "\n") + error;
        }
        throw std::invalid_argument(text);
    }
    return std::move(loaded.options);
}

std::string usage() {
    return makeParser()->help();
}

std::string versionText() {
    return std::string("tarsel-modbusd ") + TARSEL_DAEMON_VERSION + "\n";
}

}  // namespace tarsel::daemon
