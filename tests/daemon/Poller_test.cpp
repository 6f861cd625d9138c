#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
        std::atomic<int> interrupts{0};
    };

    explicit ScriptedFetcher(Script& script) : m_script(script) {}

    Reading fetch() override {
        ++m_script.entered;
        std::unique_lock<std::mutex> lock(m_script.mutex);
        m_script.changed.wait(lock, [this] { return !m_script.held; });
        ++m_script.fetches;
        return m_script.reading;
    }

    /* As a shut-down socket does: the round trip held ends at once. */
    void interrupt() override {
        ++m_script.interrupts;
        {
            std::lock_guard<std::mutex> lock(m_script.mutex);
            m_script.held = false;
        }
        m_script.changed.notify_all();
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

TEST(Poller, ARoundTripBeyondItsBoundIsInterruptedAndHandedAsUnreachable) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");  // what the interrupted round trip returns
    script.held = true;
    std::atomic<int> wakes{0};
    Poller poller(
        std::make_unique<ScriptedFetcher>(script), 10s, [&] { ++wakes; }, 50ms);
    ASSERT_TRUE(eventually([&] { return wakes == 1; }));
    EXPECT_EQ(script.interrupts, 1);
    auto const reading = poller.take();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->state, Reading::State::Unreachable);
    EXPECT_TRUE(reading->variables.empty());
    EXPECT_EQ(reading->detail, "no whole answer within 0.05 s");
    EXPECT_EQ(poller.status().lastState, Reading::State::Unreachable);
}

TEST(Poller, ARoundTripWithinItsBoundIsNotInterrupted) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    Poller poller(
        std::make_unique<ScriptedFetcher>(script), 5ms, [] {}, 2s);
    ASSERT_TRUE(eventually([&] { return script.fetches >= 20; }));
    EXPECT_EQ(script.interrupts, 0);
    auto const reading = poller.take();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->state, Reading::State::Fresh);
}

TEST(Poller, AStopInterruptsTheRoundTripInProgressAndHandsNothing) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    script.held = true;
    std::atomic<int> wakes{0};
    auto poller = std::make_unique<Poller>(
        std::make_unique<ScriptedFetcher>(script), 5ms, [&] { ++wakes; }, 60s);
    ASSERT_TRUE(eventually([&] { return script.entered == 1; }));
    auto const start = std::chrono::steady_clock::now();
    poller.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(script.interrupts, 1);
    EXPECT_EQ(wakes, 0);
}

TEST(Poller, WritesThatKeepComingDoNotKeepPollsWaiting) {
    // Each job is followed by a poll before the next one: a master that
    // writes without pause to a UPS whose upsd hangs must not keep the
    // UPS's old values from being found out.
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    std::mutex mutex;
    std::vector<std::string> order;
    Poller poller(std::make_unique<ScriptedFetcher>(script), 10s, [] {});
    ASSERT_TRUE(eventually([&] { return script.fetches == 1; }));
    std::promise<void> hold;
    std::shared_future<void> const held = hold.get_future().share();
    // The first job holds the thread until the others are queued behind it.
    ASSERT_TRUE(poller.submit([&, held] { held.wait(); }, 8));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(poller.submit(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                order.push_back("job after " + std::to_string(script.fetches.load()) + " polls");
            },
            8));
    }
    hold.set_value();
    ASSERT_TRUE(eventually([&] { return script.fetches >= 5; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(order, (std::vector<std::string>{"job after 2 polls", "job after 3 polls",
                                               "job after 4 polls"}));
}

/* Takes longer than the poller's interval for every round trip. */
class SlowFetcher : public Fetcher {
  public:
    explicit SlowFetcher(std::atomic<int>& fetches) : m_fetches(fetches) {}
    Reading fetch() override {
        std::this_thread::sleep_for(20ms);
        ++m_fetches;
        return fresh("100");
    }

  private:
    std::atomic<int>& m_fetches;
};

TEST(Poller, PollsThatOutlastTheirIntervalDoNotKeepAJobWaiting) {
    std::atomic<int> fetches{0};
    Poller poller(std::make_unique<SlowFetcher>(fetches), 5ms, [] {});
    ASSERT_TRUE(eventually([&] { return fetches >= 1; }));
    std::promise<void> ran;
    auto done = ran.get_future();
    ASSERT_TRUE(poller.submit([&] { ran.set_value(); }, 4));
    EXPECT_EQ(done.wait_for(1s), std::future_status::ready);
}

/* A job that waits until it is interrupted (or for ten seconds). */
struct HeldJob {
    std::mutex mutex;
    std::condition_variable released;
    bool interrupted = false;
    std::atomic<bool> running{false};

    Poller::Job job() {
        return [this] {
            running = true;
            std::unique_lock<std::mutex> lock(mutex);
            released.wait_for(lock, 10s, [this] { return interrupted; });
        };
    }
    Poller::Interrupt interrupt() {
        return [this] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                interrupted = true;
            }
            released.notify_all();
        };
    }
};

TEST(Poller, AJobBeyondItsBoundIsInterruptedAndPollsGoOn) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    Poller poller(std::make_unique<ScriptedFetcher>(script), 10s, [] {});
    ASSERT_TRUE(eventually([&] { return script.fetches == 1; }));
    HeldJob held;
    auto const start = std::chrono::steady_clock::now();
    ASSERT_TRUE(poller.submit(held.job(), 4, held.interrupt(), 50ms));
    ASSERT_TRUE(eventually([&] { return script.fetches == 2; }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    std::lock_guard<std::mutex> lock(held.mutex);
    EXPECT_TRUE(held.interrupted);
}

TEST(Poller, AStopInterruptsTheJobInProgress) {
    ScriptedFetcher::Script script;
    script.reading = fresh("100");
    auto poller = std::make_unique<Poller>(std::make_unique<ScriptedFetcher>(script), 10s, [] {});
    ASSERT_TRUE(eventually([&] { return script.fetches == 1; }));
    HeldJob held;
    ASSERT_TRUE(poller->submit(held.job(), 4, held.interrupt(), 60s));
    ASSERT_TRUE(eventually([&] { return held.running.load(); }));
    auto const start = std::chrono::steady_clock::now();
    poller.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    std::lock_guard<std::mutex> lock(held.mutex);
    EXPECT_TRUE(held.interrupted);
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

/* Holds its round trip until interrupted; tells the mask of the thread that
 * interrupts it. */
class MaskOfInterrupterFetcher : public Fetcher {
  public:
    explicit MaskOfInterrupterFetcher(std::promise<sigset_t>& mask) : m_mask(mask) {}

    Reading fetch() override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_released.wait_for(lock, 10s, [this] { return m_interrupted; });
        return Reading{};
    }
    void interrupt() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_interrupted) {
            m_mask.set_value(ownMask());
            m_interrupted = true;
        }
        m_released.notify_all();
    }

  private:
    std::promise<sigset_t>& m_mask;
    std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_interrupted = false;
};

TEST(Poller, ItsWatchdogLeavesTheDaemonsSignalsToTheThreadThatStartedIt) {
    std::promise<sigset_t> mask;
    auto seen = mask.get_future();
    Poller poller(
        std::make_unique<MaskOfInterrupterFetcher>(mask), 10s, [] {}, 20ms);
    ASSERT_EQ(seen.wait_for(10s), std::future_status::ready);
    sigset_t const watching = seen.get();
    for (int const signal : {SIGINT, SIGTERM, SIGUSR1, SIGHUP, SIGPIPE}) {
        EXPECT_TRUE(blocks(watching, signal)) << "signal " << signal;
    }
}

}  // namespace
}  // namespace tarsel::daemon::nut
