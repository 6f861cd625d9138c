// Pieces shared by the two composite encoders (registers and discretes), which
// take over a whole vector of raw data accessors and read them together.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "kq/value.h"
#include "modbus/CdsDataAccessor.h"
#include "registers/encoder_support.h"

namespace modbus::detail {

/* Deletes the raw data accessors from index `first` on: the ones a composite
 * could not adopt because an allocation failed before their turn. */
inline void deleteDataAccessorsFrom(std::vector<CdsDataAccessor*> const& raws, std::size_t first) {
    for (std::size_t i = first; i < raws.size(); ++i) {
        std::unique_ptr<CdsDataAccessor> const discarded(raws[i]);
    }
}

/* Takes ownership of every raw data accessor of a composite, in order. If an
 * allocation fails on the way, every accessor is still deleted exactly once:
 * those already adopted when the returned vector unwinds, the failing one by
 * adoptDataAccessor(), the rest here. */
inline std::vector<std::shared_ptr<CdsDataAccessor>> adoptDataAccessors(
    std::vector<CdsDataAccessor*> const& raws) {
    std::vector<std::shared_ptr<CdsDataAccessor>> owned;
    try {
        owned.reserve(raws.size());
    } catch (...) {
        deleteDataAccessorsFrom(raws, 0);
        throw;
    }
    for (std::size_t i = 0; i < raws.size(); ++i) {
        try {
            owned.push_back(adoptDataAccessor(raws[i]));  // no reallocation: reserved above
        } catch (...) {
            deleteDataAccessorsFrom(raws, i + 1);
            throw;
        }
    }
    return owned;
}

/* Makes `composite` the one update listener of each source: source i pushes
 * its values to composite->callbackCdsEvent(value, i), so the composite knows
 * which entry of its cache the value belongs to. The sources are owned by the
 * composite, so the bindings die with it. */
template <typename Composite>
void listenToSources(std::vector<std::shared_ptr<CdsDataAccessor>> const& sources,
                     Composite* composite) {
    for (std::size_t i = 0; i < sources.size(); ++i) {
        auto const index = static_cast<unsigned int>(i);
        sources[i]->setUpdateCallback([composite, index](kq::CValue const& value) {
            composite->callbackCdsEvent(value, index);
        });
    }
}

/* The current value of every source, read fresh and in source order. No
 * existence test is made: a missing source contributes whatever its
 * getCValue() gives in that state. */
inline std::vector<kq::CValue> readAll(
    std::vector<std::shared_ptr<CdsDataAccessor>> const& sources) {
    std::vector<kq::CValue> values(sources.size());
    for (std::size_t i = 0; i < sources.size(); ++i) {
        values[i] = sources[i]->getCValue();
    }
    return values;
}

/* Writes value i to source i, in order, for every value. The access is
 * bounds-tested: when there are more values than sources, the sources are
 * written first and std::out_of_range is thrown for the first excess value.
 * Fewer values leave the remaining sources alone. */
inline void writeInOrder(std::vector<std::shared_ptr<CdsDataAccessor>> const& sources,
                         std::vector<kq::CValue> const& values) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        sources.at(i)->setCValue(values[i]);
    }
}

}  // namespace modbus::detail
