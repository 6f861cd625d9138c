// tarsel-modbusd: serves a UPS register map over Modbus TCP.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include "AuditTrail.h"
#include "DaemonCore.h"
#include "EmbeddedDefaults.h"
#include "EventLoop.h"
#include "Log.h"
#include "LogText.h"
#include "MapLoader.h"
#include "ModbusServer.h"
#include "Options.h"
#include "Scenario.h"
#include "ServiceNotify.h"
#include "SignalPipe.h"
#include "TlsContext.h"
#include "cdshost/store.h"
#include "sources/nut/NutSource.h"

namespace {

using namespace tarsel::daemon;

constexpr int kExitBadInput = 2;

std::optional<Scenario> loadScenario(Options const& options) {
    if (options.scenarioFile == "none" || !options.nutUpses.empty()) {
        return std::nullopt;
    }
    return parseScenario(options.scenarioFile.empty() ? embeddedScenario()
                                                      : readTextFile(options.scenarioFile));
}

RegisterMapDefinition loadMap(Options const& options) {
    return parseRegisterMap(options.mapFile.empty() ? embeddedMap()
                                                    : readTextFile(options.mapFile));
}

/* The NUT source of --nut; nothing without it. */
std::unique_ptr<DataSource> makeNutSource(Options const& options, Log& log) {
    if (options.nutUpses.empty()) {
        return nullptr;
    }
    nut::SourceConfig config;
    for (auto const& ups : options.nutUpses) {
        config.upses.push_back(nut::parseEndpoint(ups));
    }
    config.interval = std::chrono::milliseconds(static_cast<long>(options.nutInterval * 1000));
    return std::make_unique<nut::Source>(std::move(config), cdshost::Store::instance(), log);
}

/* The audit trail of --audit-log; nothing without it. */
std::unique_ptr<AuditTrail> openAuditTrail(Options const& options, Log& log) {
    if (options.auditLog.empty()) {
        return nullptr;
    }
    auto trail = std::make_unique<AuditTrail>(options.auditLog);
    log.info("every write is recorded in " + quotedValue(options.auditLog));
    return trail;
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

int serve(Options const& options, CoreConfig config, Log& log) {
    // Opened first, so that it outlives the handlers that write to it.
    std::unique_ptr<AuditTrail> const audit =
        options.describe ? nullptr : openAuditTrail(options, log);
    DaemonCore core(std::move(config), log);
    core.setAuditTrail(audit.get());
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
            ListenConfig{address, *options.tlsPort, options.tlsAccess,
                         std::make_shared<TlsContext const>(options.tls)},
            options.limits, core.handler(), log);
        log.info("Modbus/TCP Security (TLS) on " + address + ":" + std::to_string(secure->port()));
        servers.push_back(secure.get());
    }
    notifyReady("serving unit id " + std::to_string(options.unitId) + " on " + options.listen +
                ":" + std::to_string(server.port()));
    int const status = runEventLoop(core, servers, signals, log, options.runSeconds);
    notifyStopping();
    return status;
}

int run(Options const& options, Log& log) {
    CoreConfig config;
    try {
        config.map = loadMap(options);
        config.scenario = loadScenario(options);
    } catch (MapError const& error) {
        log.error("the register map cannot be served:");
        for (auto const& line : error.errors()) {
            log.error("  " + line);
        }
        return kExitBadInput;
    } catch (ScenarioError const& error) {
        log.error("the scenario cannot be played:");
        for (auto const& line : error.errors()) {
            log.error("  " + line);
        }
        return kExitBadInput;
    }
    if (options.check) {
        log.info("map: " + std::to_string(config.map.entries.size()) + " entries, valid");
        log.info(config.scenario ? "scenario: " + std::to_string(config.scenario->events.size()) +
                                       " events, valid"
                                 : std::string("scenario: none"));
        return 0;
    }
    config.unitId = static_cast<std::uint8_t>(options.unitId);
    config.source = makeNutSource(options, log);
    // Writes back to a UPS (SET VAR, INSTCMD) are not served: a write would
    // only change the daemon's copy of a value upsd owns.
    config.readOnly = !options.nutUpses.empty();
    // Each further UPS is served under the next unit id, with the map
    // moved onto its device.
    for (std::size_t k = 1; k < options.nutUpses.size(); ++k) {
        std::size_t const unit = static_cast<std::size_t>(options.unitId) + k;
        if (unit > 247) {
            log.error("--nut: UPS " + options.nutUpses[k] + " would be unit id " +
                      std::to_string(unit) + ", above 247");
            return kExitBadInput;
        }
        config.moreUnits.push_back(
            {static_cast<std::uint8_t>(unit), nut::mapForUps(config.map, k)});
    }
    int const status = serve(options, std::move(config), log);
    // Every encoder is gone now; what remains open would be a leak.
    log.info("stopped; data-store subscriptions still open: " +
             std::to_string(cdshost::Store::instance().subscriptionCount()));
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    LoadedOptions loaded = loadOptions(std::vector<std::string>(argv + 1, argv + argc));
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
    Log log(std::cerr, options.verbose);
    log.setFormat(logFormat(options.logFormat));
    try {
        return run(options, log);
    } catch (std::exception const& error) {
        log.error(error.what());
        return 1;
    }
}
