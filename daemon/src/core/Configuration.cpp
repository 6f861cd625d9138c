#include "Configuration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "EmbeddedDefaults.h"
#include "MapLoader.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon {

namespace {

constexpr int kLastUnitId = 247;

/* The heading of a map's errors: the file is named, as the --nut-map ones
 * are: with a settings file and several maps, "the register map" alone
 * leaves the reader guessing. */
std::string mapHeading(std::string const& file) {
    return file.empty() ? std::string("the built-in register map cannot be served:")
                        : "the register map \"" + file + "\" cannot be served:";
}

/* Why the file at path cannot be read, in the system's words. */
std::string unreadableReason(std::string const& path) {
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::strerror(errno);
    }
    struct stat status {};
    bool const directory = ::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    ::close(fd);
    return std::strerror(directory ? EISDIR : EIO);
}

/* The text of the file an option names. One that cannot be read (missing,
 * not permitted, a directory) is as bad a configuration as a file with
 * errors: it is refused the same way, naming the option, the file and the
 * reason, so the daemon stops with exit status 2, which the service is not
 * restarted after (a restart would find the same file), and --check says
 * so too. */
std::string readNamedFile(std::string const& option, std::string const& path,
                          std::string const& heading) {
    try {
        return readTextFile(path);
    } catch (TextFileTooLarge const& error) {
        throw ConfigurationError(heading, {option + ": " + error.what()});
    } catch (std::runtime_error const&) {
        throw ConfigurationError(
            heading, {option + ": cannot read \"" + path + "\": " + unreadableReason(path)});
    }
}

std::optional<Scenario> loadScenario(Options const& options) {
    if (options.scenarioFile == "none" || !options.nutUpses.empty()) {
        return std::nullopt;
    }
    return parseScenario(options.scenarioFile.empty()
                             ? embeddedScenario()
                             : readNamedFile("--scenario", options.scenarioFile,
                                             scenarioHeading(options.scenarioFile)));
}

/* Without --map, the built-in map of the data source: the simulated UPS's
 * channels are named as no NUT UPS names its variables, so over --nut that
 * map would serve every entry as unavailable, and the gate open. */
std::string builtInMap(Options const& options) {
    return options.nutUpses.empty() ? embeddedMap() : embeddedNutMap();
}

RegisterMapDefinition loadMap(Options const& options) {
    return parseRegisterMap(options.mapFile.empty() ? builtInMap(options)
                                                    : readNamedFile("--map", options.mapFile,
                                                                    mapHeading(options.mapFile)));
}

bool sameLimits(ClientLimits const& a, ClientLimits const& b) {
    return a.maxClients == b.maxClients && a.idleTimeout == b.idleTimeout &&
           a.partialFrameTimeout == b.partialFrameTimeout &&
           a.outputQueueBytes == b.outputQueueBytes;
}

bool sameTls(TlsConfig const& a, TlsConfig const& b) {
    return a.certificateFile == b.certificateFile && a.keyFile == b.keyFile &&
           a.caFile == b.caFile && a.roles == b.roles;
}

/* Runs `load`; what it refuses joins `refusals`, under `heading` when
 * the refusal is a file's errors: loading goes on with the next file. */
template <typename Load>
void collectRefusal(std::vector<Refusal>& refusals, std::string const& heading, Load&& load) {
    try {
        load();
    } catch (MapError const& error) {
        refusals.push_back({heading, error.errors()});
    } catch (ScenarioError const& error) {
        refusals.push_back({heading, error.errors()});
    } catch (ConfigurationError const& error) {
        refusals.insert(refusals.end(), error.refusals().begin(), error.refusals().end());
    }
}

}  // namespace

std::string scenarioHeading(std::string const& file) {
    return file.empty() ? std::string("the built-in scenario cannot be played:")
                        : "the scenario \"" + file + "\" cannot be played:";
}

std::vector<std::string> refusalLines(std::vector<Refusal> const& refusals) {
    std::vector<std::string> lines;
    for (Refusal const& refusal : refusals) {
        lines.push_back(refusal.heading);
        for (auto const& error : refusal.errors) {
            lines.push_back("  " + error);
        }
    }
    return lines;
}

Configuration loadFiles(Options options) {
    Configuration configuration;
    std::vector<Refusal> refusals;
    collectRefusal(refusals, mapHeading(options.mapFile),
                   [&] { configuration.map = loadMap(options); });
    for (std::string const& file : options.nutMaps) {
        std::string const heading = mapHeading(file);
        collectRefusal(refusals, heading, [&] {
            configuration.upsMaps.push_back(
                file.empty()
                    ? std::nullopt
                    : std::optional(parseRegisterMap(readNamedFile("--nut-map", file, heading))));
        });
    }
    collectRefusal(refusals, scenarioHeading(options.scenarioFile),
                   [&] { configuration.scenario = loadScenario(options); });
    if (!refusals.empty()) {
        throw ConfigurationError(std::move(refusals));
    }
    configuration.options = std::move(options);
    return configuration;
}

Configuration loadConfiguration(std::vector<std::string> const& args) {
    // The settings file and the secrets file are read again too.
    LoadedOptions loaded = loadOptions(args);
    if (!loaded.errors.empty()) {
        throw ConfigurationError("the options cannot be used:", std::move(loaded.errors));
    }
    return loadFiles(std::move(loaded.options));
}

namespace {

/* The map of the UPS at `index` of --nut: its own, or the shared one;
 * either is written for device 2 and moved onto the UPS's device. */
RegisterMapDefinition mapOfUps(Configuration const& configuration, std::size_t index) {
    auto const& own =
        index < configuration.upsMaps.size() ? configuration.upsMaps[index] : std::nullopt;
    return nut::mapForUps(own ? *own : configuration.map, index);
}

}  // namespace

ServedConfig servedConfig(Configuration const& configuration) {
    Options const& options = configuration.options;
    ServedConfig served;
    served.map = options.nutUpses.empty() ? configuration.map : mapOfUps(configuration, 0);
    served.unitId = static_cast<std::uint8_t>(options.unitId);
    // Without --nut-writes nothing is written back to a UPS: a write would
    // only change the daemon's copy of a value upsd owns.
    served.readOnly = !options.nutUpses.empty() && !options.nutWrites;
    // Each further UPS is served under the next unit id, with its own map
    // or the shared one moved onto its device.
    for (std::size_t k = 1; k < options.nutUpses.size(); ++k) {
        std::size_t const unit = static_cast<std::size_t>(options.unitId) + k;
        if (unit > kLastUnitId) {
            throw ConfigurationError("the UPSes cannot be served:",
                                     {"--nut: UPS " + options.nutUpses[k] + " would be unit id " +
                                      std::to_string(unit) + ", above 247"});
        }
        served.moreUnits.push_back({static_cast<std::uint8_t>(unit), mapOfUps(configuration, k)});
    }
    return served;
}

std::vector<std::string> settingsNeedingRestart(Options const& running, Options const& next) {
    std::vector<std::string> changed;
    auto check = [&changed](bool same, char const* name) {
        if (!same) {
            changed.emplace_back(name);
        }
    };
    check(running.listen == next.listen, "--listen");
    check(running.port == next.port, "--port");
    check(running.tlsPort == next.tlsPort, "--tls-port");
    check(running.tlsListen == next.tlsListen, "--tls-listen");
    check(sameTls(running.tls, next.tls), "--tls-cert/--tls-key/--tls-ca/--tls-role");
    check(sameLimits(running.limits, next.limits), "--max-clients/--idle-timeout/--frame-timeout");
    check(running.scenarioFile == next.scenarioFile, "--scenario");
    check(running.nutUpses == next.nutUpses, "--nut");
    check(running.nutInterval == next.nutInterval, "--nut-interval");
    check(running.nutWrites == next.nutWrites && running.nutCredentials == next.nutCredentials,
          "--nut-writes/--nut-credentials");
    check(running.auditLog == next.auditLog, "--audit-log");
    check(running.verbose == next.verbose, "--verbose");
    check(running.logFormat == next.logFormat, "--log-format");
    check(running.httpAddress == next.httpAddress && running.httpPort == next.httpPort &&
              running.httpAllowRemote == next.httpAllowRemote,
          "--http-listen/--http-allow-remote");
    return changed;
}

}  // namespace tarsel::daemon
