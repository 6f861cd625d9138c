#include "ServedMap.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "DeviceLookup.h"
#include "LogText.h"
#include "modbus/CdsStringAccessor.h"

namespace tarsel::daemon {

namespace {

constexpr std::uint8_t kIllegalDataAddress = 2;

std::string label(EntryDefinition const& definition) {
    return definition.path() + " \"" + definition.name + "\"";
}

}  // namespace

std::vector<std::uint16_t> fitToSize(std::vector<std::uint16_t> words, std::size_t size) {
    fitInPlace(words, size);
    return words;
}

void fitInPlace(std::vector<std::uint16_t>& words, std::size_t size) {
    words.resize(size, 0);
}

ServedMap::ServedMap(RegisterMapDefinition const& definition, Log& log)
    : m_log(log), m_identification(definition.identification) {
    // Sized once: a map of thousands of entries keeps these for as long as
    // it is served, and growing by doubling would leave up to half unused.
    m_entries.reserve(definition.entries.size());
    std::array<std::size_t, 4> perTable{};
    for (auto const& entry : definition.entries) {
        ++perTable[static_cast<std::size_t>(entry.table)];
    }
    for (std::size_t table = 0; table < perTable.size(); ++table) {
        m_index[table].reserve(perTable[table]);
        m_starts[table].reserve(perTable[table]);
    }
    for (auto const& entry : definition.entries) {
        add(entry);
    }
}

ServedMap::~ServedMap() {
    while (!m_entries.empty()) {
        m_entries.pop_back();
    }
}

void ServedMap::add(EntryDefinition const& definition) {
    auto entry = std::make_unique<ServedEntry>(definition);
    if (auto failure = tryBuild(*entry)) {
        // A device attribute found by name needs its device when it is built,
        // and the daemon usually starts before the UPS is detected: the entry
        // keeps its addresses and answers as unavailable until it can be built.
        m_log.warning(label(definition) + " cannot be built yet: " + *failure +
                      "; served as unavailable, retried every second");
        m_pendingReasons[entry.get()] = std::move(*failure);
        ++m_pending;
    }
    index(*entry);
    m_entries.push_back(std::move(entry));
}

/* Builds the entry's encoder and installs its listener; on failure the entry
 * is left without an encoder and the reason is returned. */
std::optional<std::string> ServedMap::tryBuild(ServedEntry& entry) {
    std::optional<std::string> failure;
    try {
        entry.encoder = makeEncoder(entry.definition);
        listen(entry);
    } catch (std::exception const& error) {
        failure = error.what();
    } catch (...) {
        // A foreign exception from the data store must not end the daemon:
        // the next retry may well succeed.
        failure = "an exception that is not a std::exception";
    }
    if (failure) {
        // A half-wired encoder leaves the data store at once, and nothing it
        // may have pushed is kept but the count: pushes_total never goes down.
        entry.encoder = BuiltEncoder{};
        std::uint64_t const pushes = entry.image.pushes;
        entry.image = PushImage{};
        entry.image.pushes = pushes;
        return failure;
    }
    seedImage(entry);
    return std::nullopt;
}

/* Keeps the table's entries in address order; maps list them in order, so
 * this is an append. An entry at an address already indexed replaces it. */
void ServedMap::index(ServedEntry& entry) {
    auto const table = static_cast<std::size_t>(entry.definition.table);
    auto& entries = m_index[table];
    auto& starts = m_starts[table];
    m_readListed[table] = m_readListed[table] || entry.definition.allowRead.has_value();
    std::uint16_t const address = entry.definition.address;
    auto const at = std::lower_bound(starts.begin(), starts.end(), address);
    auto const position = at - starts.begin();
    if (at != starts.end() && *at == address) {
        entries[static_cast<std::size_t>(position)] = &entry;
    } else {
        starts.insert(at, address);
        entries.insert(entries.begin() + position, &entry);
    }
}

std::size_t ServedMap::buildPending() {
    std::size_t built = 0;
    for (auto const& entry : m_entries) {
        if (entry->built()) {
            continue;
        }
        if (auto failure = tryBuild(*entry)) {
            // Logged once when the entry became pending; a retry that fails
            // again only keeps the latest reason for the description.
            m_pendingReasons[entry.get()] = std::move(*failure);
            continue;
        }
        m_pendingReasons.erase(entry.get());
        --m_pending;
        m_log.info(label(entry->definition) + " built; served from now on");
        ++built;
    }
    return built;
}

void ServedMap::rebuild(ServedEntry& entry) {
    // The old data accessors leave the data store before the new ones join.
    bool const wasBuilt = entry.built();
    entry.encoder = BuiltEncoder{};
    if (auto failure = tryBuild(entry)) {
        m_log.warning(label(entry.definition) + " cannot be built again: " + *failure +
                      "; served as unavailable, retried every second");
        m_pendingReasons[&entry] = std::move(*failure);
        m_pending += wasBuilt ? 1 : 0;
        return;
    }
    m_pending -= wasBuilt ? 0 : 1;
    m_pendingReasons.erase(&entry);
    m_log.limited(Log::Level::Info, "rebuilds of " + entry.definition.name,
                  label(entry.definition) + " rebuilt after a change of its device; " +
                      readableValue(entry.definition, entry.image.words.vector()));
}

std::string ServedMap::pendingReason(ServedEntry const& entry) const {
    auto const reason = m_pendingReasons.find(&entry);
    return reason == m_pendingReasons.end() ? std::string() : reason->second;
}

std::chrono::steady_clock::time_point ServedMap::deviceLookupWait(ServedEntry const& entry) const {
    auto const wait = m_deviceLookupWaits.find(&entry);
    return wait == m_deviceLookupWaits.end() ? std::chrono::steady_clock::time_point{}
                                             : wait->second;
}

void ServedMap::waitForDeviceLookup(ServedEntry const& entry,
                                    std::chrono::steady_clock::time_point until) {
    m_deviceLookupWaits[&entry] = until;
}

IdentificationTexts ServedMap::identification() const {
    IdentificationTexts texts;
    for (auto const& object : m_identification) {
        std::optional<std::string> read;
        if (object.source) {
            read = readSourceText(*object.source);
        }
        texts[object.id] = read && !read->empty() ? *read : object.text;
    }
    return texts;
}

void ServedMap::listen(ServedEntry& entry) {
    if (entry.definition.encoder == EncoderKind::String) {
        // The string encoder does not subscribe itself; route its data
        // accessor's updates to it so strings are pushed like every value.
        // Wired before the listener, so the data accessor's immediate call with
        // the current value is not counted as a push, as for the other encoders.
        auto* encoder = static_cast<modbus::CdsStringAccessor*>(entry.encoder.registers.get());
        entry.encoder.sources[0]->setUpdateCallback(
            [encoder](kq::CValue const& value) { encoder->callbackCdsEvent(value); });
    }
    ServedEntry* target = &entry;
    if (auto* registers = entry.encoder.registers.get()) {
        registers->setCallback(
            [this, target](std::vector<uint16_t> const& words) { recordPush(*target, words); });
    } else {
        entry.encoder.discretes->setCallback([this, target](std::vector<uint8_t> const& bits) {
            recordPush(*target, std::vector<std::uint16_t>(bits.begin(), bits.end()));
        });
    }
}

void ServedMap::seedImage(ServedEntry& entry) {
    try {
        auto const& encoder = entry.encoder;
        bool const available = encoder.registers ? encoder.registers->isDataAvailable()
                                                 : encoder.discretes->isDataAvailable();
        if (!available) {
            return;
        }
        std::vector<std::uint16_t> words;
        if (encoder.registers) {
            words = encoder.registers->getData();
        } else {
            auto const bits = encoder.discretes->getData();
            words.assign(bits.begin(), bits.end());
        }
        entry.image.words = fitToSize(std::move(words), entry.definition.size);
    } catch (std::exception const& error) {
        m_log.warning(label(entry.definition) + ": first read failed: " + error.what());
    }
}

namespace {

/* Discretes (states, alarms) and strings (identification) change rarely and
 * matter to whoever watches the log; numbers change all the time and are
 * logged only in verbose mode. */
bool changeIsWorthAnInfoLine(EntryDefinition const& definition) {
    return !isRegisterTable(definition.table) || definition.encoder == EncoderKind::String;
}

}  // namespace

std::string readableValue(EntryDefinition const& definition,
                          std::vector<std::uint16_t> const& words) {
    if (!isRegisterTable(definition.table)) {
        std::string bits;
        for (std::uint16_t const bit : words) {
            bits += bit != 0 ? '1' : '0';
        }
        return bits;
    }
    if (definition.encoder != EncoderKind::String) {
        return hexWords(words);
    }
    std::string text;
    for (std::uint16_t const word : words) {
        for (auto const byte : {static_cast<char>(word >> 8), static_cast<char>(word & 0xFF)}) {
            if (byte == '\0') {
                return quotedValue(text);
            }
            text += byte;
        }
    }
    return quotedValue(text);
}

void ServedMap::recordPush(ServedEntry& entry, std::vector<std::uint16_t> words) {
    std::vector<std::uint16_t> fitted = fitToSize(std::move(words), entry.definition.size);
    if (entry.image.known() && fitted != entry.image.words &&
        changeIsWorthAnInfoLine(entry.definition)) {
        // Clients can change a string or a coil as often as they like.
        m_log.limited(Log::Level::Info, "changes of " + entry.definition.name,
                      std::string(tableName(entry.definition.table)) + " " +
                          std::to_string(entry.definition.address) + " \"" + entry.definition.name +
                          "\": " + readableValue(entry.definition, entry.image.words.vector()) +
                          " -> " + readableValue(entry.definition, fitted));
    }
    entry.image.words = std::move(fitted);
    ++entry.image.pushes;
    if (!m_log.verbose()) {
        return;  // the line below is for verbose mode only: not even built
    }
    m_log.debug("push " + std::string(tableName(entry.definition.table)) + " " +
                std::to_string(entry.definition.address) + " \"" + entry.definition.name + "\" " +
                hexWords(entry.image.words.vector()) + " (#" + std::to_string(entry.image.pushes) +
                ")");
}

std::uint64_t ServedMap::totalPushes() const {
    std::uint64_t total = 0;
    for (auto const& entry : m_entries) {
        total += entry->image.pushes;
    }
    return total;
}

Coverage ServedMap::cover(Table table, std::uint16_t address, std::uint16_t quantity,
                          bool write) const {
    Coverage result;
    cover(table, address, quantity, write, result);
    return result;
}

void ServedMap::cover(Table table, std::uint16_t address, std::uint16_t quantity, bool write,
                      Coverage& result) const {
    result.entries.clear();
    result.exception = 0;
    auto const& index = m_index[static_cast<std::size_t>(table)];
    auto const& starts = m_starts[static_cast<std::size_t>(table)];
    if (index.empty() || quantity == 0) {
        result.exception = kIllegalDataAddress;
        return;
    }
    std::uint32_t const end = std::uint32_t{address} + quantity;
    // The first entry that starts after `address`.
    auto first = std::upper_bound(starts.begin(), starts.end(), address);
    if (first != starts.begin()) {
        ServedEntry const* before = index[static_cast<std::size_t>(first - starts.begin()) - 1];
        if (before->definition.address < address && before->definition.end() > address) {
            result.exception = kIllegalDataAddress;  // starts inside an entry
            return;
        }
        if (before->definition.address == address) {
            --first;
        }
    }
    // The covered entries are one run of the index, found by a second binary
    // search and copied at once (a range of 125 registers is up to 125
    // entries); only a write looks at each of them, for holes. Entries start
    // at distinct addresses, so at most `quantity` of them start in the
    // range: the search looks no further.
    auto const bound = starts.end() - first > quantity ? first + quantity : starts.end();
    auto const last = std::lower_bound(
        first, bound, end, [](std::uint16_t start, std::uint32_t a) { return start < a; });
    result.entries.assign(index.begin() + (first - starts.begin()),
                          index.begin() + (last - starts.begin()));
    bool hole = false;
    if (write) {
        std::uint32_t expected = address;  // where the next entry must start
        for (ServedEntry const* entry : result.entries) {
            hole = hole || entry->definition.address != expected;
            expected = entry->definition.end();
        }
        hole = hole || expected != end;
    }
    // The last entry runs past the range.
    bool const endsInside =
        !result.entries.empty() && result.entries.back()->definition.end() > end;
    if (result.entries.empty() || endsInside || (write && hole)) {
        result.entries.clear();
        result.exception = kIllegalDataAddress;
    }
}

}  // namespace tarsel::daemon
