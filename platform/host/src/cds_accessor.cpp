// Host implementation of the data-store client connection.
#include "cdsapi/cds_accessor.h"

#include <string>

#include "cdshost/store.h"
#include "store_impl.h"

namespace cdsapi {

namespace {

using Impl = cdshost::Store::Impl;
using Events = Impl::Events;

Impl& store() {
    return cdshost::Store::instance().impl();
}

}  // namespace

CdsAccessor::CdsAccessor(std::string const& clientName, bool inBand) : m_inBand(clientName) {
    // The host store has only the in-process, in-band way of talking to it.
    (void)inBand;
    // Counted as a connection only once it has succeeded; a failed attempt
    // still shows in calls("CdsAccessor").
    store().clientCall(cdshost::Operation::CdsAccessor, std::nullopt,
                       [&](Events&) { ++store().connectionCount[clientName]; });
}

// The host store keeps a client's subscriptions open after the client is
// gone, like a store that has not noticed the disconnection yet.
CdsAccessor::~CdsAccessor() = default;

unsigned long long CdsAccessor::getDeviceByName(std::string const& name) {
    return store().clientCall(cdshost::Operation::getDeviceByName, std::nullopt, [&](Events&) {
        auto const answer = store().nameAnswers.find(name);
        if (answer != store().nameAnswers.end()) {
            return answer->second;
        }
        auto const id = store().deviceByNameLocked(name);
        if (!id) {
            throw cdshost::NotFound("no device named \"" + name + "\"");
        }
        return *id;
    });
}

}  // namespace cdsapi
