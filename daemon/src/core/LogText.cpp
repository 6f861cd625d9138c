#include "LogText.h"

#include <cstdio>

namespace tarsel::daemon {

namespace {

bool isControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

void appendEscaped(std::string& out, unsigned char byte) {
    switch (byte) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default: {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", byte);
            out += hex;
        }
    }
}

}  // namespace

std::string escapeControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (isControl(byte)) {
            appendEscaped(out, byte);
        } else {
            out += c;
        }
    }
    return out;
}

std::string quotedValue(std::string_view text) {
    std::string out = "\"";
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (isControl(byte) || byte >= 0x80) {
            appendEscaped(out, byte);
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string groupedThousands(unsigned long long value) {
    std::string digits = std::to_string(value);
    for (auto at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, ",");
    }
    return digits;
}

std::string secondsText(std::chrono::milliseconds duration) {
    std::string text = std::to_string(duration.count() / 1000);
    if (long long const millis = duration.count() % 1000) {
        std::string fraction = std::to_string(1000 + millis).substr(1);
        fraction.erase(fraction.find_last_not_of('0') + 1);
        text += "." + fraction;
    }
    return text;
}

}  // namespace tarsel::daemon
