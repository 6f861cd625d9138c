// What the data sources report to the health and metrics endpoint:
// freshness, polls and their latencies.
#include <gtest/gtest.h>

#include <mutex>
#include <sstream>
#include <thread>

#include "sources/ScenarioSource.h"
#include "sources/nut/NutSource.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;

/* Answers whatever the test set last, on the poller's thread. */
class SettableFetcher : public nut::Fetcher {
  public:
    explicit SettableFetcher(std::shared_ptr<std::pair<std::mutex, nut::Reading>> shared)
        : m_shared(std::move(shared)) {}
    nut::Reading fetch() override {
        std::lock_guard<std::mutex> lock(m_shared->first);
        return m_shared->second;
    }

  private:
    std::shared_ptr<std::pair<std::mutex, nut::Reading>> m_shared;
};

class NutSourceStatusTest : public ::testing::Test {
  protected:
    NutSourceStatusTest() {
        cdshost::Store::instance().reset();
        set(nut::Reading::State::Fresh, "");
        nut::SourceConfig config;
        config.upses.push_back(nut::parseEndpoint("bench@127.0.0.1:3493"));
        config.interval = 10ms;
        m_source = std::make_unique<nut::Source>(
            config, cdshost::Store::instance(), m_log,
            [this](nut::Endpoint const&) { return std::make_unique<SettableFetcher>(m_reading); });
    }

    void set(nut::Reading::State state, std::string const& detail) {
        std::lock_guard<std::mutex> lock(m_reading->first);
        m_reading->second.state = state;
        m_reading->second.detail = detail;
        m_reading->second.variables = {{"ups.status", "OL"}};
    }

    /* Waits (bounded) until the source's status satisfies the condition. */
    template <typename Condition>
    SourceStatus waitFor(Condition condition) {
        SourceStatus status = m_source->status(DataSource::Clock::now());
        for (int i = 0; i < 400 && !condition(status); ++i) {
            std::this_thread::sleep_for(5ms);
            status = m_source->status(DataSource::Clock::now());
        }
        return status;
    }

    std::ostringstream m_text;
    Log m_log{m_text};
    std::shared_ptr<std::pair<std::mutex, nut::Reading>> m_reading =
        std::make_shared<std::pair<std::mutex, nut::Reading>>();
    std::unique_ptr<nut::Source> m_source;
};

TEST_F(NutSourceStatusTest, NotFreshBeforeThePollersStart) {
    SourceStatus const status = m_source->status(DataSource::Clock::now());
    EXPECT_FALSE(status.fresh);
    EXPECT_EQ(status.detail, "bench@127.0.0.1:3493: not polled yet");
    EXPECT_EQ(status.polls, 0u);
}

TEST_F(NutSourceStatusTest, FreshPollsAreCountedWithOneLatencyEach) {
    m_source->start(DataSource::Clock::now());
    SourceStatus const status = waitFor([](SourceStatus const& s) { return s.polls >= 3; });
    EXPECT_TRUE(status.fresh) << status.detail;
    EXPECT_GE(status.polls, 3u);
    EXPECT_EQ(status.pollLatency.count, status.polls);
    EXPECT_EQ(status.pollLatency.bounds, pollLatencyBounds());
    // A fetch that answers at once lands in the first bucket.
    EXPECT_GE(status.pollLatency.counts.front(), 1u);
}

TEST_F(NutSourceStatusTest, AStalePollMakesTheSourceStaleWithUpsdsReason) {
    m_source->start(DataSource::Clock::now());
    ASSERT_TRUE(waitFor([](SourceStatus const& s) { return s.fresh; }).fresh);
    set(nut::Reading::State::Stale, "Driver not connected");
    SourceStatus const status = waitFor([](SourceStatus const& s) { return !s.fresh; });
    EXPECT_FALSE(status.fresh);
    EXPECT_EQ(status.detail, "bench@127.0.0.1:3493: stale: Driver not connected");
    set(nut::Reading::State::Fresh, "");
    EXPECT_TRUE(waitFor([](SourceStatus const& s) { return s.fresh; }).fresh);
}

TEST_F(NutSourceStatusTest, APollerThatStoppedPollingIsStale) {
    m_source->start(DataSource::Clock::now());
    ASSERT_TRUE(waitFor([](SourceStatus const& s) { return s.fresh; }).fresh);
    // Three 10 ms intervals and the 10 s margin later, with no poll since.
    SourceStatus const status = m_source->status(DataSource::Clock::now() + 11s);
    EXPECT_FALSE(status.fresh);
    EXPECT_NE(status.detail.find("no poll has ended for 1"), std::string::npos) << status.detail;
}

TEST(ScenarioSourceStatusTest, AScenarioIsAlwaysFreshAndPollsNothing) {
    cdshost::Store::instance().reset();
    std::ostringstream text;
    Log log(text);
    ScenarioSource source(parseScenario(R"({"devices": []})"), cdshost::Store::instance(), log);
    SourceStatus const status = source.status(DataSource::Clock::now());
    EXPECT_TRUE(status.fresh);
    EXPECT_EQ(status.polls, 0u);
    EXPECT_EQ(status.pollLatency.count, 0u);
}

}  // namespace
}  // namespace tarsel::daemon
