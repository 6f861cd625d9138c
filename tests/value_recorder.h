// A data-accessor listener that records every value it receives, for the
// tests of the channel, device and alarm accessors.
#pragma once

#include <functional>
#include <vector>

#include "kq/value.h"

namespace accessor_test {

struct Recorder {
    std::vector<kq::CValue> values;

    std::function<void(kq::CValue const&)> listener() {
        return [this](kq::CValue const& value) { values.push_back(value); };
    }
};

}  // namespace accessor_test
