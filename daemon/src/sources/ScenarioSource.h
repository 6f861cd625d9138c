// The simulated world: a scenario played into the host data store.
#pragma once

#include "DataSource.h"
#include "Scenario.h"

namespace tarsel::daemon {

class ScenarioSource : public DataSource {
  public:
    ScenarioSource(Scenario scenario, cdshost::Store& store, Log& log)
        : m_player(std::move(scenario), store, log) {}

    void seed() override { m_player.seed(); }
    void start(Clock::time_point now) override { m_player.start(now); }
    std::optional<Clock::time_point> nextDue() const override { return m_player.nextDue(); }
    bool update(Clock::time_point now) override;

    ScenarioPlayer& player() { return m_player; }

  private:
    ScenarioPlayer m_player;
};

}  // namespace tarsel::daemon
