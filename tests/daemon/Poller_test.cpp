#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <future>
#include <mutex>
#include <thread>

#include "sources/nut/Poller.h"

namespace tarsel::daemon::nut {
namespace {

using namespace std::chrono_literals;

/* Answers what the test set last; can be held inside a round trip. */
class ScriptedFetcher : public Fetcher {
  public:
    struct Script {
        std::mutex mutex;
        std::condition_variable changed;
        Reading reading;
        bool held = false;
        std::atomic<int> entered{0};
        std::atomic<int> fetches{0};
    };

    explicit ScriptedFetcher(Script& script) : m_script(script) {}

    Reading fetch() override {
        ++m_script.entered;
        std::unique_lock<std::mutex> lock(m_script.mutex);
        m_script.changed.wait(lock, [this] { return !m_script.held; });
        ++m_script.fetches;
        return m_script.reading;
    }

  private:
    Script& m_script;
};

Reading fresh(std::string const& charge) {
    Reading reading;
    reading.state = Reading::State::Fresh;
    reading.variables = {{"battery.charge", charge}};
    return reading;
}

/* Waits, bounded, until the condition holds. */
template <typename Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 400; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

TEST(Poller, HandsTheFirstReadingAndWakesTheLoop) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    std::atomic<int> wakes{0};
    Poller poller(std::make_unique<ScriptedFetcher>(script), 5ms, [&] { ++wakes; });
    ASSERT_TRUE(eventually([&] { return wakes > 0; }));
    auto const reading = poller.take();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->variables.at("battery.charge"), "100");
}

TEST(Poller, ARepeatedReadingIsNotHandedAgain) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    std::atomic<int> wakes{0};
    Poller poller(std::make_unique<ScriptedFetcher>(script), 5ms, [&] { ++wakes; });
    ASSERT_TRUE(eventually([&] { return script.fetches >= 5; }));
    EXPECT_EQ(wakes, 1);
    EXPECT_TRUE(poller.take());
    EXPECT_FALSE(poller.take());
}

TEST(Poller, OnlyTheLatestReadingIsKept) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    Poller poller(std::make_unique<ScriptedFetcher>(script), 5ms, [] {});
    ASSERT_TRUE(eventually([&] { return script.fetches >= 1; }));
    {
        std::lock_guard<std::mutex> lock(script.mutex);
        script.reading = fresh("90");
    }
    int const before = script.fetches;
    ASSERT_TRUE(eventually([&] { return script.fetches >= before + 2; }));
    auto const reading = poller.take();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->variables.at("battery.charge"), "90");
}

TEST(Poller, AHungRoundTripDoesNotHoldUpTheTaker) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    script.held = true;
    auto poller = std::make_unique<Poller>(std::make_unique<ScriptedFetcher>(script), 5ms, [] {});
    ASSERT_TRUE(eventually([&] { return script.entered >= 1; }));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(poller->take());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms);
    {
        std::lock_guard<std::mutex> lock(script.mutex);
        script.held = false;
    }
    script.changed.notify_all();
    poller.reset();  // joins once the round trip is over
    EXPECT_GE(script.fetches, 1);
}

TEST(Poller, StateChangesAreHanded) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    std::atomic<int> wakes{0};
    Poller poller(std::make_unique<ScriptedFetcher>(script), 5ms, [&] { ++wakes; });
    ASSERT_TRUE(eventually([&] { return wakes == 1; }));
    poller.take();
    {
        std::lock_guard<std::mutex> lock(script.mutex);
        script.reading = Reading{};
        script.reading.state = Reading::State::Stale;
        script.reading.detail = "DATA-STALE";
    }
    ASSERT_TRUE(eventually([&] { return wakes == 2; }));
    auto const reading = poller.take();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->state, Reading::State::Stale);
}

TEST(Poller, PollersAskedToStopTogetherEndInOneRoundTrip) {
    ScriptedFetcher::Script first;
    ScriptedFetcher::Script second;
    first.held = second.held = true;
    auto a = std::make_unique<Poller>(std::make_unique<ScriptedFetcher>(first), 5ms, [] {});
    auto b = std::make_unique<Poller>(std::make_unique<ScriptedFetcher>(second), 5ms, [] {});
    ASSERT_TRUE(eventually([&] { return first.entered >= 1 && second.entered >= 1; }));
    a->requestStop();
    b->requestStop();
    for (auto* script : {&first, &second}) {
        {
            std::lock_guard<std::mutex> lock(script->mutex);
            script->held = false;
        }
        script->changed.notify_all();
    }
    a.reset();
    b.reset();
    EXPECT_EQ(first.fetches, 1) << "no poll after the stop was asked for";
    EXPECT_EQ(second.fetches, 1);
}

TEST(Poller, AJobRunsOnThePollersThreadAndAPollFollowsAtOnce) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    // A long interval: only the job can bring the next poll early.
    Poller poller(std::make_unique<ScriptedFetcher>(script), 10s, [] {});
    ASSERT_TRUE(eventually([&] { return script.fetches == 1; }));
    std::promise<std::thread::id> ran;
    ASSERT_TRUE(poller.submit([&] { ran.set_value(std::this_thread::get_id()); }, 4));
    auto done = ran.get_future();
    ASSERT_EQ(done.wait_for(2s), std::future_status::ready);
    EXPECT_NE(done.get(), std::this_thread::get_id());
    EXPECT_TRUE(eventually([&] { return script.fetches == 2; }));
}

TEST(Poller, JobsBeyondTheLimitAreRefusedWhileTheThreadIsBusy) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    script.held = true;  // the thread hangs in its first round trip
    Poller poller(std::make_unique<ScriptedFetcher>(script), 5ms, [] {});
    ASSERT_TRUE(eventually([&] { return script.entered == 1; }));
    std::atomic<int> runs{0};
    EXPECT_TRUE(poller.submit([&] { ++runs; }, 2));
    EXPECT_TRUE(poller.submit([&] { ++runs; }, 2));
    EXPECT_FALSE(poller.submit([&] { ++runs; }, 2));
    {
        std::lock_guard<std::mutex> lock(script.mutex);
        script.held = false;
    }
    script.changed.notify_all();
    EXPECT_TRUE(eventually([&] { return runs == 2; }));
}

/* The signal mask of the thread its first fetch runs on. */
class MaskFetcher : public Fetcher {
  public:
    explicit MaskFetcher(std::promise<sigset_t>& mask) : m_mask(mask) {}

    Reading fetch() override {
        if (!m_told) {
            sigset_t mask;
            sigemptyset(&mask);
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            m_mask.set_value(mask);
            m_told = true;
        }
        return Reading{};
    }

  private:
    std::promise<sigset_t>& m_mask;
    bool m_told = false;
};

bool blocks(sigset_t const& mask, int signal) {
    return sigismember(&mask, signal) == 1;
}

sigset_t ownMask() {
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

TEST(Poller, ItsThreadLeavesTheDaemonsSignalsToTheThreadThatStartedIt) {
    ASSERT_FALSE(blocks(ownMask(), SIGTERM)) << "the test needs a thread that takes SIGTERM";
    std::promise<sigset_t> mask;
    auto seen = mask.get_future();
    Poller poller(std::make_unique<MaskFetcher>(mask), 10s, [] {});
    ASSERT_EQ(seen.wait_for(10s), std::future_status::ready);
    sigset_t const polling = seen.get();
    for (int const signal : {SIGINT, SIGTERM, SIGUSR1, SIGHUP, SIGPIPE}) {
        EXPECT_TRUE(blocks(polling, signal)) << "signal " << signal;
    }
    // A fault on the poller's own thread is still its own to raise.
    EXPECT_FALSE(blocks(polling, SIGSEGV));
    // The thread that started the poller keeps its mask.
    EXPECT_FALSE(blocks(ownMask(), SIGTERM));
}

}  // namespace
}  // namespace tarsel::daemon::nut
