// A data accessor that does nothing but hold its one listener, so that the
// encoder tests can see which listener an encoder leaves behind, and the two
// checks every listening encoder passes with it.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "kq/value.h"
#include "modbus/CdsDataAccessor.h"

namespace encoder_test {

class ListenerSlot : public modbus::CdsDataAccessor {
  public:
    void setCValue(kq::CValue const&) override {}
    kq::CValue getCValue() const override { return kq::CValue(1); }
    bool isExitingInCds() const override { return true; }
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override {
        m_listener = std::move(callback);
    }

    bool hasListener() const { return static_cast<bool>(m_listener); }
    /* A change of the value, as a data store would push it. */
    void push() const {
        if (m_listener) {
            m_listener(kq::CValue(1));
        }
    }

  private:
    std::function<void(kq::CValue const&)> m_listener;
};

/* An encoder built by `makeEncoder(source)` over a shared source takes its
 * listener back when it is destroyed: the source outlives it safely. */
template <typename MakeEncoder>
void expectDestroyedEncoderWithdrawsItsListener(MakeEncoder makeEncoder) {
    auto const source = std::make_shared<ListenerSlot>();
    auto encoder = makeEncoder(source);
    EXPECT_TRUE(source->hasListener());

    encoder.reset();

    EXPECT_FALSE(source->hasListener());
    source->push();
}

/* A second encoder on the same source takes the listener over; destroying
 * the first then leaves the second's listener in place, and pushes keep
 * reaching the second. */
template <typename MakeEncoder>
void expectDestroyedEncoderLeavesAnotherListenerInPlace(MakeEncoder makeEncoder) {
    auto const source = std::make_shared<ListenerSlot>();
    auto first = makeEncoder(source);
    auto second = makeEncoder(source);
    int pushes = 0;
    second->setCallback([&pushes](auto const&) { ++pushes; });

    first.reset();
    source->push();

    EXPECT_TRUE(source->hasListener());
    EXPECT_EQ(pushes, 1);
    second.reset();
    EXPECT_FALSE(source->hasListener());
}

/* A listener of the encoder that clears itself (setCallback() with an empty
 * function) from inside a push runs to its end on a function that is still
 * alive. `encoder` pushes whatever `push()` makes its source deliver. */
template <typename Encoder, typename Push>
void expectListenerMayClearItselfInsideAPush(Encoder& encoder, Push push) {
    auto owned = std::make_shared<int>(0);
    std::weak_ptr<int> const capture = owned;
    bool aliveAfterClearing = false;
    int calls = 0;
    encoder.setCallback(
        [&encoder, &capture, &aliveAfterClearing, &calls, owned = std::move(owned)](auto const&) {
            ++calls;
            encoder.setCallback({});
            aliveAfterClearing = !capture.expired();
            ++*owned;
        });

    push();
    push();

    EXPECT_TRUE(aliveAfterClearing);
    EXPECT_EQ(calls, 1);
}

/* The same for an encoder built by `makeEncoder(source)` over a shared source. */
template <typename MakeEncoder>
void expectListenerMayClearItselfInsideAPush(MakeEncoder makeEncoder) {
    auto const source = std::make_shared<ListenerSlot>();
    auto encoder = makeEncoder(source);
    expectListenerMayClearItselfInsideAPush(*encoder, [&source] { source->push(); });
}

}  // namespace encoder_test
