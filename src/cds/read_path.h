// The functions a read of a served value goes through, from an encoder's
// getData() to the data store, hold no buffer: each passes a value object on.
// -fstack-protector-strong (the hardened build) gives them a stack canary all
// the same, since a value object's address is passed to the next call: 8
// instructions a call, about 24 a register read. They are built without one;
// every function that holds a buffer keeps its canary.
#pragma once

#define TARSEL_READ_PATH [[gnu::no_stack_protector]]
