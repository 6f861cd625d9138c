// What one poll of a UPS found, handed from the poller's thread to the loop.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "NutNames.h"

namespace tarsel::daemon::nut {

struct Reading {
    enum class State {
        Fresh,        // upsd answered LIST VAR: the variables are current
        Stale,        // upsd knows the UPS but its driver gave no fresh data
        Unknown,      // upsd does not know the UPS (removed from ups.conf)
        Unreachable,  // no answer from upsd (down, restarting, hung)
    };

    State state = State::Unreachable;
    Variables variables;  // Fresh only
    // The instant commands upsd offers for the UPS (Fresh only).
    std::vector<std::string> commands;
    std::string detail;  // why, when not Fresh
    std::chrono::steady_clock::time_point fetched{};

    /* The same news as another reading (the time of fetching aside). */
    bool sameAs(Reading const& other) const {
        return state == other.state && variables == other.variables && commands == other.commands &&
               detail == other.detail;
    }
};

char const* stateName(Reading::State state);

}  // namespace tarsel::daemon::nut
