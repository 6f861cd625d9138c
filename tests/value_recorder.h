// Data-accessor listeners for the tests of the channel, device and alarm
// accessors: one that records every value it receives, one that changes the
// accessor's listener from inside its own call.
#pragma once

#include <functional>
#include <memory>
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

}  // namespace accessor_test
