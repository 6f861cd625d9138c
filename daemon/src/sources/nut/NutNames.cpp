#include "NutNames.h"

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <limits>

namespace tarsel::daemon::nut {

namespace {

struct Identity {
    char const* variable;
    cdsapi::DeviceAttribute attribute;
    bool text;  // false: a rating, a number in its channel
};

// device.* are NUT's names for what the UPS is; the ratings are what its
// nameplate says. Each attribute is fed by one variable only, so two
// variables never fight over it.
constexpr Identity kIdentities[] = {
    {"device.mfr", cdsapi::AttributeManufacturer, true},
    {"device.model", cdsapi::AttributeModel, true},
    {"device.serial", cdsapi::AttributeSerialNumber, true},
    {"device.part", cdsapi::AttributePartNumber, true},
    {"device.type", cdsapi::AttributeType, true},
    {"device.location", cdsapi::AttributeLocation, true},
    {"device.contact", cdsapi::AttributeContact, true},
    {"device.description", cdsapi::AttributeDescription, true},
    {"ups.firmware", cdsapi::AttributeFirmwareVersion, true},
    {"ups.firmware.aux", cdsapi::AttributeHardwareVersion, true},
    {"battery.date", cdsapi::AttributeBatteryInstallDate, true},
    {"ups.power.nominal", cdsapi::AttributeNominalPower, false},
    {"input.voltage.nominal", cdsapi::AttributeNominalVoltage, false},
    {"input.frequency.nominal", cdsapi::AttributeNominalFrequency, false},
    {"outlet.count", cdsapi::AttributeOutletCount, false},
};

// Texts that are identity without an attribute of their own: they too stay
// text rather than turning into numbers.
bool isIdentityText(std::string const& variable) {
    static char const* const kTexts[] = {"ups.mfr",       "ups.model",    "ups.serial",    "ups.id",
                                         "ups.productid", "ups.vendorid", "driver.version"};
    for (char const* text : kTexts) {
        if (variable == text) {
            return true;
        }
    }
    for (auto const& identity : kIdentities) {
        if (identity.text && variable == identity.variable) {
            return true;
        }
    }
    return false;
}

bool isDigit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

std::optional<long long> asInteger(std::string const& text) {
    char const* first = text.data();
    char const* const last = text.data() + text.size();
    if (first != last && *first == '+') {
        ++first;
    }
    long long value = 0;
    auto const result = std::from_chars(first, last, value);
    if (first == last || result.ec != std::errc() || result.ptr != last) {
        return std::nullopt;
    }
    return value;
}

/* A plain decimal number ("12.5", "-0.3", "1e3"): digits, at most one point,
 * an exponent; no "inf", "nan" or hexadecimal, which NUT never means. */
std::optional<double> asDecimal(std::string const& text) {
    bool digits = false;
    for (char const c : text) {
        if (isDigit(c)) {
            digits = true;
        } else if (c != '.' && c != '-' && c != '+' && c != 'e' && c != 'E') {
            return std::nullopt;
        }
    }
    if (!digits) {
        return std::nullopt;
    }
    char* end = nullptr;
    double const value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::vector<std::string> const& statusTokens() {
    static std::vector<std::string> const kTokens = {"OL",   "OB",      "LB",     "HB",  "RB",
                                                     "CHRG", "DISCHRG", "BYPASS", "CAL", "OFF",
                                                     "OVER", "TRIM",    "BOOST",  "FSD"};
    return kTokens;
}

std::string statusChannelName(std::string const& token) {
    return std::string(kStatusVariable) + "." + token;
}

bool isDerivedName(std::string const& name) {
    if (name == kOperatingStatusChannel) {
        return true;
    }
    for (auto const& token : statusTokens()) {
        if (name == statusChannelName(token)) {
            return true;
        }
    }
    return false;
}

std::optional<cdsapi::DeviceAttribute> identityAttribute(std::string const& variable) {
    for (auto const& identity : kIdentities) {
        if (variable == identity.variable) {
            return identity.attribute;
        }
    }
    return std::nullopt;
}

std::optional<std::string> identityVariable(cdsapi::DeviceAttribute attribute) {
    for (auto const& identity : kIdentities) {
        if (attribute == identity.attribute) {
            return std::string(identity.variable);
        }
    }
    return std::nullopt;
}

bool isNutName(std::string const& name) {
    if (name.empty()) {
        return false;
    }
    for (char const c : name) {
        bool const allowed =
            std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
        if (!allowed) {
            return false;
        }
    }
    return true;
}

kq::CValue storeValue(std::string const& variable, std::string const& text) {
    if (isIdentityText(variable)) {
        return kq::CValue(text);
    }
    if (auto const integer = asInteger(text)) {
        bool const fits = *integer >= std::numeric_limits<int>::min() &&
                          *integer <= std::numeric_limits<int>::max();
        return fits ? kq::CValue(static_cast<int>(*integer)) : kq::CValue(*integer);
    }
    if (auto const decimal = asDecimal(text)) {
        return kq::CValue(*decimal);
    }
    return kq::CValue(text);
}

std::optional<unsigned int> outletNumber(std::string const& variable) {
    static std::string const kPrefix = "outlet.";
    if (variable.compare(0, kPrefix.size(), kPrefix) != 0) {
        return std::nullopt;
    }
    std::size_t const start = kPrefix.size();
    std::size_t const dot = variable.find('.', start);
    if (dot == std::string::npos || dot == start || dot + 1 == variable.size()) {
        return std::nullopt;
    }
    unsigned int number = 0;
    auto const result = std::from_chars(variable.data() + start, variable.data() + dot, number);
    if (result.ec != std::errc() || result.ptr != variable.data() + dot || number == 0) {
        return std::nullopt;
    }
    return number;
}

std::string outletDeviceName(unsigned int outlet) {
    return "outlet." + std::to_string(outlet);
}

}  // namespace tarsel::daemon::nut
