// IPv4 networks in CIDR notation, for the access rules of listeners and map
// entries.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarsel::daemon {

/* An IPv4 network, "10.1.0.0/16"; a bare address is a /32. */
struct Cidr {
    std::uint32_t network = 0;  // host byte order, host bits cleared
    std::uint32_t mask = 0;

    bool contains(std::uint32_t address) const { return (address & mask) == network; }
    /* Nothing when the text is no IPv4 network or has host bits set. */
    static std::optional<Cidr> parse(std::string const& text);
};

using CidrList = std::vector<Cidr>;

bool listContains(CidrList const& list, std::uint32_t address);

/* "any" (0.0.0.0/0), "none" (empty) or networks separated by commas;
 * throws std::invalid_argument naming the bad part. */
CidrList parseCidrList(std::string const& text);

}  // namespace tarsel::daemon
