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

/* The length of the well-formed UTF-8 sequence that starts at text[at]
 * (a byte from 0x80 up), or 0 when there is none: a stray continuation
 * byte, an overlong form, a surrogate, beyond U+10FFFF or cut short. */
std::size_t utf8Length(std::string_view text, std::size_t at) {
    auto const byteAt = [&](std::size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
    };
    unsigned char const lead = byteAt(0);
    std::size_t const length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    // The second byte's range, narrower after E0, ED, F0 and F4.
    unsigned char const low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    unsigned char const high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (length == 0 || lead > 0xF4 || byteAt(1) < low || byteAt(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (byteAt(i) < 0x80 || byteAt(i) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string escapeControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto const byte = static_cast<unsigned char>(text[i]);
        std::size_t const sequence = byte >= 0x80 ? utf8Length(text, i) : 1;
        if (isControl(byte) || sequence == 0) {
            // A byte that is not UTF-8 (a Latin-1 file's, quoted in a parse
            // error) would make the journal keep the whole line as binary
            // data, which journalctl shows as "[blob data]".
            appendEscaped(out, byte);
        } else {
            out.append(text.substr(i, sequence));
            i += sequence - 1;
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
