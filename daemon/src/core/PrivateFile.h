// Reads a file that holds a secret (a password, a key): only a file that
// no one but its owner can read is accepted, so a secret never sits where
// another account could read it.
#pragma once

#include <stdexcept>
#include <string>

namespace tarsel::daemon {

/* Why a secret file was not read; the text names the file and what to do,
 * never its contents. */
class PrivateFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* The whole contents of `path`, which must be a regular file that neither
 * its group nor others may read, write or execute (mode 0600 or 0400);
 * throws PrivateFileError otherwise. The mode is checked on the descriptor
 * that is read, so a file swapped in between cannot slip through. */
std::string readPrivateFile(std::string const& path);

}  // namespace tarsel::daemon
