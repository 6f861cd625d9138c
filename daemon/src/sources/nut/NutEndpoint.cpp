#include "NutEndpoint.h"

#include <charconv>
#include <stdexcept>

namespace tarsel::daemon::nut {

std::string Endpoint::text() const {
    return ups + "@" + host + ":" + std::to_string(port);
}

Endpoint parseEndpoint(std::string const& text) {
    Endpoint endpoint;
    auto const at = text.find('@');
    endpoint.ups = text.substr(0, at);
    if (at != std::string::npos) {
        std::string const server = text.substr(at + 1);
        auto const colon = server.rfind(':');
        endpoint.host = server.substr(0, colon);
        if (colon != std::string::npos) {
            std::string const port = server.substr(colon + 1);
            unsigned int number = 0;
            auto const result = std::from_chars(port.data(), port.data() + port.size(), number);
            if (port.empty() || result.ec != std::errc() ||
                result.ptr != port.data() + port.size() || number == 0 || number > 65535) {
                throw std::invalid_argument(
                    "expects UPS[@HOST[:PORT]] with a port from 1 to 65535, got \"" + text + "\"");
            }
            endpoint.port = static_cast<std::uint16_t>(number);
        }
    }
    if (endpoint.ups.empty() || endpoint.host.empty()) {
        throw std::invalid_argument("expects UPS[@HOST[:PORT]], got \"" + text + "\"");
    }
    return endpoint;
}

}  // namespace tarsel::daemon::nut
