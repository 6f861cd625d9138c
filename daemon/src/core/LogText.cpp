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

/* How many bytes the well-formed UTF-8 sequence at `at` takes (2 to 4); 0
 * when the bytes there are none (a stray continuation byte, a sequence cut
 * short, an overlong form, a surrogate, beyond U+10FFFF). */
std::size_t utf8Length(std::string_view text, std::size_t at) {
    auto const byte = [&text, at](std::size_t i) {
        return static_cast<unsigned char>(text[at + i]);
    };
    unsigned char const lead = byte(0);
    std::size_t const length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0 || text.size() - at < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    unsigned char const second = byte(1);
    bool const malformed = (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
                           (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F);
    return malformed ? 0 : length;
}

/* U+0080 to U+009F, the C1 controls (a terminal takes U+009B for the start
 * of an escape sequence), and U+2028 and U+2029, which readers that know
 * Unicode take for line breaks. */
bool breaksOrControls(std::string_view sequence) {
    auto const byte = [&sequence](std::size_t i) {
        return static_cast<unsigned char>(sequence[i]);
    };
    return (sequence.size() == 2 && byte(0) == 0xC2 && byte(1) <= 0x9F) ||
           (sequence.size() == 3 && byte(0) == 0xE2 && byte(1) == 0x80 &&
            (byte(2) == 0xA8 || byte(2) == 0xA9));
}

}  // namespace

std::string escapeControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        auto const byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            if (isControl(byte)) {
                appendEscaped(out, byte);
            } else {
                out += text[at];
            }
            ++at;
            continue;
        }
        std::size_t const length = utf8Length(text, at);
        std::string_view const sequence = text.substr(at, length == 0 ? 1 : length);
        if (length == 0 || breaksOrControls(sequence)) {
            for (char const c : sequence) {
                appendEscaped(out, static_cast<unsigned char>(c));
            }
        } else {
            out += sequence;
        }
        at += sequence.size();
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
