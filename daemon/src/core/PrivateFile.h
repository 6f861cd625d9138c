// Files that hold secrets (the daemon's secrets file, credentials): read only
// when no one but their owner can read or change them, so that a secret left
// readable by others is noticed at start instead of leaked quietly.
#pragma once

#include <stdexcept>
#include <string>

namespace tarsel::daemon {

/* Why a private file was not read; the text names the file and what to do. */
class PrivateFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* The contents of the regular file at path, which must not be readable,
 * writable or executable by its group or by others (mode 0600 or 0400).
 * Throws PrivateFileError otherwise, or when the file cannot be read. The
 * mode is checked on the file opened, not on the name, so that a file
 * replaced in between is not read unchecked. */
std::string readPrivateFile(std::string const& path);

}  // namespace tarsel::daemon
