// The command line of tarsel-modbusd.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Describe.h"
#include "ModbusServer.h"
#include "TlsContext.h"

namespace tarsel::daemon {

struct Options {
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
    bool help = false;
    bool check = false;  // validate the map and the scenario, then exit
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

/* Parses argv; throws std::invalid_argument with a message for the user. */
Options parseOptions(std::vector<std::string> const& args);

std::string usage();

}  // namespace tarsel::daemon
