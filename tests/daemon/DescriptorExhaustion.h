// Running a server while the process is out of file descriptors: the soft
// limit is lowered and every descriptor under it taken, for the scope of one
// test (each test runs in its own process).
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <vector>

namespace tarsel::daemon::testing {

class OutOfDescriptors {
  public:
    OutOfDescriptors() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_saved), 0);
        rlimit lowered = m_saved;
        lowered.rlim_cur = std::min<rlim_t>(m_saved.rlim_cur, 256);
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
        for (;;) {
            int const fd = ::dup(STDERR_FILENO);
            if (fd < 0) {
                EXPECT_EQ(errno, EMFILE);
                break;
            }
            m_taken.push_back(fd);
        }
    }
    ~OutOfDescriptors() { release(); }

    OutOfDescriptors(OutOfDescriptors const&) = delete;
    OutOfDescriptors& operator=(OutOfDescriptors const&) = delete;

    /* Frees every descriptor taken and restores the limit. */
    void release() {
        for (int const fd : m_taken) {
            ::close(fd);
        }
        m_taken.clear();
        ::setrlimit(RLIMIT_NOFILE, &m_saved);
    }

  private:
    rlimit m_saved{};
    std::vector<int> m_taken;
};

/* Connects the socket to the port on 127.0.0.1 without a new descriptor, so
 * it works while the process has none left; true when connected. */
inline bool connectToLoopback(int fd, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

/* Runs the server's side of the event loop for `length` as the loop does
 * (poll until the server's next due time, serve, expire); returns how often
 * poll() woke up for a ready descriptor. */
template <typename Server>
int wakeUpsWithin(Server& server, std::chrono::milliseconds length) {
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + length;
    int wakeUps = 0;
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        auto const until = std::min(end, server.listenDue().value_or(end));
        auto const wait = std::chrono::ceil<std::chrono::milliseconds>(until - now);
        auto fds = server.pollSet();
        if (::poll(fds.data(), fds.size(), static_cast<int>(std::max<long>(0, wait.count()))) > 0) {
            ++wakeUps;
        }
        server.serve(fds.data(), fds.size(), Clock::now());
        server.expire(Clock::now());
    }
    return wakeUps;
}

}  // namespace tarsel::daemon::testing
