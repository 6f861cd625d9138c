#include "Options.h"

#include <cmath>
#include <stdexcept>

#include "HttpServer.h"
#include "sources/nut/NutEndpoint.h"

namespace tarsel::daemon {

namespace {

long long integerArgument(std::string const& option, std::string const& text, long long min,
                          long long max) {
    std::size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used);
    } catch (std::exception const&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < min || value > max) {
        throw std::invalid_argument(option + " expects an integer from " + std::to_string(min) +
                                    " to " + std::to_string(max) + ", got \"" + text + "\"");
    }
    return value;
}

double secondsArgument(std::string const& option, std::string const& text) {
    std::size_t used = 0;
    double value = -1;
    try {
        value = std::stod(text, &used);
    } catch (std::exception const&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || !std::isfinite(value) || value < 0) {
        throw std::invalid_argument(option + " expects a number of seconds, got \"" + text + "\"");
    }
    return value;
}

/* Splits "--name=value" and takes the value of "--name value". */
struct Argument {
    std::string name;
    std::optional<std::string> value;
};

std::chrono::milliseconds millisecondsArgument(std::string const& option, std::string const& text) {
    double const seconds = secondsArgument(option, text);
    if (seconds > 1e9) {
        throw std::invalid_argument(option + " expects at most 1e9 seconds, got \"" + text + "\"");
    }
    return std::chrono::milliseconds(static_cast<long long>(std::llround(seconds * 1000)));
}

Argument split(std::string const& arg) {
    auto const equals = arg.find('=');
    if (equals == std::string::npos) {
        return {arg, std::nullopt};
    }
    return {arg.substr(0, equals), arg.substr(equals + 1)};
}

/* "NAME=read-only" or "NAME=read-write". */
void addRole(TlsConfig& tls, std::string const& text) {
    std::size_t const equals = text.rfind('=');
    std::string const access = equals == std::string::npos ? "" : text.substr(equals + 1);
    if (equals == 0 || (access != "read-only" && access != "read-write")) {
        throw std::invalid_argument("--tls-role expects NAME=read-only or NAME=read-write, got \"" +
                                    text + "\"");
    }
    tls.roles[text.substr(0, equals)] =
        access == "read-write" ? RoleAccess::ReadWrite : RoleAccess::ReadOnly;
}

void checkTls(Options const& options) {
    if (!options.tlsPort) {
        return;
    }
    TlsConfig const& tls = options.tls;
    if (tls.certificateFile.empty() || tls.keyFile.empty() || tls.caFile.empty()) {
        throw std::invalid_argument("--tls-port needs --tls-cert, --tls-key and --tls-ca");
    }
    if (tls.roles.empty()) {
        throw std::invalid_argument(
            "--tls-port needs at least one --tls-role: without one no client could do anything");
    }
}

/* "ADDR:PORT" of --http-listen. */
void setHttpListen(Options& options, std::string const& text) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        throw std::invalid_argument("--http-listen expects ADDR:PORT, got \"" + text + "\"");
    }
    options.httpAddress = text.substr(0, colon);
    options.httpPort =
        static_cast<int>(integerArgument("--http-listen", text.substr(colon + 1), 0, 65535));
}

void checkHttp(Options const& options) {
    // The endpoint has no authentication: it tells the world how the UPS
    // and the daemon are doing, so it stays on this host unless asked.
    if (options.httpAddress && !options.httpAllowRemote &&
        !isLoopbackAddress(*options.httpAddress)) {
        throw std::invalid_argument("--http-listen " + *options.httpAddress +
                                    ": not a loopback address (127.0.0.0/8); add "
                                    "--http-allow-remote to serve health and metrics there");
    }
}

}  // namespace

Options parseOptions(std::vector<std::string> const& args) {
    Options options;
    options.tlsAccess.allowWrite(std::nullopt, parseCidrList("any"));
    for (std::size_t i = 0; i < args.size(); ++i) {
        Argument arg = split(args[i]);
        auto value = [&]() -> std::string {
            if (arg.value) {
                return *arg.value;
            }
            if (i + 1 >= args.size()) {
                throw std::invalid_argument(arg.name + " needs a value");
            }
            return args[++i];
        };
        if (arg.name == "--help" || arg.name == "-h") {
            options.help = true;
        } else if (arg.name == "--verbose" || arg.name == "-v") {
            options.verbose = true;
        } else if (arg.name == "--check") {
            options.check = true;
        } else if (arg.name == "--describe") {
            std::string const format = arg.value.value_or("markdown");
            options.describe = describeFormatFromName(format);
            if (!options.describe) {
                throw std::invalid_argument("--describe expects markdown, csv or json, got \"" +
                                            format + "\"");
            }
        } else if (arg.name == "--describe-at") {
            options.describeAt = secondsArgument(arg.name, value());
        } else if (arg.name == "--map") {
            options.mapFile = value();
        } else if (arg.name == "--scenario") {
            options.scenarioFile = value();
        } else if (arg.name == "--listen") {
            options.listen = value();
        } else if (arg.name == "--port") {
            options.port = static_cast<int>(integerArgument(arg.name, value(), 0, 65535));
        } else if (arg.name == "--unit-id") {
            options.unitId = static_cast<int>(integerArgument(arg.name, value(), 1, 247));
        } else if (arg.name == "--nut") {
            options.nutUpses.push_back(value());
            options.nutMaps.emplace_back();
            nut::parseEndpoint(options.nutUpses.back());  // throws for a bad one
        } else if (arg.name == "--nut-map") {
            std::string const file = value();
            if (options.nutMaps.empty()) {
                throw std::invalid_argument("--nut-map " + file +
                                            ": give it after the --nut of its UPS");
            }
            if (!options.nutMaps.back().empty()) {
                throw std::invalid_argument("--nut-map " + file + ": UPS " +
                                            options.nutUpses.back() + " has a map already");
            }
            options.nutMaps.back() = file;
        } else if (arg.name == "--nut-writes") {
            options.nutWrites = true;
        } else if (arg.name == "--nut-credentials") {
            options.nutCredentials = value();
        } else if (arg.name == "--nut-interval") {
            options.nutInterval = secondsArgument(arg.name, value());
            if (options.nutInterval < 0.05) {
                throw std::invalid_argument("--nut-interval expects at least 0.05 seconds");
            }
        } else if (arg.name == "--allow-read" || arg.name == "--allow-write") {
            std::string const rule = value();
            try {
                applyAllowOption(options.access, arg.name == "--allow-write", rule);
            } catch (std::invalid_argument const& error) {
                throw std::invalid_argument(arg.name + " " + rule + ": " + error.what());
            }
        } else if (arg.name == "--tls-allow-read" || arg.name == "--tls-allow-write") {
            std::string const rule = value();
            try {
                applyAllowOption(options.tlsAccess, arg.name == "--tls-allow-write", rule);
            } catch (std::invalid_argument const& error) {
                throw std::invalid_argument(arg.name + " " + rule + ": " + error.what());
            }
        } else if (arg.name == "--tls-port") {
            options.tlsPort = static_cast<int>(integerArgument(arg.name, value(), 0, 65535));
        } else if (arg.name == "--tls-listen") {
            options.tlsListen = value();
        } else if (arg.name == "--tls-cert") {
            options.tls.certificateFile = value();
        } else if (arg.name == "--tls-key") {
            options.tls.keyFile = value();
        } else if (arg.name == "--tls-ca") {
            options.tls.caFile = value();
        } else if (arg.name == "--tls-role") {
            addRole(options.tls, value());
        } else if (arg.name == "--audit-log") {
            options.auditLog = value();
        } else if (arg.name == "--max-clients") {
            options.limits.maxClients =
                static_cast<std::size_t>(integerArgument(arg.name, value(), 1, 10000));
        } else if (arg.name == "--idle-timeout") {
            options.limits.idleTimeout = millisecondsArgument(arg.name, value());
        } else if (arg.name == "--frame-timeout") {
            options.limits.partialFrameTimeout = millisecondsArgument(arg.name, value());
        } else if (arg.name == "--http-listen") {
            setHttpListen(options, value());
        } else if (arg.name == "--http-allow-remote") {
            options.httpAllowRemote = true;
        } else if (arg.name == "--run-seconds") {
            options.runSeconds = secondsArgument(arg.name, value());
        } else {
            throw std::invalid_argument("unknown option \"" + args[i] + "\" (see --help)");
        }
    }
    checkTls(options);
    checkHttp(options);
    if (options.nutWrites && (options.nutUpses.empty() || options.nutCredentials.empty())) {
        throw std::invalid_argument("--nut-writes needs --nut and --nut-credentials FILE");
    }
    return options;
}

std::string usage() {
    return R"(Usage: tarsel-modbusd [options]

Serves a UPS register map over Modbus TCP from the simulated data store.
Without --map and --scenario it serves the built-in UPS map and scenario.

Options:
  --map FILE            register map (JSON); default: the built-in UPS map
  --scenario FILE       scenario for the simulated data store (JSON);
                        "none" starts from an empty store; default: built-in
  --listen ADDR         address to listen on (default 127.0.0.1)
  --port N              TCP port (default 1502; 0 picks a free port, logged)
  --unit-id N           Modbus unit id served, 1..247 (default 1); 0 and 255
                        are accepted too
  --nut UPS[@HOST[:PORT]]
                        serve a UPS of Network UPS Tools (upsd, port 3493
                        by default) instead of a scenario; see README
  --nut-interval N      seconds between two polls of upsd (default 1)
  --nut-map FILE        the register map of the UPS of the --nut before it
                        (default: --map's, moved onto that UPS's device)
  --nut-writes          write back to upsd: SET VAR for entries over a NUT
                        variable, INSTCMD for coils over "instcmd.<command>"
                        (default: every write refused with exception 0x01)
  --nut-credentials FILE
                        upsd user for --nut-writes: "username = NAME" and
                        "password = SECRET" lines; the file must not be
                        readable by group or others
  --allow-read [TABLE=]LIST
                        who may read (TABLE: that table only); LIST is
                        "any", "none" or networks such as 10.0.0.0/8,
                        192.168.1.7 (default: any); repeatable
  --allow-write [TABLE=]LIST
                        who may write, as --allow-read (default:
                        127.0.0.0/8, this host only)
  --tls-port N          also serve Modbus/TCP Security (TLS) on port N
                        (802 by convention; 0 picks a free port, logged)
  --tls-listen ADDR     address of the TLS listener (default: --listen's)
  --tls-cert FILE       the daemon's certificate (PEM)
  --tls-key FILE        its private key (PEM)
  --tls-ca FILE         CA certificate(s) client certificates must chain to
  --tls-role NAME=read-only|read-write
                        what a client certificate of role NAME may do;
                        repeatable; other roles are refused
  --tls-allow-read [TABLE=]LIST, --tls-allow-write [TABLE=]LIST
                        address rules of the TLS listener, as --allow-read
                        (defaults: any, any)
  --audit-log FILE      record every write a client attempts (written,
                        failed or refused) in FILE, one line each,
                        appended; the log summarises repeated writes
  --max-clients N       clients served at once (default 64); when all are
                        connected, the one quiet the longest (1 s at least)
                        is closed to make room, else the new one is refused
  --idle-timeout N      close a client that sent no request for N seconds
                        (default 600; 0: never)
  --frame-timeout N     close a client that started a frame and did not end
                        it within N seconds (default 10; 0: never)
  --http-listen ADDR:PORT
                        serve /healthz and /metrics (Prometheus) over HTTP
                        there (off by default; 9502 by convention, 0 picks a
                        free port, logged); loopback addresses only unless
                        --http-allow-remote
  --http-allow-remote   let --http-listen take a non-loopback address
  --run-seconds N       stop by itself after N seconds (default: run until
                        SIGINT or SIGTERM)
  --verbose, -v         log pushes, writes, exceptions and scenario steps
  --describe[=FORMAT]   print the register-map description and exit;
                        FORMAT is markdown (default), csv or json
  --describe-at N       play the first N seconds of the scenario before
                        describing (default 0)
  --check               check the map and the scenario, list every error, exit
  --help, -h            this text

Signals: SIGINT and SIGTERM stop the daemon cleanly; SIGHUP reloads the
options and the map (a bad map is refused and the running one kept);
SIGUSR1 logs the register-map description.

Exit status: 0 after a clean stop, 1 on a run-time failure, 2 for a bad
command line, map or scenario.
)";
}

}  // namespace tarsel::daemon
