// The register map being served: one encoder per entry, an index per table
// for request ranges, and the live image that the encoders' pushes keep.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "DeviceIdentification.h"
#include "EncoderFactory.h"
#include "ImageWords.h"
#include "Log.h"
#include "MapModel.h"

namespace tarsel::daemon {

/* What the encoder of an entry last pushed. Discretes are one word (0 or 1)
 * per discrete. */
struct PushImage {
    // Empty until a read at start-up or a push filled it; then the entry's
    // size (at least one word), so its being known needs no flag of its own.
    ImageWords words;
    std::uint64_t pushes = 0;  // pushes received since the map was built, rebuilds included

    bool known() const { return !words.empty(); }
};

/* One entry of the map as served. A map of thousands of entries keeps one of
 * these each, on the heap: its fields are laid out so that it stays within
 * 192 bytes on 64-bit targets, mimalloc's size class of that many bytes
 * (one more byte takes its next class, 224; glibc's allocator rounds to 16). */
struct ServedEntry {
    explicit ServedEntry(EntryDefinition s) : definition(std::move(s)) {}

    /* False while the entry is pending: its encoder could not be built yet
     * (a device found by name that is not there yet). */
    bool built() const { return encoder.registers || encoder.discretes; }

    EntryDefinition const definition;
    PushImage image;
    // Declared last so it is destroyed first: the encoder's listener writes
    // into `image`, and the data accessors must leave the data store before
    // anything they could call back into goes away.
    BuiltEncoder encoder;
};

/* The entries that a request range covers, or the exception that refuses it. */
struct Coverage {
    std::vector<ServedEntry*> entries;  // in address order
    std::uint8_t exception = 0;         // 0 when the range may be served
};

class ServedMap {
  public:
    /* Builds every encoder, installs the push listeners and fills the image
     * with one read of each available entry. An entry whose encoder cannot
     * be built yet keeps its place as a pending entry, served as unavailable
     * until buildPending() succeeds for it. */
    ServedMap(RegisterMapDefinition const& definition, Log& log);
    /* Destroys the encoders, last entry first, and with them every data
     * accessor and its data-store subscriptions. */
    ~ServedMap();

    ServedMap(ServedMap const&) = delete;
    ServedMap& operator=(ServedMap const&) = delete;

    std::vector<std::unique_ptr<ServedEntry>> const& entries() const { return m_entries; }

    /* The entries of [address, address + quantity). A range that touches no
     * entry, or starts or ends inside one, is Illegal Data Address; so is a
     * write that covers an unmapped address (reads see holes as 0). */
    Coverage cover(Table table, std::uint16_t address, std::uint16_t quantity, bool write) const;
    /* The same into `result`, whose vector keeps its capacity from one
     * request to the next: the request path allocates nothing here. */
    void cover(Table table, std::uint16_t address, std::uint16_t quantity, bool write,
               Coverage& result) const;

    std::uint64_t totalPushes() const;

    /* Whether any entry of the table has an allow list for reads: when none
     * has, a read's entries need not be checked one by one. */
    bool hasReadLists(Table table) const { return m_readListed[static_cast<std::size_t>(table)]; }

    /* Entries whose encoder is not built yet (counted as they change, so
     * asking costs nothing however large the map). */
    std::size_t pendingCount() const { return m_pending; }
    /* Why the last attempt to build the entry's encoder failed; empty once
     * built. */
    std::string pendingReason(ServedEntry const& entry) const;
    /* Tries once more to build every pending entry; returns how many were
     * built. Call it on the thread that serves the map: building installs
     * data-store subscriptions and listeners. */
    std::size_t buildPending();

    /* The texts Read Device Identification answers now: each object's
     * source as read from the data store, or its text when the source
     * cannot be read or reads empty. Empty without an identification
     * section. */
    IdentificationTexts identification() const;

    /* Destroys the entry's encoder and builds it again, as at start-up; on
     * failure the entry is pending. Never from a callback of that encoder. */
    void rebuild(ServedEntry& entry);

    /* Until when requests that meet `entry` do not look its device up again
     * (see AttributeRefresh::staleOnRequest); the epoch when they may. Held
     * apart from the entries: only entries whose device is gone have one. */
    std::chrono::steady_clock::time_point deviceLookupWait(ServedEntry const& entry) const;
    void waitForDeviceLookup(ServedEntry const& entry, std::chrono::steady_clock::time_point until);
    void endDeviceLookupWait(ServedEntry const& entry) { m_deviceLookupWaits.erase(&entry); }

  private:
    void add(EntryDefinition const& definition);
    void index(ServedEntry& entry);
    std::optional<std::string> tryBuild(ServedEntry& entry);
    void listen(ServedEntry& entry);
    void seedImage(ServedEntry& entry);
    void recordPush(ServedEntry& entry, std::vector<std::uint16_t> words);

    Log& m_log;
    std::vector<std::unique_ptr<ServedEntry>> m_entries;
    // Per table, the entries in address order: a request range is one binary
    // search and a walk over neighbours in memory.
    std::array<std::vector<ServedEntry*>, 4> m_index;
    // Per table, the first address of each entry of m_index, in the same
    // order: the searches of a request read these few packed words instead
    // of an entry (a cache line of its own) at every step.
    std::array<std::vector<std::uint16_t>, 4> m_starts;
    // Per table, whether an entry of it has its own allow list for reads.
    std::array<bool, 4> m_readListed{};
    // Entries without an encoder; add(), buildPending() and rebuild() keep it.
    std::size_t m_pending = 0;
    std::vector<IdentificationObjectDefinition> m_identification;
    std::map<ServedEntry const*, std::chrono::steady_clock::time_point> m_deviceLookupWaits;
    // The reasons of pending entries, held apart from the entries as the
    // waits above: a served map's entries are built nearly always.
    std::unordered_map<ServedEntry const*, std::string> m_pendingReasons;
};

/* A value as people read it: discretes as 0/1 digits, strings as their
 * quoted text up to the first zero byte, anything else in hex. */
std::string readableValue(EntryDefinition const& definition,
                          std::vector<std::uint16_t> const& words);

/* Pads with zeros or cuts to the entry's size: strings and composites may
 * produce another length than the registers they reserve. */
std::vector<std::uint16_t> fitToSize(std::vector<std::uint16_t> words, std::size_t size);
/* The same in place, for a vector the caller owns: nothing is copied. */
void fitInPlace(std::vector<std::uint16_t>& words, std::size_t size);

}  // namespace tarsel::daemon
