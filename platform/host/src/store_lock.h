// The simulated store's lock. Not installed, not for tests.
#pragma once

#include <atomic>
#include <thread>

namespace cdshost {

/*
 * A lock of one atomic flag: taking a free lock is one atomic exchange and
 * releasing it one store, where a std::mutex costs a call into the thread
 * library each way. A served map reads the store once per entry on every
 * request, and nearly always finds the lock free: the other threads (a
 * scenario, the pollers of a UPS) change the store a few times a second.
 *
 * A thread that finds it taken tries again a few times, then yields its time
 * slice until the holder lets go; the store holds it only for look-ups and
 * copies, never across a callback or a wait (unsubscribe waits on a condition
 * variable that releases it). Acquire on taking and release on letting go
 * give the same ordering a mutex gives. Meets BasicLockable and Lockable, so
 * std::lock_guard, std::unique_lock and std::condition_variable_any take it.
 */
class StoreLock {
  public:
    void lock() noexcept {
        if (m_held.exchange(true, std::memory_order_acquire)) {
            lockTaken();
        }
    }
    bool try_lock() noexcept {
        return !m_held.load(std::memory_order_relaxed) &&
               !m_held.exchange(true, std::memory_order_acquire);
    }
    void unlock() noexcept { m_held.store(false, std::memory_order_release); }

  private:
    /* Out of line, so that lock() is small enough to be inlined wherever the
     * store takes the lock. */
    [[gnu::noinline]] void lockTaken() noexcept {
        do {
            waitUntilFree();
        } while (m_held.exchange(true, std::memory_order_acquire));
    }
    /* Reads only (no exchange) while it waits, so the waiters do not take
     * the flag's cache line from the holder. */
    void waitUntilFree() const noexcept {
        for (int spin = 0; m_held.load(std::memory_order_relaxed); ++spin) {
            if (spin >= kSpins) {
                std::this_thread::yield();
            }
        }
    }

    static constexpr int kSpins = 64;
    std::atomic<bool> m_held{false};
};

}  // namespace cdshost
