// A file or socket descriptor closed on every way out of its scope.
#pragma once

#include <unistd.h>

namespace tarsel::daemon {

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

}  // namespace tarsel::daemon
