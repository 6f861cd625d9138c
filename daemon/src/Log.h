// The daemon's log: one line per event on a stream (stderr in the program).
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tarsel::daemon {

class Log {
  public:
    explicit Log(std::ostream& out, bool verbose = false) : m_out(out), m_verbose(verbose) {}

    void info(std::string const& text) { write("", text); }
    void warning(std::string const& text) { write("warning: ", text); }
    void error(std::string const& text) { write("error: ", text); }
    /* Written only in verbose mode. */
    void debug(std::string const& text);

    bool verbose() const { return m_verbose; }

  private:
    void write(char const* level, std::string const& text);

    std::ostream& m_out;
    bool m_verbose;
};

/* "[0x4148 0x0000]", for logs and the description. */
std::string hexWords(std::vector<unsigned short> const& words);

}  // namespace tarsel::daemon
