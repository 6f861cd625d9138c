// The one update listener of a data accessor, kept so that a listener may
// replace or clear itself from inside its own call.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "kq/value.h"

namespace modbus::detail {

using UpdateListener = std::function<void(kq::CValue const&)>;
using UpdateListenerSlot = std::shared_ptr<UpdateListener const>;

/* Puts a listener into the slot, replacing the one there; an empty function
 * empties the slot. */
inline void installListener(UpdateListenerSlot& slot, UpdateListener listener) {
    if (listener) {
        slot = std::make_shared<UpdateListener const>(std::move(listener));
    } else {
        slot.reset();
    }
}

/* Calls the listener in the slot, if there is one. The call holds its own
 * share of the function: a listener that replaces or clears itself (through
 * setUpdateCallback()) runs to its end on a function that is still alive. */
inline void callListener(UpdateListenerSlot const& slot, kq::CValue const& value) {
    UpdateListenerSlot const running = slot;
    if (running) {
        (*running)(value);
    }
}

}  // namespace modbus::detail
