#include "PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tarsel::daemon {

namespace {

/* Closes the descriptor on every path out. */
class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int get() const { return m_fd; }

  private:
    int m_fd;
};

std::string octalMode(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

}  // namespace

std::string readPrivateFile(std::string const& path) {
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) {
        throw PrivateFileError("cannot read " + path + ": " + std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        throw PrivateFileError("cannot read " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw PrivateFileError(path + " is not a regular file");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw PrivateFileError(path + " has mode " + octalMode(status.st_mode) +
                               ": it holds secrets, so its group and others must have no access "
                               "(chmod 600 " +
                               path + ")");
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        ssize_t const count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw PrivateFileError("cannot read " + path + ": " + std::strerror(errno));
        }
        if (count == 0) {
            return contents;
        }
        contents.append(buffer, static_cast<std::size_t>(count));
    }
}

}  // namespace tarsel::daemon
