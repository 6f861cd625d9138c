// The user upsd knows the daemon by, for SET VAR and INSTCMD: read from a
// file only its owner can read, never from the command line, never logged.
//
// The file, one setting a line ('#' starts a comment, blank lines are
// ignored, spaces around '=' and the value are trimmed):
//     username = modbus-gateway
//     password = a long secret
#pragma once

#include <string>

namespace tarsel::daemon::nut {

struct Credentials {
    std::string username;
    std::string password;
};

/* Parses the file's text; throws std::invalid_argument naming the line
 * (never its value) for anything else than the two settings, each once. */
Credentials parseCredentials(std::string const& text);

/* Reads and parses the file, refusing one that its group or others may
 * read (see readPrivateFile); throws std::runtime_error with the file's
 * name and what is wrong. */
Credentials readCredentials(std::string const& path);

}  // namespace tarsel::daemon::nut
