// The client of the request-path benchmark: libmodbus over TCP, one request
// at a time, as a SCADA master polls. The same program drives every server so
// that only the server differs.
//
// Usage: bench_load_client PORT FUNCTION ADDRESS QUANTITY REQUESTS
// Prints "requests N seconds S per_second R" on success; exits 1 on the first
// failed request (a benchmark of errors measures nothing).
#include <modbus/modbus.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

struct ContextDeleter {
    void operator()(modbus_t* context) const {
        modbus_close(context);
        modbus_free(context);
    }
};

// One request of the given function; the return value of libmodbus.
int request(modbus_t* context, int function, int address, int quantity,
            std::vector<uint16_t>& registers, std::vector<uint8_t>& bits) {
    switch (function) {
        case 1:
            return modbus_read_bits(context, address, quantity, bits.data());
        case 2:
            return modbus_read_input_bits(context, address, quantity, bits.data());
        case 3:
            return modbus_read_registers(context, address, quantity, registers.data());
        case 4:
            return modbus_read_input_registers(context, address, quantity, registers.data());
        default:
            return -1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s PORT FUNCTION ADDRESS QUANTITY REQUESTS\n", argv[0]);
        return 2;
    }
    int const port = std::atoi(argv[1]);
    int const function = std::atoi(argv[2]);
    int const address = std::atoi(argv[3]);
    int const quantity = std::atoi(argv[4]);
    long const requests = std::atol(argv[5]);

    std::unique_ptr<modbus_t, ContextDeleter> context(modbus_new_tcp("127.0.0.1", port));
    if (!context || modbus_set_slave(context.get(), 1) != 0 || modbus_connect(context.get()) != 0) {
        std::fprintf(stderr, "load client: cannot connect to port %d\n", port);
        return 1;
    }
    std::vector<uint16_t> registers(MODBUS_MAX_READ_REGISTERS);
    std::vector<uint8_t> bits(MODBUS_MAX_READ_BITS);
    auto const start = std::chrono::steady_clock::now();
    for (long i = 0; i < requests; ++i) {
        if (request(context.get(), function, address, quantity, registers, bits) != quantity) {
            std::fprintf(stderr, "load client: request %ld failed: %s\n", i,
                         modbus_strerror(errno));
            return 1;
        }
    }
    std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start;
    std::printf("requests %ld seconds %.6f per_second %.1f\n", requests, elapsed.count(),
                static_cast<double>(requests) / elapsed.count());
    return 0;
}
