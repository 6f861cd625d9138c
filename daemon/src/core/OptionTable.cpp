#include "OptionTable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "HttpServer.h"
#include "sources/nut/NutEndpoint.h"

namespace tarsel::daemon {

namespace {

long long integerValue(std::string const& text, long long min, long long max) {
    std::size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used);
    } catch (std::exception const&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < min || value > max) {
        throw std::invalid_argument("expects an integer from " + std::to_string(min) + " to " +
                                    std::to_string(max) + ", got \"" + text + "\"");
    }
    return value;
}

double secondsValue(std::string const& text) {
    std::size_t used = 0;
    double value = -1;
    try {
        value = std::stod(text, &used);
    } catch (std::exception const&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || !std::isfinite(value) || value < 0) {
        throw std::invalid_argument("expects a number of seconds, got \"" + text + "\"");
    }
    return value;
}

std::chrono::milliseconds millisecondsValue(std::string const& text) {
    double const seconds = secondsValue(text);
    if (seconds > 1e9) {
        throw std::invalid_argument("expects at most 1e9 seconds, got \"" + text + "\"");
    }
    return std::chrono::milliseconds(static_cast<long long>(std::llround(seconds * 1000)));
}

bool flagValue(std::string const& text) {
    if (text == "true") {
        return true;
    }
    if (text == "false") {
        return false;
    }
    throw std::invalid_argument("expects true or false, got \"" + text + "\"");
}

/* An address the listeners can bind: they are IPv4 sockets, so a host name
 * or an IPv6 address is refused here, where --check sees it and the exit
 * status says "bad configuration", not once the map is built. */
std::string ipv4Address(std::string const& text) {
    in_addr parsed{};
    if (::inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
        throw std::invalid_argument(
            "expects an IPv4 address (such as 0.0.0.0 or 127.0.0.1), got \"" + text + "\"");
    }
    return text;
}

/* "NAME=read-only" or "NAME=read-write". */
void addRole(TlsConfig& tls, std::string const& text) {
    std::size_t const equals = text.rfind('=');
    std::string const access = equals == std::string::npos ? "" : text.substr(equals + 1);
    if (equals == 0 || (access != "read-only" && access != "read-write")) {
        throw std::invalid_argument("expects NAME=read-only or NAME=read-write, got \"" + text +
                                    "\"");
    }
    tls.roles[text.substr(0, equals)] =
        access == "read-write" ? RoleAccess::ReadWrite : RoleAccess::ReadOnly;
}

/* "ADDR:PORT" of --http-listen. */
void setHttpListen(Options& options, std::string const& text) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        throw std::invalid_argument("expects ADDR:PORT, got \"" + text + "\"");
    }
    options.httpAddress = ipv4Address(text.substr(0, colon));
    options.httpPort = static_cast<int>(integerValue(text.substr(colon + 1), 0, 65535));
}

/* An --allow-* rule; the message names the rule it refuses. */
void addRule(AccessRules& rules, bool write, std::string const& rule) {
    try {
        applyAllowOption(rules, write, rule);
    } catch (std::invalid_argument const& error) {
        throw std::invalid_argument(rule + ": " + error.what());
    }
}

// Makers of the table's rows, one per kind of value.

OptionRow text(std::string name, std::string valueName, std::string help,
               std::function<void(Options&, std::string const&)> set) {
    OptionRow row;
    row.name = std::move(name);
    row.valueName = std::move(valueName);
    row.help = std::move(help);
    row.kind = OptionKind::Text;
    row.apply = std::move(set);
    return row;
}

OptionRow text(std::string name, std::string valueName, std::string help,
               std::string Options::*member) {
    return text(std::move(name), std::move(valueName), std::move(help),
                [member](Options& options, std::string const& value) { options.*member = value; });
}

OptionRow list(std::string name, std::string valueName, std::string help,
               std::function<void(Options&, std::string const&)> add) {
    OptionRow row = text(std::move(name), std::move(valueName), std::move(help), std::move(add));
    row.kind = OptionKind::List;
    return row;
}

OptionRow integer(std::string name, std::string help, long long min, long long max,
                  std::function<void(Options&, long long)> set) {
    OptionRow row = text(std::move(name), "N", std::move(help),
                         [min, max, set](Options& options, std::string const& value) {
                             set(options, integerValue(value, min, max));
                         });
    row.kind = OptionKind::Integer;
    row.min = min;
    row.max = max;
    return row;
}

OptionRow seconds(std::string name, std::string help, std::function<void(Options&, double)> set) {
    OptionRow row = text(
        std::move(name), "N", std::move(help),
        [set](Options& options, std::string const& value) { set(options, secondsValue(value)); });
    row.kind = OptionKind::Seconds;
    return row;
}

OptionRow timeout(std::string name, std::string help,
                  std::chrono::milliseconds ClientLimits::*member) {
    OptionRow row = text(std::move(name), "N", std::move(help),
                         [member](Options& options, std::string const& value) {
                             options.limits.*member = millisecondsValue(value);
                         });
    row.kind = OptionKind::Seconds;
    return row;
}

OptionRow flag(std::string name, std::string shortName, std::string help, bool Options::*member) {
    OptionRow row = text(std::move(name), "", std::move(help),
                         [member](Options& options, std::string const& value) {
                             options.*member = flagValue(value);
                         });
    row.shortName = std::move(shortName);
    row.kind = OptionKind::Flag;
    return row;
}

/* "--name" alone or "--name=VALUE"; alone, the value reads "true". */
OptionRow optionalValue(std::string name, std::string valueName, std::string help,
                        std::function<void(Options&, std::string const&)> set) {
    OptionRow row = text(std::move(name), std::move(valueName), std::move(help), std::move(set));
    row.kind = OptionKind::Optional;
    row.inSettingsFile = false;
    return row;
}

OptionRow commandLineOnly(OptionRow row) {
    row.inSettingsFile = false;
    return row;
}

std::vector<OptionRow> makeTable() {
    return {
        commandLineOnly(text("config", "FILE",
                             "settings file (JSON): keys are these options' long names;\n"
                             "the command line overrides it (default: none)",
                             &Options::configFile)),
        text("secrets", "FILE",
             "secrets file (JSON, as the settings file) that only its owner\n"
             "may read (mode 0600 or 0400); it overrides the settings file",
             &Options::secretsFile),
        text("map", "FILE",
             "register map (JSON); default: the built-in UPS map\n"
             "(with --nut, the built-in NUT map)",
             &Options::mapFile),
        text("scenario", "FILE",
             "scenario for the simulated data store (JSON);\n"
             "\"none\" starts from an empty store; default: built-in",
             &Options::scenarioFile),
        text("listen", "ADDR", "IPv4 address to listen on (default 127.0.0.1)",
             [](Options& options, std::string const& value) {
                 options.listen = ipv4Address(value);
             }),
        integer("port", "TCP port (default 1502; 0 picks a free port, logged)", 0, 65535,
                [](Options& options, long long value) { options.port = static_cast<int>(value); }),
        integer(
            "unit-id",
            "Modbus unit id served, 1..247 (default 1); requests\n"
            "to unit 0 and 255 are served too",
            1, 247,
            [](Options& options, long long value) { options.unitId = static_cast<int>(value); }),
        list("nut", "UPS[@HOST[:PORT]]",
             "serve a UPS of Network UPS Tools (upsd, port 3493\n"
             "by default) instead of a scenario; repeatable",
             [](Options& options, std::string const& value) {
                 nut::parseEndpoint(value);  // throws for a bad one
                 options.nutUpses.push_back(value);
             }),
        // On the command line each --nut-map belongs to the --nut before it
        // (readCommandLine() lines them up, "" for a UPS without one); in a
        // settings file it is an array beside "nut".
        list("nut-map", "FILE",
             "the register map of the UPS of the --nut before it\n"
             "(default: --map's, moved onto that UPS's device)",
             [](Options& options, std::string const& value) { options.nutMaps.push_back(value); }),
        flag("nut-writes", "",
             "write back to upsd: SET VAR for entries over a NUT\n"
             "variable, INSTCMD for coils over \"instcmd.<command>\"\n"
             "(default: every write refused with exception 0x01)",
             &Options::nutWrites),
        text("nut-credentials", "FILE",
             "upsd user for --nut-writes: \"username = NAME\" and\n"
             "\"password = SECRET\" lines; the file must not be\n"
             "readable by group or others",
             &Options::nutCredentials),
        seconds("nut-interval", "seconds between two polls of upsd (default 1)",
                [](Options& options, double value) {
                    if (value < 0.05) {
                        throw std::invalid_argument("expects at least 0.05 seconds");
                    }
                    options.nutInterval = value;
                }),
        list("allow-read", "[TABLE=]LIST",
             "who may read (TABLE: that table only); LIST is\n"
             "\"any\", \"none\" or networks such as 10.0.0.0/8,\n"
             "192.168.1.7 (default: any); repeatable",
             [](Options& options, std::string const& value) {
                 addRule(options.access, false, value);
             }),
        list("allow-write", "[TABLE=]LIST",
             "who may write, as --allow-read (default:\n"
             "127.0.0.0/8, this host only)",
             [](Options& options, std::string const& value) {
                 addRule(options.access, true, value);
             }),
        integer(
            "tls-port",
            "also serve Modbus/TCP Security (TLS) on port N\n"
            "(802 by convention; 0 picks a free port, logged)",
            0, 65535,
            [](Options& options, long long value) { options.tlsPort = static_cast<int>(value); }),
        text("tls-listen", "ADDR", "IPv4 address of the TLS listener (default: --listen's)",
             [](Options& options, std::string const& value) {
                 options.tlsListen = ipv4Address(value);
             }),
        text("tls-cert", "FILE", "the daemon's certificate (PEM)",
             [](Options& options, std::string const& value) {
                 options.tls.certificateFile = value;
             }),
        text("tls-key", "FILE", "its private key (PEM)",
             [](Options& options, std::string const& value) { options.tls.keyFile = value; }),
        text("tls-ca", "FILE", "CA certificate(s) client certificates must chain to",
             [](Options& options, std::string const& value) { options.tls.caFile = value; }),
        list("tls-role", "NAME=read-only|read-write",
             "what a client certificate of role NAME may do;\n"
             "repeatable; other roles are refused",
             [](Options& options, std::string const& value) { addRole(options.tls, value); }),
        list("tls-allow-read", "[TABLE=]LIST",
             "who may read over TLS, as --allow-read (default: any)",
             [](Options& options, std::string const& value) {
                 addRule(options.tlsAccess, false, value);
             }),
        list("tls-allow-write", "[TABLE=]LIST",
             "who may write over TLS, as --allow-read (default: any;\n"
             "the certificate's role decides)",
             [](Options& options, std::string const& value) {
                 addRule(options.tlsAccess, true, value);
             }),
        text("audit-log", "FILE",
             "record every write a client attempts (written,\n"
             "failed or refused) in FILE, one line each,\n"
             "appended; the log summarises repeated writes",
             &Options::auditLog),
        integer("max-clients",
                "clients served at once (default 64); when all are\n"
                "connected, the one quiet the longest (1 s at least)\n"
                "is closed to make room, else the new one is refused",
                1, 10000,
                [](Options& options, long long value) {
                    options.limits.maxClients = static_cast<std::size_t>(value);
                }),
        timeout("idle-timeout",
                "close a client that sent no request for N seconds\n"
                "(default 600; 0: never)",
                &ClientLimits::idleTimeout),
        timeout("frame-timeout",
                "close a client that started a frame and did not end\n"
                "it within N seconds (default 10; 0: never)",
                &ClientLimits::partialFrameTimeout),
        text("http-listen", "ADDR:PORT",
             "serve /healthz and /metrics (Prometheus) over HTTP\n"
             "there (off by default; 9502 by convention, 0 picks a\n"
             "free port, logged); loopback addresses only unless\n"
             "--http-allow-remote",
             setHttpListen),
        flag("http-allow-remote", "", "let --http-listen take a non-loopback address",
             &Options::httpAllowRemote),
        seconds("run-seconds",
                "stop by itself after N seconds (default: run until\n"
                "SIGINT or SIGTERM)",
                [](Options& options, double value) { options.runSeconds = value; }),
        flag("verbose", "v", "log pushes, writes, exceptions and scenario steps",
             &Options::verbose),
        text("log-format", "auto|plain|journal",
             "plain: \"tarsel-modbusd: \" lines; journal: a <N> priority\n"
             "prefix for journald; auto (default): journal when\n"
             "stderr is the journal's stream ($JOURNAL_STREAM)",
             [](Options& options, std::string const& value) {
                 if (value == "auto") {
                     options.logFormat = LogFormat::Auto;
                 } else if (value == "plain") {
                     options.logFormat = LogFormat::Plain;
                 } else if (value == "journal") {
                     options.logFormat = LogFormat::Journal;
                 } else {
                     throw std::invalid_argument("expects auto, plain or journal, got \"" + value +
                                                 "\"");
                 }
             }),
        optionalValue("describe", "[=FORMAT]",
                      "print the register-map description and exit;\n"
                      "FORMAT is markdown (default), csv or json",
                      [](Options& options, std::string const& value) {
                          std::string const format = value == "true" ? "markdown" : value;
                          options.describe = describeFormatFromName(format);
                          if (!options.describe) {
                              throw std::invalid_argument("expects markdown, csv or json, got \"" +
                                                          format + "\"");
                          }
                      }),
        commandLineOnly(
            seconds("describe-at",
                    "play the first N seconds of the scenario before\n"
                    "describing (default 0)",
                    [](Options& options, double value) { options.describeAt = value; })),
        commandLineOnly(flag("check", "",
                             "check the settings, the map and the scenario,\n"
                             "list every error, exit",
                             &Options::check)),
    };
}

}  // namespace

std::vector<OptionRow> const& optionTable() {
    static std::vector<OptionRow> const table = makeTable();
    return table;
}

namespace {

/* Edits from a to b, a swap of two neighbours counting as one. */
std::size_t editDistance(std::string const& a, std::string const& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        d[i][0] = i;
    }
    for (std::size_t j = 0; j <= b.size(); ++j) {
        d[0][j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t const change = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

}  // namespace

std::optional<std::string> closestOptionName(std::string const& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    // Two edits at most, and fewer than half the name: "ab" is no "tls-ca".
    std::size_t const limit = std::min<std::size_t>(2, (name.size() - 1) / 2);
    std::optional<std::string> closest;
    std::size_t best = limit + 1;
    for (OptionRow const& row : optionTable()) {
        std::size_t const distance = editDistance(name, row.name);
        if (distance < best) {
            best = distance;
            closest = row.name;
        }
    }
    return closest;
}

OptionRow const* findOption(std::string const& name) {
    for (OptionRow const& row : optionTable()) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace tarsel::daemon
