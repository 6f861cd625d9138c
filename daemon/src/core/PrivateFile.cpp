#include "PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Descriptor.h"

namespace tarsel::daemon {

namespace {

std::string octalMode(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned int>(mode & 07777));
    return text;
}

}  // namespace

std::string readPrivateFile(std::string const& path) {
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) {
        throw PrivateFileError("cannot read \"" + path + "\": " + std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        throw PrivateFileError("cannot read \"" + path + "\": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw PrivateFileError("\"" + path + "\" is not a regular file");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw PrivateFileError("\"" + path + "\" is open to its group or others (mode " +
                               octalMode(status.st_mode) +
                               "); it holds a secret: chmod 600 it and try again");
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        ssize_t const got = ::read(file.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw PrivateFileError("cannot read \"" + path + "\": " + std::strerror(errno));
        }
        if (got == 0) {
            return contents;
        }
        contents.append(buffer, static_cast<std::size_t>(got));
    }
}

}  // namespace tarsel::daemon
