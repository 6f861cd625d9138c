// The Modbus TCP side: a listening socket and its clients, served from one
// poll() loop. Frames are cut out of each client's byte stream here, so a
// slow or broken client never holds up the others; answers are sent through
// libmodbus.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <poll.h>

#include "Log.h"
#include "RequestHandler.h"

typedef struct _modbus modbus_t;

namespace tarsel::daemon {

struct ListenConfig {
    std::string address = "127.0.0.1";
    int port = 1502;  // 0: any free port (see port())
};

class ModbusServer {
  public:
    /* Listens at once; throws std::runtime_error when it cannot. */
    ModbusServer(ListenConfig const& config, RequestHandler& handler, Log& log);
    ~ModbusServer();

    ModbusServer(ModbusServer const&) = delete;
    ModbusServer& operator=(ModbusServer const&) = delete;

    int port() const { return m_port; }
    std::size_t clientCount() const { return m_clients.size(); }

    /* The descriptors to poll: the listener first, then every client. */
    std::vector<pollfd> pollSet() const;
    /* Serves what poll() reported ready, for the descriptors of pollSet(). */
    void serve(pollfd const* ready, std::size_t count);

  private:
    struct Client {
        int fd;
        std::vector<std::uint8_t> buffer;
    };

    void accept();
    /* False when the client is to be dropped. */
    bool receive(Client& client);
    bool answerFrames(Client& client);
    void reply(Client const& client, std::uint8_t const* frame, std::size_t length);

    RequestHandler& m_handler;
    Log& m_log;
    std::unique_ptr<modbus_t, void (*)(modbus_t*)> m_context;
    int m_listener = -1;
    int m_port = 0;
    std::vector<Client> m_clients;
};

}  // namespace tarsel::daemon
