// The reference point of the request-path benchmark: what libmodbus alone does
// with a fixed register table. One modbus_mapping_t allocated at start,
// modbus_receive() and modbus_reply() in a select() loop, several clients.
//
// Usage: bench_static_server PORT      (prints "listening PORT" once ready)
#include <modbus/modbus.h>
#include <sys/select.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

struct ContextDeleter {
    void operator()(modbus_t* context) const { modbus_free(context); }
};
struct MappingDeleter {
    void operator()(modbus_mapping_t* mapping) const { modbus_mapping_free(mapping); }
};

// Serves one ready client socket; false when the client is gone.
bool serveOne(modbus_t* context, modbus_mapping_t* mapping, int socket) {
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    modbus_set_socket(context, socket);
    int const length = modbus_receive(context, query);
    if (length > 0) {
        modbus_reply(context, query, length, mapping);
        return true;
    }
    return length == 0;  // 0: a request for another unit, ignored
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    int const port = std::atoi(argv[1]);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGINT, requestStop);

    std::unique_ptr<modbus_t, ContextDeleter> context(modbus_new_tcp("127.0.0.1", port));
    std::unique_ptr<modbus_mapping_t, MappingDeleter> mapping(
        modbus_mapping_new(256, 256, 256, 256));
    if (!context || !mapping) {
        std::fprintf(stderr, "static server: cannot allocate\n");
        return 1;
    }
    for (int i = 0; i < 256; ++i) {
        mapping->tab_registers[i] = static_cast<uint16_t>(i);
        mapping->tab_input_registers[i] = static_cast<uint16_t>(i * 3);
        mapping->tab_bits[i] = static_cast<uint8_t>(i & 1);
    }
    int const listener = modbus_tcp_listen(context.get(), 16);
    if (listener < 0) {
        std::perror("static server: listen");
        return 1;
    }
    std::printf("listening %d\n", port);
    std::fflush(stdout);

    fd_set open;
    FD_ZERO(&open);
    FD_SET(listener, &open);
    int highest = listener;
    while (!stopRequested) {
        fd_set ready = open;
        timeval tick{0, 200000};
        int const count = select(highest + 1, &ready, nullptr, nullptr, &tick);
        if (count <= 0) {
            continue;
        }
        for (int socket = 0; socket <= highest; ++socket) {
            if (!FD_ISSET(socket, &ready)) {
                continue;
            }
            if (socket == listener) {
                int const client = modbus_tcp_accept(context.get(), &socket);
                modbus_set_socket(context.get(), listener);
                if (client >= 0 && client < FD_SETSIZE) {
                    FD_SET(client, &open);
                    highest = client > highest ? client : highest;
                }
            } else if (!serveOne(context.get(), mapping.get(), socket)) {
                close(socket);
                FD_CLR(socket, &open);
            }
        }
    }
    close(listener);
    return 0;
}
