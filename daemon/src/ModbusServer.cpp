#include "ModbusServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <modbus.h>

namespace tarsel::daemon {

namespace {

constexpr std::size_t kHeaderLength = 7;
constexpr std::size_t kMaxFrame = 260;  // MBAP header plus the largest PDU
constexpr std::size_t kMaxClients = 64;

void freeContext(modbus_t* context) {
    if (context != nullptr) {
        modbus_set_socket(context, -1);  // the sockets are ours to close
        modbus_free(context);
    }
}

std::uint16_t word(std::uint8_t const* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

using Mapping = std::unique_ptr<modbus_mapping_t, void (*)(modbus_mapping_t*)>;

/* A mapping that holds exactly the answered range, so modbus_reply() builds
 * the response from the encoders' data and nothing else. */
Mapping scratchMapping(Answer const& answer) {
    int const start = answer.address;
    int const count = answer.quantity;
    modbus_mapping_t* mapping = nullptr;
    switch (answer.function) {
        case 1:
        case 5:
        case 15:
            mapping = modbus_mapping_new_start_address(start, count, 0, 0, 0, 0, 0, 0);
            break;
        case 2:
            mapping = modbus_mapping_new_start_address(0, 0, start, count, 0, 0, 0, 0);
            break;
        case 3:
        case 6:
        case 16:
            mapping = modbus_mapping_new_start_address(0, 0, 0, 0, start, count, 0, 0);
            break;
        default:
            mapping = modbus_mapping_new_start_address(0, 0, 0, 0, 0, 0, start, count);
            break;
    }
    if (mapping == nullptr) {
        throw std::bad_alloc();
    }
    std::copy(answer.bits.begin(), answer.bits.end(),
              answer.function == 2 ? mapping->tab_input_bits : mapping->tab_bits);
    std::copy(answer.registers.begin(), answer.registers.end(),
              answer.function == 4 ? mapping->tab_input_registers : mapping->tab_registers);
    return Mapping(mapping, modbus_mapping_free);
}

}  // namespace

ModbusServer::ModbusServer(ListenConfig const& config, RequestHandler& handler, Log& log)
    : m_handler(handler),
      m_log(log),
      m_context(modbus_new_tcp(config.address.c_str(), config.port), freeContext) {
    if (!m_context) {
        throw std::runtime_error(std::string("cannot create the Modbus context: ") +
                                 modbus_strerror(errno));
    }
    m_listener = modbus_tcp_listen(m_context.get(), 16);
    if (m_listener < 0) {
        throw std::runtime_error("cannot listen on " + config.address + ":" +
                                 std::to_string(config.port) + ": " + modbus_strerror(errno));
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&bound), &length);
    m_port = ntohs(bound.sin_port);
}

ModbusServer::~ModbusServer() {
    for (auto const& client : m_clients) {
        ::close(client.fd);
    }
    if (m_listener >= 0) {
        ::close(m_listener);
    }
}

std::vector<pollfd> ModbusServer::pollSet() const {
    std::vector<pollfd> fds{{m_listener, POLLIN, 0}};
    for (auto const& client : m_clients) {
        fds.push_back({client.fd, POLLIN, 0});
    }
    return fds;
}

void ModbusServer::serve(pollfd const* ready, std::size_t count) {
    // Clients first, by descriptor: accepting may reorder m_clients.
    std::vector<int> dropped;
    for (std::size_t i = 1; i < count; ++i) {
        if (ready[i].revents == 0) {
            continue;
        }
        for (auto& client : m_clients) {
            if (client.fd == ready[i].fd && !receive(client)) {
                dropped.push_back(client.fd);
            }
        }
    }
    for (int const fd : dropped) {
        ::close(fd);
        m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                       [fd](Client const& c) { return c.fd == fd; }),
                        m_clients.end());
        m_log.debug("client " + std::to_string(fd) + " disconnected");
    }
    if (count > 0 && (ready[0].revents & POLLIN) != 0) {
        accept();
    }
}

void ModbusServer::accept() {
    int const fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (m_clients.size() >= kMaxClients) {
        m_log.warning("too many clients; connection refused");
        ::close(fd);
        return;
    }
    m_clients.push_back({fd, {}});
    m_log.debug("client " + std::to_string(fd) + " connected");
}

bool ModbusServer::receive(Client& client) {
    std::uint8_t chunk[kMaxFrame];
    // One recv() per readiness: poll() said data is there, so it cannot block.
    ssize_t const received = ::recv(client.fd, chunk, sizeof chunk, 0);
    if (received <= 0) {
        return false;
    }
    client.buffer.insert(client.buffer.end(), chunk, chunk + received);
    return answerFrames(client);
}

bool ModbusServer::answerFrames(Client& client) {
    auto& buffer = client.buffer;
    while (buffer.size() >= kHeaderLength) {
        std::uint16_t const protocol = word(&buffer[2]);
        std::uint16_t const length = word(&buffer[4]);  // unit id and PDU
        if (protocol != 0 || length < 2 || length + 6u > kMaxFrame) {
            // Without a sane length the stream cannot be resynchronised.
            m_log.warning("client " + std::to_string(client.fd) +
                          " sent a malformed frame header; connection closed");
            return false;
        }
        std::size_t const frame = 6u + length;
        if (buffer.size() < frame) {
            return true;  // the rest of the frame comes later
        }
        reply(client, buffer.data(), frame);
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(frame));
    }
    return true;
}

void ModbusServer::reply(Client const& client, std::uint8_t const* frame, std::size_t length) {
    Answer const answer = m_handler.handle(frame, length);
    modbus_set_socket(m_context.get(), client.fd);
    int sent = 0;
    if (answer.exception != 0) {
        m_log.debug("function " + std::to_string(answer.function) + " at " +
                    std::to_string(answer.address) + ": exception " +
                    std::to_string(answer.exception));
        sent = modbus_reply_exception(m_context.get(), frame, answer.exception);
    } else {
        Mapping const mapping = scratchMapping(answer);
        sent = modbus_reply(m_context.get(), frame, static_cast<int>(length), mapping.get());
    }
    if (sent < 0) {
        m_log.debug("client " + std::to_string(client.fd) +
                    ": reply not sent: " + modbus_strerror(errno));
    }
    modbus_set_socket(m_context.get(), -1);
}

}  // namespace tarsel::daemon
