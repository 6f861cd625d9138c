#include "SignalPipe.h"

#include <fcntl.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace tarsel::daemon {

namespace {

// The only state a signal handler may touch. Atomic, because the kernel runs
// the handler on any thread of the process that does not block the signal,
// not only on the one that sets this (the NUT pollers block them; a thread a
// library starts might not). Lock-free, as a handler may use nothing else.
std::atomic<int> g_writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);
int const kSignals[] = {SIGINT, SIGTERM, SIGUSR1, SIGHUP};

extern "C" void onSignal(int signal) {
    int const saved = errno;
    unsigned char const byte = static_cast<unsigned char>(signal);
    // A full pipe already holds a wake-up; losing this byte is harmless.
    [[maybe_unused]] ssize_t const written = ::write(g_writeEnd.load(), &byte, 1);
    errno = saved;
}

void install(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

SignalPipe::SignalPipe() {
    int fds[2];
    if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    m_read = fds[0];
    m_write = fds[1];
    g_writeEnd = m_write;
    for (int const signal : kSignals) {
        install(signal, onSignal);
    }
    install(SIGPIPE, SIG_IGN);
}

SignalPipe::~SignalPipe() {
    for (int const signal : kSignals) {
        install(signal, SIG_DFL);
    }
    g_writeEnd = -1;
    ::close(m_read);
    ::close(m_write);
}

std::optional<int> SignalPipe::take() {
    unsigned char byte = 0;
    if (::read(m_read, &byte, 1) == 1) {
        return static_cast<int>(byte);
    }
    return std::nullopt;
}

}  // namespace tarsel::daemon
