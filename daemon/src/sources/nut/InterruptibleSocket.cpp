#include "InterruptibleSocket.h"

#include <sys/socket.h>

#include <utility>

namespace tarsel::daemon::nut {

void InterruptibleSocket::interrupt() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = true;
    if (m_socket >= 0) {
        ::shutdown(m_socket, SHUT_RDWR);
    }
}

bool InterruptibleSocket::interrupted() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_interrupted;
}

bool InterruptibleSocket::takeInterruption() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_interrupted, false);
}

void InterruptibleSocket::reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = false;
}

void InterruptibleSocket::attach(int socket) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_socket = socket;
    if (m_interrupted) {
        ::shutdown(socket, SHUT_RDWR);
    }
}

void InterruptibleSocket::detach() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_socket = -1;
}

}  // namespace tarsel::daemon::nut
