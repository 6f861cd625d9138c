// The floor of the request-path benchmark: a server that does nothing but
// read one Modbus TCP request and write back an answer of the right length
// (a canned body, no table behind it). What it costs is what the loopback
// socket and the system calls cost; no real server can be faster.
//
// Usage: bench_echo_floor PORT      (prints "listening PORT" once ready)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

constexpr std::size_t headerLength = 7;  // transaction, protocol, length, unit

// Reads exactly n bytes; false on end of stream or error.
bool readAll(int socket, uint8_t* into, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        ssize_t const got = ::read(socket, into + done, n - done);
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

// Answer body length for a read request: function, byte count, data.
std::size_t answerBodyLength(uint8_t function, unsigned quantity) {
    switch (function) {
        case 1:
        case 2:
            return 2 + (quantity + 7) / 8;
        case 3:
        case 4:
            return 2 + 2 * quantity;
        default:
            return 5;  // writes echo function, address and quantity or value
    }
}

// Answers one request of a ready client; false when the client is gone.
bool echoOne(int socket) {
    std::array<uint8_t, 260> request{};
    if (!readAll(socket, request.data(), headerLength)) {
        return false;
    }
    std::size_t const pduLength = (std::size_t{request[4]} << 8 | request[5]) - 1;
    if (pduLength < 5 || pduLength > request.size() - headerLength ||
        !readAll(socket, request.data() + headerLength, pduLength)) {
        return false;
    }
    uint8_t const function = request[7];
    unsigned const quantity = unsigned{request[10]} << 8 | request[11];
    std::size_t const body = answerBodyLength(function, quantity);
    std::vector<uint8_t> answer(headerLength + body, 0);
    answer[0] = request[0];
    answer[1] = request[1];
    answer[4] = static_cast<uint8_t>((body + 1) >> 8);
    answer[5] = static_cast<uint8_t>(body + 1);
    answer[6] = request[6];
    answer[7] = function;
    answer[8] = static_cast<uint8_t>(body - 2);
    return ::write(socket, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
}

int listenOn(int port) {
    int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
    int const yes = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 16) != 0) {
        return -1;
    }
    return listener;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    std::signal(SIGTERM, requestStop);
    std::signal(SIGINT, requestStop);
    int const port = std::atoi(argv[1]);
    int const listener = listenOn(port);
    if (listener < 0) {
        std::perror("echo floor: listen");
        return 1;
    }
    std::printf("listening %d\n", port);
    std::fflush(stdout);

    std::vector<pollfd> sockets{{listener, POLLIN, 0}};
    while (!stopRequested) {
        if (::poll(sockets.data(), sockets.size(), 200) <= 0) {
            continue;
        }
        for (std::size_t i = sockets.size(); i-- > 1;) {
            if (sockets[i].revents != 0 && !echoOne(sockets[i].fd)) {
                ::close(sockets[i].fd);
                sockets.erase(sockets.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (sockets[0].revents & POLLIN) {
            int const client = ::accept(listener, nullptr, nullptr);
            if (client >= 0) {
                int const yes = 1;
                ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
                sockets.push_back({client, POLLIN, 0});
            }
        }
    }
    for (auto const& socket : sockets) {
        ::close(socket.fd);
    }
    return 0;
}
