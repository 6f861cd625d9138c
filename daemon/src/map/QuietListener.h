// A data accessor of the library whose update listener never throws back
// into the data store. Every encoder converts each new value inside that
// listener (a float from a channel, a number from an attribute's text), and a
// value it cannot convert (a text where a number was expected: a NUT variable
// that reads "unknown", an attribute not reported yet) throws there. The
// library answers a listener that throws by taking every accessor of that
// channel for missing and detecting them again, and detecting calls the
// listener with the same value, which throws again and stops the detection
// part way: the accessors not reached stayed unavailable for good, even once
// the channel held a number again. The throw is kept inside the entry: the
// value is not pushed, and a read of it still answers as the encoder does (an
// error line and Server Device Failure), so the fault stays visible.
#pragma once

#include <exception>
#include <functional>
#include <utility>

#include "kq/value.h"

namespace tarsel::daemon {

template <class Accessor>
class QuietListener final : public Accessor {
  public:
    using Accessor::Accessor;

    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override {
        if (!callback) {
            Accessor::setUpdateCallback(nullptr);
            return;
        }
        Accessor::setUpdateCallback([callback = std::move(callback)](kq::CValue const& value) {
            try {
                callback(value);
            } catch (std::exception const&) {
                // A value the encoder cannot convert is not pushed (see above).
            }
        });
    }
};

}  // namespace tarsel::daemon
