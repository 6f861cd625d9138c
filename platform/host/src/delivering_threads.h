// The threads inside one subscription's callback right now. Not installed,
// not for tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace cdshost {

/*
 * Each thread is counted as often as it is inside (a callback may cause a
 * change that is delivered to the same subscription on the same thread).
 * Nearly always there is one thread or none: that one is kept in place, the
 * others in a list made only while there are any. A subscription thus holds
 * no heap block for it between deliveries: a vector kept the block of its
 * first delivery for good, in each of the thousands of subscriptions a large
 * map keeps open.
 */
class DeliveringThreads {
  public:
    void enter(std::thread::id thread) {
        if (m_firstDepth == 0 || m_first == thread) {
            m_first = thread;
            ++m_firstDepth;
            return;
        }
        if (!m_others) {
            m_others = std::make_unique<std::vector<std::thread::id>>();
        }
        m_others->push_back(thread);
    }

    /* Undoes one enter() of the thread. */
    void leave(std::thread::id thread) {
        if (m_firstDepth != 0 && m_first == thread) {
            --m_firstDepth;
            return;
        }
        if (!m_others) {
            return;
        }
        auto const found = std::find(m_others->begin(), m_others->end(), thread);
        if (found != m_others->end()) {
            m_others->erase(found);
        }
        if (m_others->empty()) {
            m_others.reset();
        }
    }

    /* Whether a thread other than `thread` is inside. */
    bool anyOtherThan(std::thread::id thread) const {
        if (m_firstDepth != 0 && m_first != thread) {
            return true;
        }
        return m_others && std::any_of(m_others->begin(), m_others->end(),
                                       [thread](std::thread::id other) { return other != thread; });
    }

    /* Whether `thread` is inside. */
    bool has(std::thread::id thread) const {
        if (m_firstDepth != 0 && m_first == thread) {
            return true;
        }
        return m_others && std::find(m_others->begin(), m_others->end(), thread) != m_others->end();
    }

    /* Calls f(other) for each thread inside other than `thread`; one inside
     * more than once may come more than once. */
    template <typename F>
    void forEachOtherThan(std::thread::id thread, F&& f) const {
        if (m_firstDepth != 0 && m_first != thread) {
            f(m_first);
        }
        if (m_others) {
            for (std::thread::id const other : *m_others) {
                if (other != thread) {
                    f(other);
                }
            }
        }
    }

  private:
    std::thread::id m_first{};
    std::uint32_t m_firstDepth = 0;
    std::unique_ptr<std::vector<std::thread::id>> m_others;
};

}  // namespace cdshost
