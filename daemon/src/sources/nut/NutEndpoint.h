// Which UPS of which upsd to serve, as the command line names it.
#pragma once

#include <cstdint>
#include <string>

namespace tarsel::daemon::nut {

struct Endpoint {
    std::string ups;
    std::string host = "localhost";
    std::uint16_t port = 3493;

    /* "ups@host:port", as NUT's own tools name a UPS. */
    std::string text() const;
};

/* Parses "ups", "ups@host" or "ups@host:port" (upsc's way of naming a UPS);
 * throws std::invalid_argument with a message that reads after "--nut ". */
Endpoint parseEndpoint(std::string const& text);

}  // namespace tarsel::daemon::nut
