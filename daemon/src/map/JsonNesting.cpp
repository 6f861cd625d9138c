#include "JsonNesting.h"

namespace tarsel::daemon {

bool nestsDeeperThan(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char const c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > limit) {
                    return true;
                }
                break;
            case ']':
            case '}':
                // A closing bracket too many is the reader's to report.
                depth -= depth > 0 ? 1 : 0;
                break;
            default:
                break;
        }
    }
    return false;
}

std::string tooDeeplyNested() {
    return "arrays and objects nested more than " + std::to_string(kMaxJsonNesting) +
           " levels deep";
}

}  // namespace tarsel::daemon
