// The bytes of the answer to one Modbus TCP request: the MBAP header of the
// request echoed with its length fixed, then the response or exception PDU.
// Pure byte building, so the server can queue answers without a socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "RequestHandler.h"

namespace tarsel::daemon {

/* The answer frame to `request` (a whole frame: 7-byte header, then the
 * PDU). An exception answer carries the function code with its top bit set,
 * so the answer's function must be below 0x80 (the handler never answers
 * anything else; such requests close the connection). */
std::vector<std::uint8_t> encodeResponse(std::uint8_t const* request, std::size_t length,
                                         Answer const& answer);
/* The same into `frame`, replacing what it held: a buffer kept from answer
 * to answer keeps its storage, so answering allocates nothing. */
void encodeResponse(std::uint8_t const* request, std::size_t length, Answer const& answer,
                    std::vector<std::uint8_t>& frame);

}  // namespace tarsel::daemon
