#include "Log.h"

#include <cstdio>
#include <ostream>

namespace tarsel::daemon {

void Log::debug(std::string const& text) {
    if (m_verbose) {
        write("debug: ", text);
    }
}

void Log::write(char const* level, std::string const& text) {
    // Flushed line by line: scripts and tests follow the log through a pipe.
    m_out << "tarsel-modbusd: " << level << text << std::endl;
}

std::string hexWords(std::vector<unsigned short> const& words) {
    std::string text = "[";
    char word[8];
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::snprintf(word, sizeof word, "%s0x%04X", i ? " " : "", words[i]);
        text += word;
    }
    return text + "]";
}

}  // namespace tarsel::daemon
