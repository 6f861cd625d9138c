// Decides the answer to one Modbus TCP request: which encoders to read or
// write, or which exception to send. Knows nothing of sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AccessRules.h"
#include "AuditTrail.h"
#include "DeferredReplies.h"
#include "ExceptionCodes.h"
#include "Log.h"
#include "Metrics.h"
#include "RemoteWrites.h"
#include "ServedMap.h"
#include "modbus/MapAvailableAccessor.h"

namespace tarsel::daemon {

/* The answer to one request: an exception, or the data of the range (for a
 * write, the range written, which the reply echoes). */
struct Answer {
    std::uint8_t exception = 0;
    std::uint8_t function = 0;
    std::uint16_t address = 0;
    std::uint16_t quantity = 0;
    std::vector<std::uint16_t> registers;  // reads of registers
    std::vector<std::uint8_t> bits;        // reads of coils and discrete inputs
    // The PDU after the function code, for answers that carry no table data
    // (Read Device Identification).
    std::vector<std::uint8_t> body;
    // No Modbus answer exists (a function code of 0x80 or above, the range
    // that marks exception answers): the connection is closed instead.
    bool closeConnection = false;
    // The answer comes later: the token to ask DeferredReplies for the
    // outcome (a write handed over to RemoteWrites).
    std::optional<DeferredReplies::Token> deferred;
};

/* Who sent a request, and what it may do. */
struct RequestOrigin {
    // "127.0.0.1:40212", for the log: a view of the connection's own text,
    // which outlives the requests it sends (no copy per request).
    std::string_view client = "local";
    std::uint32_t ipv4 = 0x7F000001;     // host byte order
    AccessRules const* rules = nullptr;  // the listener's; none: everything allowed
    bool roleMayWrite = true;            // false for a read-only role of a client certificate
    // A TLS client's certificate, as request lines name it after the address
    // (certificate="/CN=scada" role="operator"): who wrote, more than where
    // from. Empty on a plain connection.
    std::string_view certificate = {};
};

class RequestHandler {
  public:
    RequestHandler(ServedMap& map, modbus::MapAvailableAccessor& availability, Log& log,
                   std::uint8_t unitId)
        : m_map(map), m_availability(availability), m_log(log), m_unitId(unitId) {}

    /* A whole Modbus TCP frame (7-byte header, then the PDU). */
    Answer handle(std::uint8_t const* frame, std::size_t length,
                  RequestOrigin const& origin = RequestOrigin{});

    /* Every write attempted through this handler (written, failed or
     * refused) also goes to this trail, line by line, unlimited; nothing
     * (the default): writes are only in the log, where repeated ones are
     * summarised. The trail must outlive the handler. */
    void setAuditTrail(AuditTrail* trail) { m_auditTrail = trail; }
    /* Every request handed to this handler is counted there by function and
     * exception; nothing (the default): not counted. Give it only to the
     * handler the listeners call: a routed request is counted by it. */
    void setMetrics(Metrics* metrics) { m_metrics = metrics; }

    /* Takes back the buffers of an answer that has been sent: the next
     * answer is built in them instead of in newly allocated ones. */
    void recycle(Answer&& answer);

    /* Hands requests for another unit id to that unit's handler (one
     * gateway, several devices behind it). */
    void routeUnit(std::uint8_t unitId, RequestHandler& handler) { m_units[unitId] = &handler; }
    /* Answers every write with Illegal Function: for data that lives
     * elsewhere (a UPS behind upsd) and cannot be written back. */
    void refuseWrites() { m_writesRefused = true; }
    /* Hands writes to the entries `remote` owns over to it; their answers
     * wait in `replies`. Both must outlive the handler. */
    void setRemoteWrites(RemoteWrites* remote, DeferredReplies* replies) {
        m_remote = remote;
        m_replies = replies;
    }
    /* Counts an answer in the metrics; a deferred one is counted by whoever
     * sends it, with its outcome, once it is known. */
    void countAnswer(std::uint8_t function, std::uint8_t exception);
    /* Where deferred answers wait; null when none are handed over. */
    DeferredReplies* deferredReplies() const { return m_replies; }

  private:
    Answer decide(std::uint8_t const* frame, std::size_t length);
    Answer read(Answer answer, std::size_t length);
    Answer refuseUnavailable(Answer answer);
    Answer identify(Answer answer, std::uint8_t const* pdu, std::size_t length);
    Answer write(Answer answer, std::uint8_t const* pdu, std::size_t length);
    std::uint8_t readEntry(ServedEntry const& entry, Answer& answer);
    Answer rejectWrite(Answer answer, std::uint8_t code, char const* why);
    std::uint8_t readNotAvailable(ServedEntry& entry, Answer& answer);
    std::uint8_t readUnavailable(ServedEntry const& entry, Answer& answer);
    std::uint8_t readyToWrite(ServedEntry& entry, std::vector<std::uint16_t> const& part);
    std::uint8_t writeEntry(ServedEntry& entry, std::vector<std::uint16_t> const& part);
    void logWrittenInPart(Table table, Answer const& answer,
                          std::vector<ServedEntry*> const& entries, std::size_t failed);
    Answer writeRemote(Answer answer, ServedEntry const& entry,
                       std::vector<std::uint16_t> const& part);
    Answer refuseRead(Answer answer, std::string const& why);
    std::string currentValue(ServedEntry const& entry) const;
    std::uint8_t failure(ServedEntry const& entry, char const* operation, char const* what);
    /* Why the origin may not read or write there; empty when it may. */
    /* Whether the client's address may read the table at all. */
    bool mayReadTable(Table table) const;
    std::string readRefusal(Table table, std::vector<ServedEntry*> const& entries) const;
    std::string writeRefusal(Table table, std::vector<ServedEntry*> const& entries) const;
    void audit(ServedEntry const& entry, std::string const& before,
               std::vector<std::uint16_t> const& written, std::string const& outcome);
    void auditRefused(ServedEntry const& entry, std::vector<std::uint16_t> const& written,
                      std::string const& why);

    ServedMap& m_map;
    modbus::MapAvailableAccessor& m_availability;
    Log& m_log;
    std::uint8_t m_unitId;
    std::map<std::uint8_t, RequestHandler*> m_units;
    bool m_writesRefused = false;
    AuditTrail* m_auditTrail = nullptr;
    RemoteWrites* m_remote = nullptr;
    DeferredReplies* m_replies = nullptr;
    Metrics* m_metrics = nullptr;
    /* "client=127.0.0.1:40212 unit=1 function=3 address=20": the request
     * being answered, for every line about it; during handle() only. */
    std::string const& fields();

    std::string m_fields;  // what fields() built for the request, if it was asked
    bool m_fieldsBuilt = false;
    RequestOrigin const* m_origin = nullptr;  // during handle() only
    std::uint8_t const* m_frame = nullptr;    // likewise
    std::size_t m_frameLength = 0;
    // Kept from one request to the next for their storage alone.
    Coverage m_readCoverage;
    std::vector<std::uint16_t> m_spareRegisters;
    std::vector<std::uint8_t> m_spareBits;
};

}  // namespace tarsel::daemon
