#include "Cidr.h"

#include <arpa/inet.h>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

std::vector<std::string> splitCommas(std::string const& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t const comma = text.find(',', start);
        parts.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) {
            return parts;
        }
        start = comma + 1;
    }
}

}  // namespace

std::optional<Cidr> Cidr::parse(std::string const& text) {
    std::size_t const slash = text.find('/');
    std::string const address = text.substr(0, slash);
    int bits = 32;
    if (slash != std::string::npos) {
        std::string const length = text.substr(slash + 1);
        if (length.empty() || length.size() > 2 ||
            length.find_first_not_of("0123456789") != std::string::npos) {
            return std::nullopt;
        }
        bits = std::stoi(length);
        if (bits > 32) {
            return std::nullopt;
        }
    }
    in_addr parsed{};
    if (::inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        return std::nullopt;
    }
    Cidr cidr;
    cidr.mask = bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
    cidr.network = ntohl(parsed.s_addr);
    if ((cidr.network & ~cidr.mask) != 0) {
        return std::nullopt;  // 10.1.2.3/8 is a typing error more often than not
    }
    return cidr;
}

bool listContains(CidrList const& list, std::uint32_t address) {
    for (Cidr const& cidr : list) {
        if (cidr.contains(address)) {
            return true;
        }
    }
    return false;
}

CidrList parseCidrList(std::string const& text) {
    if (text == "none") {
        return {};
    }
    if (text == "any") {
        return {Cidr{0, 0}};
    }
    CidrList list;
    for (std::string const& part : splitCommas(text)) {
        auto const cidr = Cidr::parse(part);
        if (!cidr) {
            throw std::invalid_argument("\"" + part +
                                        "\" is no IPv4 address or network (such as 10.1.0.0/16)");
        }
        list.push_back(*cidr);
    }
    return list;
}

}  // namespace tarsel::daemon
