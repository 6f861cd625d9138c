// tarsel-modbusd: serves a UPS register map over Modbus TCP.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include <malloc.h>

#ifdef TARSEL_HAVE_MIMALLOC
#include <mimalloc.h>
#endif

#include "AuditTrail.h"
#include "Configuration.h"
#include "DaemonCore.h"
#include "EmbeddedDefaults.h"
#include "EventLoop.h"
#include "HttpServer.h"
#include "Log.h"
#include "LogText.h"
#include "MapLoader.h"
#include "MapWarnings.h"
#include "ModbusServer.h"
#include "Options.h"
#include "Reloader.h"
#include "Scenario.h"
#include "ServiceNotify.h"
#include "SignalPipe.h"
#include "StatusReport.h"
#include "TlsModule.h"
#include "cdshost/store.h"
#include "sources/nut/NutSource.h"
#include "sources/nut/UpsClientLibrary.h"

namespace {

using namespace tarsel::daemon;

constexpr int kExitBadInput = 2;

/* The NUT source of --nut; nothing without it. Reads the credentials of
 * --nut-writes (throws std::runtime_error when they cannot be used). */
std::unique_ptr<nut::Source> makeNutSource(Options const& options, Log& log) {
    if (options.nutUpses.empty()) {
        return nullptr;
    }
    nut::SourceConfig config;
    for (auto const& ups : options.nutUpses) {
        config.upses.push_back(nut::parseEndpoint(ups));
    }
    config.interval = std::chrono::milliseconds(static_cast<long>(options.nutInterval * 1000));
    if (options.nutWrites) {
        config.credentials = nut::readCredentials(options.nutCredentials);
        log.info("NUT: writes go back to upsd as user " +
                 quotedValue(config.credentials->username));
    }
    return std::make_unique<nut::Source>(std::move(config), cdshost::Store::instance(), log);
}

/* The audit trail of --audit-log; nothing without it. */
std::unique_ptr<AuditTrail> openAuditTrail(Options const& options, Log& log) {
    if (options.auditLog.empty()) {
        return nullptr;
    }
    auto trail = std::make_unique<AuditTrail>(options.auditLog, log);
    log.info("every write is recorded in " + quotedValue(options.auditLog));
    return trail;
}

/* Asked before anything is loaded: memory of the allocator's segments that
 * loading frees (the parsed JSON of the map and the scenario lies between
 * the records that stay) is handed back to the system as soon as it is
 * free, instead of after a delay. Memory freed before this is set would
 * stay resident for good: a collect afterwards does not hand back what was
 * freed under the delay (1.1 MiB more at 10,000 entries). */
void returnFreedMemoryPromptly() {
#ifdef TARSEL_HAVE_MIMALLOC
    mi_option_set(mi_option_decommit_delay, 0);
#endif
}

/* Hands the heap freed by loading (the parsed JSON of the map and the
 * scenario) back to the system: the allocator would otherwise keep it as
 * resident memory for the daemon's whole life. Once the map is built, and
 * after every reload. */
void releaseFreedMemory() {
#ifdef TARSEL_HAVE_MIMALLOC
    // mimalloc keeps the memory of emptied pages resident for reuse (9 MiB
    // more than glibc at 10,000 entries). From here on a page that empties
    // is handed back at once; asked only now, so that loading does not pay
    // for it, and the pages a request allocates from stay in use. Then what
    // it can hand back of what loading freed.
    mi_option_set_enabled(mi_option_page_reset, true);
    mi_collect(true);
#endif
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

/* The log format of --log-format; auto: the journal's when stderr is it. */
Log::Format logFormat(LogFormat format) {
    switch (format) {
        case LogFormat::Plain:
            return Log::Format::Plain;
        case LogFormat::Journal:
            return Log::Format::Journal;
        case LogFormat::Auto:
            break;
    }
    return isJournalStream(std::getenv("JOURNAL_STREAM"), STDERR_FILENO) ? Log::Format::Journal
                                                                         : Log::Format::Plain;
}

/* The health and metrics endpoint of --http-listen; nothing without it. */
std::unique_ptr<HttpServer> openHttp(Options const& options, DaemonCore& core,
                                     std::vector<ModbusServer*> const& servers,
                                     Metrics const& metrics, Log& log) {
    if (!options.httpAddress) {
        return nullptr;
    }
    auto responder = [&core, servers, &metrics](HttpRequest const& request) {
        return statusPage(gatherStatus(core, servers, metrics, std::chrono::steady_clock::now()),
                          request);
    };
    auto http = std::make_unique<HttpServer>(*options.httpAddress, options.httpPort, HttpLimits{},
                                             std::move(responder), log);
    log.info("health and metrics on http://" + *options.httpAddress + ":" +
             std::to_string(http->port()) + "/ (/healthz, /metrics)");
    return http;
}

int serve(Configuration const& configuration, std::vector<std::string> const& args,
          CoreConfig config, std::shared_ptr<TlsContext const> const& tls, Log& log) {
    Options const& options = configuration.options;
    // Opened first, so that it outlives the handlers that write to it. A
    // trail that cannot be opened (its directory missing, or not writable
    // by the daemon's user) stays so across restarts: a bad configuration.
    std::unique_ptr<AuditTrail> audit;
    try {
        audit = options.describe ? nullptr : openAuditTrail(options, log);
    } catch (std::runtime_error const& error) {
        log.error(std::string("--audit-log: ") + error.what());
        return kExitBadInput;
    }
    Metrics metrics;
    DaemonCore core(std::move(config), log);
    core.setAuditTrail(audit.get());
    core.setMetrics(&metrics);
    if (options.describe) {
        if (core.scenario() != nullptr) {
            core.scenario()->playFirst(options.describeAt);
        }
        std::cout << core.describe(*options.describe);
        return 0;
    }
    SignalPipe signals;
    ModbusServer server({options.listen, options.port, options.access, nullptr}, options.limits,
                        core.handler(), log);
    log.info("listening on " + options.listen + ":" + std::to_string(server.port()) + " (unit id " +
             std::to_string(options.unitId) + ")");
    std::vector<ModbusServer*> servers{&server};
    std::unique_ptr<ModbusServer> secure;
    if (options.tlsPort) {
        std::string const address = options.tlsListen.empty() ? options.listen : options.tlsListen;
        secure = std::make_unique<ModbusServer>(
            ListenConfig{address, *options.tlsPort, options.tlsAccess, tls}, options.limits,
            core.handler(), log);
        log.info("Modbus/TCP Security (TLS) on " + address + ":" + std::to_string(secure->port()));
        servers.push_back(secure.get());
    }
    std::unique_ptr<HttpServer> const http = openHttp(options, core, servers, metrics, log);
    // The same call that built this configuration builds the next one.
    // A reload frees as much as loading did at start (the files, the old
    // maps): handed back the same way.
    Reloader reloader([&args] { return loadConfiguration(args); }, options, core,
                      {&server, secure.get()}, &metrics, log, releaseFreedMemory);
    LoopExtras extras;
    extras.reload = [&reloader] { reloader.reload(); };
    extras.http = http.get();
    releaseFreedMemory();
    notifyReady("serving unit id " + std::to_string(options.unitId) + " on " + options.listen +
                    ":" + std::to_string(server.port()),
                log);
    int const status = runEventLoop(core, servers, signals, log, options.runSeconds, extras);
    notifyStopping(log);
    return status;
}

/* Loads the TLS module of --tls-port and, with it, the certificate, key
 * and CA; what cannot be used is refused, naming it. */
std::optional<Refusal> loadTls(Options const& options, std::optional<TlsModule>& module,
                               std::shared_ptr<TlsContext const>& context) {
    std::optional<std::string> const path = TlsModule::pathBesideProgram();
    if (!path) {
        return Refusal{std::string("--tls-port: cannot find the TLS module: the program's own "
                                   "file cannot be read from ") +
                           TlsModule::kProgramLink,
                       {}};
    }
    module.emplace(*path);
    if (!module->loaded()) {
        return Refusal{"--tls-port: " + module->failure(), {}};
    }
    try {
        context = module->makeContext(options.tls);
    } catch (std::exception const& error) {
        return Refusal{error.what(), {}};
    }
    return std::nullopt;
}

/* The scenario's error lines under its heading. */
int refuseScenario(std::string const& file, ScenarioError const& error, Log& log) {
    for (auto const& line : refusalLines({{scenarioHeading(file), error.errors()}})) {
        log.error(line);
    }
    return kExitBadInput;
}

/* What --check reports of a configuration that can be served. The start's
 * devices go into this process's data store, empty and seen by no one, as
 * serving would put them there: an id the store gives a device without one
 * may be the id another device asks for, which reading the file cannot tell. */
int reportChecked(Configuration& configuration, Log& log) {
    bool const scenario = configuration.scenario.has_value();
    std::size_t const events = scenario ? configuration.scenario->events.size() : 0;
    if (configuration.scenario) {
        for (auto const& line : scenarioWarnings(*configuration.scenario)) {
            log.warning("scenario: " + line);
        }
        try {
            ScenarioPlayer(std::move(*configuration.scenario), cdshost::Store::instance(), log)
                .seed();
        } catch (ScenarioError const& error) {
            return refuseScenario(configuration.options.scenarioFile, error, log);
        }
    }
    log.info("map: " + std::to_string(configuration.map.entries.size()) + " entries, valid");
    for (auto const& line : mapWarnings(configuration.map, probeFloatLayout())) {
        log.warning("map: " + line);
    }
    log.info(scenario ? "scenario: " + std::to_string(events) + " events, valid"
                      : std::string("scenario: none"));
    return 0;
}

int run(std::vector<std::string> const& args, Options const& options, Log& log) {
    Configuration configuration;
    CoreConfig config;
    // Everything that cannot be used is listed before the daemon stops (or
    // --check answers): a bad map does not hide a bad scenario or key.
    std::vector<Refusal> refusals;
    try {
        configuration = loadFiles(options);
        static_cast<ServedConfig&>(config) = servedConfig(configuration);
    } catch (ConfigurationError const& error) {
        refusals = error.refusals();
    }
    // The TLS module is loaded only for --tls-port, before anything
    // listens (--describe listens to nothing); a reload cannot change TLS,
    // so it keeps this one. Its certificate, key and CA are loaded here too:
    // a file that cannot be used is a bad configuration, found by --check
    // and before the plain listener opens, not after it.
    std::optional<TlsModule> tls;
    std::shared_ptr<TlsContext const> tlsContext;
    if (options.tlsPort && !options.describe) {
        if (std::optional<Refusal> refusal = loadTls(options, tls, tlsContext)) {
            refusals.push_back(std::move(*refusal));
        }
    }
    // The upsd user is read at start only; a file the daemon would refuse
    // then is refused by --check now.
    if (options.check && options.nutWrites) {
        try {
            nut::readCredentials(options.nutCredentials);
        } catch (std::runtime_error const& error) {
            refusals.push_back({std::string("--nut-credentials: ") + error.what(), {}});
        }
    }
    // The audit trail is opened when serving starts; --check asks whether
    // it could be, without creating it.
    if (options.check && !options.auditLog.empty()) {
        if (std::optional<std::string> const why = AuditTrail::whyNotOpenable(options.auditLog)) {
            refusals.push_back({"--audit-log: " + *why, {}});
        }
    }
    if (!refusals.empty()) {
        for (auto const& line : refusalLines(refusals)) {
            log.error(line);
        }
        return kExitBadInput;
    }
    if (options.check) {
        return reportChecked(configuration, log);
    }
    config.scenario = std::move(configuration.scenario);
    // What serving needs is in `config` now; the loaded files are not kept
    // for the daemon's whole life (a reload reads them anew), and with
    // thousands of entries they are megabytes.
    configuration.map = RegisterMapDefinition{};
    configuration.upsMaps.clear();
    configuration.scenario.reset();
    // NUT's client library is loaded only now, and only for --nut: a daemon
    // that cannot poll the UPSes it was asked to serve says so and stops.
    if (!options.nutUpses.empty() && !nut::UpsClientLibrary::instance().loaded()) {
        log.error("--nut: " + nut::UpsClientLibrary::instance().failure());
        return 1;
    }
    try {
        std::unique_ptr<nut::Source> nutSource = makeNutSource(options, log);
        if (nutSource && nutSource->writable()) {
            config.remoteWrites = nutSource.get();
        }
        config.source = std::move(nutSource);
    } catch (std::runtime_error const& error) {
        log.error(std::string("--nut-credentials: ") + error.what());
        return kExitBadInput;
    }
    int status = 0;
    try {
        status = serve(configuration, args, std::move(config), tlsContext, log);
    } catch (ScenarioError const& error) {
        // The store refused a device of the start; nothing listens yet.
        return refuseScenario(options.scenarioFile, error, log);
    }
    // Every encoder is gone now; what remains open would be a leak.
    log.info("stopped; data-store subscriptions still open: " +
             std::to_string(cdshost::Store::instance().subscriptionCount()));
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    returnFreedMemoryPromptly();
    std::vector<std::string> const args(argv + 1, argv + argc);
    LoadedOptions loaded = loadOptions(args);
    if (!loaded.errors.empty()) {
        for (auto const& error : loaded.errors) {
            std::cerr << "tarsel-modbusd: " << error << "\n";
        }
        return kExitBadInput;
    }
    Options const& options = loaded.options;
    if (options.help) {
        std::cout << usage();
        return 0;
    }
    if (options.version) {
        std::cout << versionText();
        return 0;
    }
    Log log(std::cerr, options.verbose);
    log.setFormat(logFormat(options.logFormat));
    try {
        return run(args, options, log);
    } catch (std::exception const& error) {
        log.error(error.what());
        return 1;
    }
}
