#include "ScenarioSource.h"

namespace tarsel::daemon {

bool ScenarioSource::update(Clock::time_point now) {
    std::size_t const before = m_player.played();
    m_player.playDue(now);
    return m_player.played() != before;
}

}  // namespace tarsel::daemon
