#include "RequestHandler.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>

#include "AttributeRefresh.h"
#include "DeviceIdentification.h"
#include "EntryWire.h"
#include "LogText.h"
#include "RequestValidation.h"

namespace tarsel::daemon {

namespace {

namespace ec = exception_code;

constexpr std::size_t kHeaderLength = 7;  // transaction, protocol, length, unit id

enum Function : std::uint8_t {
    kReadCoils = 1,
    kReadDiscreteInputs = 2,
    kReadHoldingRegisters = 3,
    kReadInputRegisters = 4,
    kWriteSingleCoil = 5,
    kWriteSingleRegister = 6,
    kWriteMultipleCoils = 15,
    kWriteMultipleRegisters = 16,
    kEncapsulatedInterface = 0x2B,
};

std::uint16_t word(std::uint8_t const* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::optional<Table> tableOf(std::uint8_t function) {
    switch (function) {
        case kReadCoils:
        case kWriteSingleCoil:
        case kWriteMultipleCoils:
            return Table::Coils;
        case kReadDiscreteInputs:
            return Table::DiscreteInputs;
        case kReadHoldingRegisters:
        case kWriteSingleRegister:
        case kWriteMultipleRegisters:
            return Table::HoldingRegisters;
        case kReadInputRegisters:
            return Table::InputRegisters;
        default:
            return std::nullopt;
    }
}

Answer refuse(Answer answer, std::uint8_t code) {
    answer.exception = code;
    answer.registers.clear();
    answer.bits.clear();
    return answer;
}

/* What a write refused while the map cannot be served was refused for, by
 * the exception it gets (see refuseUnavailable()). */
char const* whyRefusedUnavailable(std::uint8_t code) {
    switch (code) {
        case ec::kIllegalFunction:
            return "refused by the access rules";
        case ec::kIllegalDataAddress:
            return "no whole entries at those addresses";
        default:
            return "the map is not available yet";
    }
}

bool available(ServedEntry const& entry) {
    if (!entry.built()) {
        return false;  // pending: nothing to read or write until it is built
    }
    auto const& encoder = entry.encoder;
    return encoder.registers ? encoder.registers->isDataAvailable()
                             : encoder.discretes->isDataAvailable();
}

/* Whether every data accessor of a built entry has its item. An entry can
 * read as available while one is missing (a uint16 with a default; a block of
 * status bits, available as soon as any of its sources is there), and the
 * library drops the write of a missing item: such a write would be answered
 * as done and change nothing, or only part of what was asked. */
bool everySourcePresent(ServedEntry const& entry) {
    auto const& sources = entry.encoder.sources;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (!sources[i]->isExitingInCds()) {
            return false;
        }
    }
    return true;
}

/* " unit=1 function=3 address=20" of a frame, written into `out` (room for
 * 48 characters); returns where it ends. No string is built on the way. */
char* writeFrameFields(char* out, std::uint8_t const* frame, std::size_t length) {
    char* const end = out + 48;
    auto put = [&out](char const* text, std::size_t size) {
        std::memcpy(out, text, size);
        out += size;
    };
    auto number = [&out, end](unsigned value) { out = std::to_chars(out, end, value).ptr; };
    if (length > kHeaderLength) {
        put(" unit=", 6);
        number(frame[6]);
        put(" function=", 10);
        number(frame[7]);
    }
    if (length >= kHeaderLength + 3) {
        put(" address=", 9);
        number(word(frame + kHeaderLength + 1));
    }
    return out;
}

/* Gives `buffer` the storage of `spare` when it has none of its own, so an
 * answer reuses what the previous one was built in. */
template <typename Vector>
void reuse(Vector& buffer, Vector& spare) {
    if (buffer.capacity() == 0) {
        buffer.swap(spare);
    }
}

/* Copies what an encoder returned into the entry's place in the answer,
 * cut or padded to the entry's size (the answer is zero already). */
template <typename Words>
void place(Words const& words, std::size_t size, std::size_t offset, bool registers,
           Answer& answer) {
    std::size_t const count = std::min<std::size_t>(words.size(), size);
    for (std::size_t i = 0; i < count; ++i) {
        if (registers) {
            answer.registers[offset + i] = words[i];
        } else {
            answer.bits[offset + i] = words[i] != 0 ? 1 : 0;
        }
    }
}

/* The words of an available register entry straight into their place;
 * inline in the range's loop, since it is most of what a read does. */
inline void placeRegisters(ServedEntry const& entry, modbus::RegistersDataAccessor const& encoder,
                           Answer& answer) {
    std::size_t const size = entry.definition.size;
    std::vector<std::uint16_t> const words = encoder.getData();
    std::uint16_t* const to = answer.registers.data() + (entry.definition.address - answer.address);
    if (size == 1 && !words.empty()) {
        *to = words.front();  // most entries: without a call to memmove
    } else {
        std::copy_n(words.begin(), std::min(words.size(), size), to);
    }
}

/* The bits of an available discrete entry straight into their place, one
 * byte (0 or 1) each, as the answer keeps them. */
inline void placeBits(ServedEntry const& entry, modbus::DiscretesDataAccessor const& encoder,
                      Answer& answer) {
    std::vector<std::uint8_t> const values = encoder.getData();
    std::size_t const count = std::min<std::size_t>(values.size(), entry.definition.size);
    std::uint8_t* const to = answer.bits.data() + (entry.definition.address - answer.address);
    for (std::size_t i = 0; i < count; ++i) {
        to[i] = values[i] != 0 ? 1 : 0;
    }
}

/* One write's line in the audit trail, kept whole, and in the log, limited
 * under `key` (a client's writes to one entry, or one reason for refusing or
 * rejecting writes). */
struct AuditLine {
    AuditTrail* trail;
    Log* log;
    std::string key;

    void operator()(std::string const& line, Log::Level level) const {
        if (trail != nullptr) {
            trail->record(line);
        }
        log->limited(level, key, line);
    }
};

/* Refusals are limited in the log by their reason: a stranger refused over
 * and over does not hide the first write refused for another reason (an
 * entry that went unavailable). */
std::string refusedKind(char const* what, std::string const& why) {
    return std::string("refused ") + what + " (" + why + ")";
}

/* "127.0.0.1" of "127.0.0.1:40212": a client's writes are counted together
 * whatever port it connects from. */
std::string addressOf(std::string_view client) {
    return std::string(client.substr(0, client.rfind(':')));
}

/* The words of a write that fall on one entry. */
std::vector<std::uint16_t> partOf(ServedEntry const& entry, std::vector<std::uint16_t> const& words,
                                  std::uint16_t start) {
    auto const first =
        words.begin() + static_cast<std::ptrdiff_t>(entry.definition.address - start);
    return {first, first + entry.definition.size};
}

}  // namespace

Answer RequestHandler::handle(std::uint8_t const* frame, std::size_t length,
                              RequestOrigin const& origin) {
    m_origin = &origin;
    m_frame = frame;
    m_frameLength = length;
    m_fieldsBuilt = false;
    Answer const answer = decide(frame, length);
    if (answer.exception != 0 && m_log.verbose()) {
        m_log.debug("exception " + std::to_string(answer.exception) + "; " + fields());
    }
    m_origin = nullptr;
    m_frame = nullptr;
    if (!answer.deferred) {
        countAnswer(answer.function, answer.exception);
    }
    return answer;
}

/* Built on the first line about the request, in place: most requests log
 * nothing, and the string keeps its storage from request to request. */
std::string const& RequestHandler::fields() {
    if (!m_fieldsBuilt) {
        char frameFields[48];
        char const* const end = writeFrameFields(frameFields, m_frame, m_frameLength);
        m_fields.clear();
        m_fields.append("client=", 7).append(m_origin->client);
        if (!m_origin->certificate.empty()) {
            m_fields.append(" ", 1).append(m_origin->certificate);
        }
        m_fields.append(frameFields, static_cast<std::size_t>(end - frameFields));
        m_fieldsBuilt = true;
    }
    return m_fields;
}

void RequestHandler::countAnswer(std::uint8_t function, std::uint8_t exception) {
    if (m_metrics != nullptr) {
        m_metrics->countRequest(function, exception);
    }
}

Answer RequestHandler::decide(std::uint8_t const* frame, std::size_t length) {
    Answer answer;
    if (length < kHeaderLength + 1) {
        return refuse(answer, ec::kIllegalDataValue);
    }
    std::uint8_t const unit = frame[6];
    if (auto const routed = m_units.find(unit); routed != m_units.end()) {
        // The origin goes along: the unit's access rules are the listener's.
        return routed->second->handle(frame, length, *m_origin);
    }
    std::uint8_t const* pdu = frame + kHeaderLength;
    std::size_t const pduLength = length - kHeaderLength;
    answer.function = pdu[0];
    if (answer.function >= 0x80) {
        // Its exception answer would carry the same function byte as an
        // exception to (function - 0x80): a client could not tell them apart.
        answer.closeConnection = true;
        return answer;
    }
    // 0 and 255 are how Modbus TCP clients address "the server itself".
    if (unit != m_unitId && unit != 0 && unit != 0xFF) {
        if (!isWriteFunction(answer.function)) {
            return refuse(answer, ec::kGatewayTargetFailed);
        }
        // The trail keeps every write a client attempts, one to a unit
        // that is not served too; its address as far as the frame has one.
        RequestShape const shape = checkRequestShape(pdu, pduLength);
        answer.address = shape.address;
        answer.quantity = shape.quantity;
        return rejectWrite(answer, ec::kGatewayTargetFailed, "no such unit");
    }
    if (answer.function == kEncapsulatedInterface) {
        return identify(answer, pdu, pduLength);
    }
    // The request's shape first: an illegal or malformed request is the
    // client's error whether or not the map can be served.
    RequestShape const shape = checkRequestShape(pdu, pduLength);
    answer.address = shape.address;
    answer.quantity = shape.quantity;
    bool const writing = isWriteFunction(answer.function);
    if (shape.exception != 0) {
        return writing
                   ? rejectWrite(answer, shape.exception,
                                 shape.exception == ec::kIllegalDataValue ? "malformed request"
                                                                          : "past the last address")
                   : refuse(answer, shape.exception);
    }
    if (writing && m_writesRefused) {
        return rejectWrite(answer, ec::kIllegalFunction, "writes are refused");
    }
    if (!m_availability.isAvailable()) {
        Answer refused = refuseUnavailable(answer);
        if (!writing) {
            return refused;
        }
        std::uint8_t const code = refused.exception;
        return rejectWrite(std::move(refused), code, whyRefusedUnavailable(code));
    }
    return answer.function <= kReadInputRegisters ? read(answer, pduLength)
                                                  : write(answer, pdu, pduLength);
}

Answer RequestHandler::read(Answer answer, std::size_t length) {
    if (length != 5) {
        return refuse(answer, ec::kIllegalDataValue);
    }
    Table const table = *tableOf(answer.function);
    if (!mayReadTable(table)) {
        return refuseRead(answer, readRefusal(table, {}));
    }
    Coverage& coverage = m_readCoverage;
    m_map.cover(table, answer.address, answer.quantity, false, coverage);
    if (coverage.exception != 0) {
        return refuse(answer, coverage.exception);
    }
    if (m_map.hasReadLists(table)) {
        if (std::string const why = readRefusal(table, coverage.entries); !why.empty()) {
            return refuseRead(answer, why);
        }
    }
    // Holes between entries read as 0.
    if (isRegisterTable(table)) {
        reuse(answer.registers, m_spareRegisters);
        answer.registers.assign(answer.quantity, 0);
    } else {
        reuse(answer.bits, m_spareBits);
        answer.bits.assign(answer.quantity, 0);
    }
    // One try around the whole range rather than one per entry: what an
    // encoder throws names the entry being read.
    ServedEntry const* reading = nullptr;
    bool const registers = isRegisterTable(table);
    try {
        for (ServedEntry* entry : coverage.entries) {
            reading = entry;
            modbus::RegistersDataAccessor const* const encoder = entry->encoder.registers.get();
            modbus::DiscretesDataAccessor const* const bits = entry->encoder.discretes.get();
            std::uint8_t code = 0;
            // What nearly every read is, without a call of its own.
            if (registers && encoder != nullptr) {
                if (encoder->isDataAvailable()) {
                    placeRegisters(*entry, *encoder, answer);
                } else {
                    code = readNotAvailable(*entry, answer);
                }
            } else if (!registers && bits != nullptr && encoder == nullptr) {
                if (bits->isDataAvailable()) {
                    placeBits(*entry, *bits, answer);
                } else {
                    code = readNotAvailable(*entry, answer);
                }
            } else {
                code = available(*entry) ? readEntry(*entry, answer)
                                         : readNotAvailable(*entry, answer);
            }
            if (code != 0) {
                return refuse(answer, code);
            }
        }
    } catch (std::exception const& error) {
        return refuse(answer, failure(*reading, "read", error.what()));
    }
    return answer;
}

/* While the map cannot be served: what the request would get before any
 * value is read (a client that may not use the table, or one of the entries
 * in the range, is refused and learns nothing of the map; a range that is not
 * mapped is Illegal Data Address), else Gateway Path Unavailable. */
Answer RequestHandler::refuseUnavailable(Answer answer) {
    Table const table = *tableOf(answer.function);
    bool const writing = answer.function > kReadInputRegisters;
    auto const refusal = [&](std::vector<ServedEntry*> const& entries) {
        return writing ? writeRefusal(table, entries) : readRefusal(table, entries);
    };
    if (!refusal({}).empty()) {
        return refuse(answer, ec::kIllegalFunction);
    }
    Coverage const coverage = m_map.cover(table, answer.address, answer.quantity, writing);
    if (coverage.exception != 0) {
        return refuse(answer, coverage.exception);
    }
    if (!refusal(coverage.entries).empty()) {
        return refuse(answer, ec::kIllegalFunction);
    }
    return refuse(answer, ec::kGatewayPathUnavailable);
}

/* Read Device Identification identifies the gateway itself, so it is
 * answered whether or not the map can be served. */
Answer RequestHandler::identify(Answer answer, std::uint8_t const* pdu, std::size_t length) {
    IdentificationAnswer const identified =
        answerDeviceIdentification(pdu, length, m_map.identification());
    answer.exception = identified.exception;
    answer.body = identified.body;
    return answer;
}

/* Copies one entry's value into the answer; returns an exception code or 0.
 * What the encoder returns is read where it is, never copied. What an
 * encoder throws leaves for the caller, which knows the entry. */
std::uint8_t RequestHandler::readEntry(ServedEntry const& entry, Answer& answer) {
    if (!available(entry)) {
        return readUnavailable(entry, answer);
    }
    std::size_t const offset = entry.definition.address - answer.address;
    std::size_t const size = entry.definition.size;
    // Every entry of a request is in the table the function reads.
    bool const registers =
        answer.function == kReadHoldingRegisters || answer.function == kReadInputRegisters;
    if (entry.encoder.registers) {
        place(entry.encoder.registers->getData(), size, offset, registers, answer);
    } else {
        place(entry.encoder.discretes->getData(), size, offset, registers, answer);
    }
    return 0;
}

/* An entry that reads as not available. One whose device attribute the
 * library reports gone since a change of its device (an attribute written a
 * moment ago) is built again first and read at once, as the loop would do
 * before long: a client that reads back what it has just written gets it. */
std::uint8_t RequestHandler::readNotAvailable(ServedEntry& entry, Answer& answer) {
    if (AttributeRefresh::staleOnRequest(m_map, entry)) {
        m_map.rebuild(entry);
        return readEntry(entry, answer);
    }
    return readUnavailable(entry, answer);
}

/* What an entry that is not available answers: its exception, or its
 * sentinel, not-implemented marker or, for a discrete, 0 in its place. */
std::uint8_t RequestHandler::readUnavailable(ServedEntry const& entry, Answer& answer) {
    UnavailablePolicy const& policy = entry.definition.unavailable;
    if (policy.mode == UnavailablePolicy::Mode::Exception) {
        return policy.code;
    }
    bool const registers =
        answer.function == kReadHoldingRegisters || answer.function == kReadInputRegisters;
    place(unavailableWords(entry.definition), entry.definition.size,
          entry.definition.address - answer.address, registers, answer);
    return 0;
}

void RequestHandler::recycle(Answer&& answer) {
    if (answer.registers.capacity() > m_spareRegisters.capacity()) {
        m_spareRegisters.swap(answer.registers);
    }
    if (answer.bits.capacity() > m_spareBits.capacity()) {
        m_spareBits.swap(answer.bits);
    }
}

Answer RequestHandler::write(Answer answer, std::uint8_t const* pdu, std::size_t length) {
    bool const single =
        answer.function == kWriteSingleCoil || answer.function == kWriteSingleRegister;
    if (single && length != 5) {
        return rejectWrite(answer, ec::kIllegalDataValue, "malformed request");
    }
    auto const values = writtenValues(answer.function, pdu, length, answer.quantity);
    if (!values) {
        return rejectWrite(answer, ec::kIllegalDataValue, "malformed request");
    }
    Table const table = *tableOf(answer.function);
    if (std::string const why = writeRefusal(table, {}); !why.empty()) {
        // Before the map is consulted: a stranger learns nothing of it. The
        // trail keeps the attempt all the same, whatever the log's limit.
        std::string const line = "write to " + std::string(tableName(table)) + " " +
                                 std::to_string(answer.address) + ": refused (" + why + "); " +
                                 fields();
        AuditLine{m_auditTrail, &m_log, refusedKind("writes", why)}(line, Log::Level::Warning);
        return refuse(answer, ec::kIllegalFunction);
    }
    Coverage const coverage = m_map.cover(table, answer.address, answer.quantity, true);
    if (coverage.exception != 0) {
        return rejectWrite(answer, coverage.exception,
                           coverage.exception == ec::kIllegalDataAddress
                               ? "no whole entries at those addresses"
                               : "quantity out of range");
    }
    if (std::string const why = writeRefusal(table, coverage.entries); !why.empty()) {
        for (ServedEntry const* entry : coverage.entries) {
            auditRefused(*entry, partOf(*entry, *values, answer.address), why);
        }
        return refuse(answer, ec::kIllegalFunction);
    }
    // Nothing is written unless every entry can take its part: a write the
    // library would drop silently is refused instead.
    for (ServedEntry* entry : coverage.entries) {
        if (std::uint8_t const code =
                readyToWrite(*entry, partOf(*entry, *values, answer.address))) {
            return refuse(answer, code);
        }
    }
    if (m_remote != nullptr && m_replies != nullptr) {
        // The values live elsewhere: nothing is written to the store. One
        // entry per request, so that a client never gets an answer for a
        // write that was carried out in part.
        ServedEntry const& entry = *coverage.entries.front();
        std::string const why = coverage.entries.size() > 1 ? "a write to a UPS covers one entry"
                                : !m_remote->owns(entry)    ? "not a variable or command of the UPS"
                                                            : "";
        if (!why.empty()) {
            for (ServedEntry const* covered : coverage.entries) {
                auditRefused(*covered, partOf(*covered, *values, answer.address), why);
            }
            return refuse(answer, ec::kIllegalFunction);
        }
        return writeRemote(answer, entry, partOf(entry, *values, answer.address));
    }
    for (std::size_t i = 0; i < coverage.entries.size(); ++i) {
        ServedEntry& entry = *coverage.entries[i];
        std::vector<std::uint16_t> const part = partOf(entry, *values, answer.address);
        // Again: an attribute written by an earlier part changes the device.
        if (std::uint8_t const code = readyToWrite(entry, part)) {
            logWrittenInPart(table, answer, coverage.entries, i);
            return refuse(answer, code);
        }
        std::string const before = currentValue(entry);
        if (std::uint8_t const code = writeEntry(entry, part)) {
            audit(entry, before, part, "failed");
            logWrittenInPart(table, answer, coverage.entries, i);
            return refuse(answer, code);
        }
        audit(entry, before, part, "written");
    }
    return answer;
}

/* A write over several entries is carried out entry by entry, in address
 * order, and cannot be taken back: when one entry fails, the ones before it
 * keep their new values although the client is answered with an exception.
 * One line says which entries took their part and which did not, so that a
 * master's exception is not read as "nothing changed". */
void RequestHandler::logWrittenInPart(Table table, Answer const& answer,
                                      std::vector<ServedEntry*> const& entries,
                                      std::size_t failed) {
    if (failed == 0) {
        return;  // nothing was written: the exception tells the whole story
    }
    auto const names = [&entries](std::size_t from, std::size_t to) {
        std::string text;
        for (std::size_t i = from; i < to; ++i) {
            EntryDefinition const& definition = entries[i]->definition;
            text +=
                (text.empty() ? "" : ", ") + definition.path() + " " + quotedValue(definition.name);
        }
        return text.empty() ? std::string("none") : text;
    };
    m_log.limited(Log::Level::Warning, "writes in part",
                  "write to " + std::string(tableName(table)) + " " +
                      std::to_string(answer.address) + ".." +
                      std::to_string(answer.address + answer.quantity - 1) +
                      " carried out in part: written " + names(0, failed) + "; failed " +
                      names(failed, failed + 1) + "; not written " +
                      names(failed + 1, entries.size()) + "; " + fields());
}

/* 0 when the entry can take its part now; else the exception, audited. An
 * entry whose device attribute the library reports gone since a change of its
 * device (an attribute written a moment ago) is built again first, as the
 * loop would do before long. */
std::uint8_t RequestHandler::readyToWrite(ServedEntry& entry,
                                          std::vector<std::uint16_t> const& part) {
    if (AttributeRefresh::staleOnRequest(m_map, entry)) {
        m_map.rebuild(entry);
    }
    if (available(entry) && everySourcePresent(entry)) {
        return 0;
    }
    auditRefused(entry, part, "not available");
    UnavailablePolicy const& policy = entry.definition.unavailable;
    return policy.mode == UnavailablePolicy::Mode::Exception ? policy.code
                                                             : ec::kServerDeviceFailure;
}

/* Hands the write over and defers the answer until its outcome is known
 * (or the replies' bound passes); every outcome is audited, a late one too.
 * What runs later holds nothing of this handler, which a reload may have
 * replaced by then: only the trail, the log and the replies, which outlive
 * every handler. */
Answer RequestHandler::writeRemote(Answer answer, ServedEntry const& entry,
                                   std::vector<std::uint16_t> const& part) {
    EntryDefinition const& definition = entry.definition;
    std::string const head = "write " + quotedValue(definition.name) + " " +
                             tableName(definition.table) + " " +
                             std::to_string(definition.address) + ": " + currentValue(entry) +
                             " -> " + readableValue(definition, part) + ": ";
    std::string const tail = "; " + fields();
    std::string const key = "writes of " + definition.name + " by " + addressOf(m_origin->client);
    std::string const bound = std::to_string(m_replies->bound().count()) + " ms";
    AuditLine const note{m_auditTrail, &m_log, key};
    DeferredReplies* const replies = m_replies;
    DeferredReplies::Token const token =
        replies->open(DeferredReplies::Clock::now(), [note, head, tail, bound] {
            note(head + "no outcome within " + bound + ": answered 0x0B" + tail,
                 Log::Level::Warning);
        });
    auto done = [note, replies, token, head, tail](RemoteOutcome const& outcome) {
        bool const answered = replies->settle(token, outcome.exception);
        note(head + outcome.text + (answered ? "" : " (too late for the client's answer)") + tail,
             outcome.exception == 0 ? Log::Level::Info : Log::Level::Warning);
    };
    std::optional<RemoteOutcome> const known =
        m_remote->start(entry, part, std::string(m_origin->client), std::move(done));
    if (known) {
        replies->discard(token);
        note(head + known->text + tail,
             known->exception == 0 ? Log::Level::Info : Log::Level::Warning);
        return known->exception == 0 ? answer : refuse(answer, known->exception);
    }
    answer.deferred = token;
    return answer;
}

std::uint8_t RequestHandler::writeEntry(ServedEntry& entry,
                                        std::vector<std::uint16_t> const& part) {
    try {
        if (entry.encoder.registers) {
            entry.encoder.registers->setData(part);
        } else {
            entry.encoder.discretes->setData(std::vector<std::uint8_t>(part.begin(), part.end()));
        }
    } catch (std::exception const& error) {
        return failure(entry, "write", error.what());
    }
    return 0;
}

std::uint8_t RequestHandler::failure(ServedEntry const& entry, char const* operation,
                                     char const* what) {
    // An encoder that throws on a client's value throws on every repetition.
    m_log.limited(Log::Level::Error,
                  std::string(operation) + " failures of " + entry.definition.name,
                  entry.definition.path() + " \"" + entry.definition.name + "\": " + operation +
                      " failed: " + what + "; answered Server Device Failure; " + fields());
    return ec::kServerDeviceFailure;
}

bool RequestHandler::mayReadTable(Table table) const {
    RequestOrigin const& origin = *m_origin;
    return origin.rules == nullptr || origin.rules->mayRead(table, origin.ipv4);
}

std::string RequestHandler::readRefusal(Table table,
                                        std::vector<ServedEntry*> const& entries) const {
    if (!mayReadTable(table)) {
        return "not allowed for this client";
    }
    RequestOrigin const& origin = *m_origin;
    for (ServedEntry const* entry : entries) {
        if (entry->definition.allowRead &&
            !listContains(*entry->definition.allowRead, origin.ipv4)) {
            return "entry " + quotedValue(entry->definition.name) + " not allowed for this client";
        }
    }
    return {};
}

std::string RequestHandler::writeRefusal(Table table,
                                         std::vector<ServedEntry*> const& entries) const {
    RequestOrigin const& origin = *m_origin;
    if (!origin.roleMayWrite) {
        return "the client's role is read-only";
    }
    if (origin.rules != nullptr && !origin.rules->mayWrite(table, origin.ipv4)) {
        return "not allowed for this client";
    }
    for (ServedEntry const* entry : entries) {
        if (entry->definition.allowWrite &&
            !listContains(*entry->definition.allowWrite, origin.ipv4)) {
            return "entry not allowed for this client";
        }
    }
    return {};
}

Answer RequestHandler::refuseRead(Answer answer, std::string const& why) {
    m_log.limited(Log::Level::Warning, refusedKind("reads", why),
                  "read of " + std::string(tableName(*tableOf(answer.function))) + " " +
                      std::to_string(answer.address) + ": refused (" + why + "); " + fields());
    return refuse(std::move(answer), ec::kIllegalFunction);
}

/* The entry's value before a write, as the audit line shows it. */
std::string RequestHandler::currentValue(ServedEntry const& entry) const {
    if (!entry.built()) {
        return "(pending)";
    }
    if (!available(entry)) {
        // Its encoder returns nothing, which would show as zeros: a value
        // the entry never served (clients read its unavailable value).
        return "(not available)";
    }
    try {
        if (entry.encoder.registers) {
            return readableValue(entry.definition, fitToSize(entry.encoder.registers->getData(),
                                                             entry.definition.size));
        }
        auto const bits = entry.encoder.discretes->getData();
        return readableValue(entry.definition,
                             fitToSize({bits.begin(), bits.end()}, entry.definition.size));
    } catch (std::exception const&) {
        return "?";
    }
}

void RequestHandler::audit(ServedEntry const& entry, std::string const& before,
                           std::vector<std::uint16_t> const& written, std::string const& outcome) {
    std::string const line =
        "write " + quotedValue(entry.definition.name) + " " + tableName(entry.definition.table) +
        " " + std::to_string(entry.definition.address) + ": " + before + " -> " +
        readableValue(entry.definition, written) + ": " + outcome + "; " + fields();
    // In the log, the first writes of each client to each entry a minute
    // line by line, the rest counted with the last one in full, so a master
    // stuck in a loop cannot fill the card's storage.
    AuditLine{m_auditTrail, &m_log,
              "writes of " + entry.definition.name + " by " + addressOf(m_origin->client)}(
        line, Log::Level::Info);
}

/* A write answered with an exception before any entry was asked: the trail
 * keeps it too (it holds every write a client attempts), the log only a few
 * a minute, since these are what a scan of the address space sends. */
Answer RequestHandler::rejectWrite(Answer answer, std::uint8_t code, char const* why) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02X", code);
    std::string const line = "write to " + std::string(tableName(*tableOf(answer.function))) + " " +
                             std::to_string(answer.address) + ": rejected (" + why +
                             "): answered " + hex + "; " + fields();
    AuditLine{m_auditTrail, &m_log, std::string("rejected writes: ") + why}(line,
                                                                            Log::Level::Warning);
    return refuse(answer, code);
}

void RequestHandler::auditRefused(ServedEntry const& entry,
                                  std::vector<std::uint16_t> const& written,
                                  std::string const& why) {
    std::string const line =
        "write " + quotedValue(entry.definition.name) + " " + tableName(entry.definition.table) +
        " " + std::to_string(entry.definition.address) + ": " + currentValue(entry) + " -> " +
        readableValue(entry.definition, written) + ": refused (" + why + "); " + fields();
    // In the log, refused writes are limited, so a stranger cannot flood it.
    AuditLine{m_auditTrail, &m_log, refusedKind("writes", why)}(line, Log::Level::Warning);
}

}  // namespace tarsel::daemon
