#include "WakePipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tarsel::daemon::nut {

WakePipe::WakePipe() {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot create a wake-up pipe: ") +
                                 std::strerror(errno));
    }
    m_read = fds[0];
    m_write = fds[1];
}

WakePipe::~WakePipe() {
    ::close(m_read);
    ::close(m_write);
}

void WakePipe::wake() {
    char const byte = 1;
    // A full pipe already wakes the loop: EAGAIN loses nothing.
    [[maybe_unused]] ssize_t const written = ::write(m_write, &byte, 1);
}

void WakePipe::drain() {
    char bytes[64];
    while (::read(m_read, bytes, sizeof bytes) > 0) {
    }
}

}  // namespace tarsel::daemon::nut
