// The options of tarsel-modbusd: from the command line and, with --config,
// from a settings file (and the secrets file it names) under it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Describe.h"
#include "ModbusServer.h"
#include "TlsContext.h"

namespace tarsel::daemon {

/* How log lines are written: Plain for a terminal or a file, Journal for
 * journald (a <N> priority prefix), Auto: Journal when stderr is the
 * journal's stream. */
enum class LogFormat { Auto, Plain, Journal };

struct Options {
    std::string configFile;    // empty: no settings file
    std::string secretsFile;   // empty: no secrets file
    std::string mapFile;       // empty: the built-in UPS map
    std::string auditLog;      // empty: writes are only in the log
    std::string scenarioFile;  // empty: the built-in scenario; "none": an empty store
    std::string listen = "127.0.0.1";
    int port = 1502;
    int unitId = 1;
    ClientLimits limits;
    AccessRules access;
    // Modbus/TCP Security, off unless a port is given.
    std::optional<int> tlsPort;
    std::string tlsListen;  // empty: the address of --listen
    TlsConfig tls;
    AccessRules tlsAccess;    // writes from anywhere: the certificate's role decides
    double runSeconds = 0.0;  // 0: until SIGINT or SIGTERM
    bool verbose = false;
    LogFormat logFormat = LogFormat::Auto;
    bool help = false;
    bool version = false;  // --version: print the program's version and exit
    bool check = false;    // validate the map and the scenario, then exit
    std::optional<DescribeFormat> describe;
    double describeAt = 0.0;  // seconds of scenario played before describing
    // UPSes of Network UPS Tools to serve instead of a scenario, as
    // "ups[@host[:port]]"; the first is the UPS the map's device 2 stands for.
    std::vector<std::string> nutUpses;
    double nutInterval = 1.0;  // seconds between two polls of a UPS
    // The map of each UPS of nutUpses (--nut-map after its --nut); empty:
    // the shared map (--map), moved onto the UPS's device.
    std::vector<std::string> nutMaps;
    // Writes go back to upsd (SET VAR, INSTCMD) as the user of the
    // credentials file; off: every write is refused with 0x01.
    bool nutWrites = false;
    std::string nutCredentials;
    // The health and metrics endpoint, off unless an address is given.
    std::optional<std::string> httpAddress;
    int httpPort = 9502;
    bool httpAllowRemote = false;  // an address outside 127.0.0.0/8 is refused without it
};

/* What loadOptions() made of the command line and the files it names. */
struct LoadedOptions {
    Options options;
    std::vector<std::string> errors;  // one line each; empty: the options hold
};

/* The settings file of --config and the secrets file it (or --secrets) names,
 * then the command line over them, into Options. It reads those two files and
 * changes nothing; every error is listed, none thrown, so that it can be
 * called again to re-read the settings of a running daemon. */
LoadedOptions loadOptions(std::vector<std::string> const& args);

/* loadOptions() for callers that want an exception: std::invalid_argument
 * with every error, one a line. */
Options parseOptions(std::vector<std::string> const& args);

/* The --help text: every option of the table, signals, exit status. */
std::string usage();

/* The --version text: "tarsel-modbusd 1.0.0" and a line break. */
std::string versionText();

}  // namespace tarsel::daemon
