// Data-accessor listeners for the tests of the channel, device and alarm
// accessors: one that records every value it receives, one that changes the
// accessor's listener from inside its own call, and a pair whose listeners
// destroy each other.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "kq/value.h"

namespace accessor_test {

struct Recorder {
    std::vector<kq::CValue> values;

    std::function<void(kq::CValue const&)> listener() {
        return [this](kq::CValue const& value) { values.push_back(value); };
    }
};

/* A listener that on its `at`-th call runs `change` (which replaces or clears
 * the accessor's listener, i.e. the very function being called) and then goes
 * on using what it captured. aliveAfterChange tells whether its captures were
 * still there; under AddressSanitizer a destroyed function is also reported. */
struct SelfChangingListener {
    int calls = 0;
    bool aliveAfterChange = false;
    std::weak_ptr<int> capture;

    std::function<void(kq::CValue const&)> listener(int at, std::function<void()> change) {
        auto const owned = std::make_shared<int>(0);
        capture = owned;
        return [this, at, change, owned](kq::CValue const&) {
            ++calls;
            if (calls != at) {
                return;
            }
            change();
            aliveAfterChange = !capture.expired();
            ++*owned;
        };
    }
};

/* Two accessors of one item whose listeners, once armed, each destroy the
 * other one on a value that `trigger` accepts: whichever accessor a
 * notification reaches first destroys the one it would reach next (a daemon
 * tearing its map down from a push). called() lists which accessor took each
 * triggering value. */
template <typename Accessor>
class MutuallyDestroyingPair {
  public:
    using Make = std::function<std::unique_ptr<Accessor>()>;
    using Trigger = std::function<bool(kq::CValue const&)>;

    explicit MutuallyDestroyingPair(
        Make const& make, Trigger trigger = [](kq::CValue const&) { return true; })
        : m_trigger(std::move(trigger)) {
        for (auto& accessor : m_accessors) {
            accessor = make();
        }
        for (std::size_t i = 0; i < 2; ++i) {
            m_accessors[i]->setUpdateCallback([this, i](kq::CValue const& value) {
                if (!m_armed || !m_trigger(value)) {
                    return;
                }
                m_called.push_back(i);
                m_accessors[1 - i].reset();
            });
        }
    }

    void arm() { m_armed = true; }
    std::vector<std::size_t> const& called() const { return m_called; }
    /* Every triggering value went to one accessor: the other was never called. */
    bool onlyOneWasCalled() const {
        return !m_called.empty() &&
               std::all_of(m_called.begin(), m_called.end(),
                           [this](std::size_t i) { return i == m_called.front(); });
    }
    /* The accessor left alive, or null. */
    Accessor* survivor() const {
        return m_accessors[0] ? m_accessors[0].get() : m_accessors[1].get();
    }
    std::size_t alive() const { return (m_accessors[0] ? 1u : 0u) + (m_accessors[1] ? 1u : 0u); }
    void destroyAll() {
        m_accessors[0].reset();
        m_accessors[1].reset();
    }

  private:
    Trigger m_trigger;
    std::unique_ptr<Accessor> m_accessors[2];
    bool m_armed = false;
    std::vector<std::size_t> m_called;
};

}  // namespace accessor_test
