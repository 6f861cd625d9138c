#include "AttributeRefresh.h"

#include "DeviceLookup.h"

namespace tarsel::daemon {

namespace {

bool readsAttribute(EntryDefinition const& definition) {
    for (auto const& source : definition.sources) {
        if (source.kind == SourceKind::Attribute) {
            return true;
        }
    }
    return false;
}

}  // namespace

AttributeRefresh::AttributeRefresh(ServedMap& map) : m_map(map) {
    for (auto const& entry : map.entries()) {
        if (readsAttribute(entry->definition)) {
            m_watched.push_back({entry.get(), Clock::time_point{}});
        }
    }
}

bool AttributeRefresh::lostAttribute(ServedEntry const& entry) {
    if (!entry.built()) {
        return false;  // pending: building it is the pending retry's job
    }
    auto const& sources = entry.encoder.sources;
    for (std::size_t i = 0; i < sources.size() && i < entry.definition.sources.size(); ++i) {
        if (entry.definition.sources[i].kind == SourceKind::Attribute &&
            !sources[i]->isExitingInCds()) {
            return true;
        }
    }
    return false;
}

bool AttributeRefresh::devicesPresent(ServedEntry const& entry) {
    auto const& sources = entry.encoder.sources;
    for (std::size_t i = 0; i < sources.size() && i < entry.definition.sources.size(); ++i) {
        SourceDefinition const& source = entry.definition.sources[i];
        if (source.kind == SourceKind::Attribute && !sources[i]->isExitingInCds() &&
            !findDevice(source.device)) {
            // Gone for real: its accessor waits for its creation by itself.
            return false;
        }
    }
    return true;
}

std::size_t AttributeRefresh::run(Clock::time_point now) {
    std::size_t rebuilt = 0;
    std::optional<Clock::time_point> next;
    for (Watched& watched : m_watched) {
        if (!lostAttribute(*watched.entry)) {
            // Its device is there again: a request that meets the next change
            // looks it up at once.
            m_map.endDeviceLookupWait(*watched.entry);
            continue;
        }
        if (rebuilt < kMaxPerRun && now >= watched.next) {
            // Asking the data store is rate-limited too, for a device that is
            // gone as much as for one that changes all the time.
            watched.next = now + kMinInterval;
            if (devicesPresent(*watched.entry)) {
                m_map.rebuild(*watched.entry);
                ++rebuilt;
                if (!lostAttribute(*watched.entry)) {
                    continue;
                }
            }
        }
        if (!next || watched.next < *next) {
            next = watched.next;
        }
    }
    m_ran = true;
    m_dueAfterRun = next;
    return rebuilt;
}

bool AttributeRefresh::stale(ServedEntry const& entry) {
    return lostAttribute(entry) && devicesPresent(entry);
}

bool AttributeRefresh::staleOnRequest(ServedMap& map, ServedEntry const& entry) {
    if (!lostAttribute(entry)) {
        return false;
    }
    Clock::time_point const now = Clock::now();
    if (now < map.deviceLookupWait(entry)) {
        return false;
    }
    if (devicesPresent(entry)) {
        return true;
    }
    map.waitForDeviceLookup(entry, now + kMinInterval);
    return false;
}

std::optional<AttributeRefresh::Clock::time_point> AttributeRefresh::due() const {
    std::optional<Clock::time_point> next;
    for (Watched const& watched : m_watched) {
        if (lostAttribute(*watched.entry) && (!next || watched.next < *next)) {
            next = watched.next;
        }
    }
    return next;
}

std::optional<AttributeRefresh::Clock::time_point> AttributeRefresh::dueAfterLastRun() const {
    return m_ran ? m_dueAfterRun : due();
}

}  // namespace tarsel::daemon
