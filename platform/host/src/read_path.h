// The store's side of a read of a served value (the client call, the locked
// look-up) holds no buffer: it passes the value object on.
// -fstack-protector-strong (the hardened build) gives such functions a stack
// canary all the same, since the value object's address is passed on: 8
// instructions a call on the hottest call of a served map. They are built
// without one; every function that holds a buffer keeps its canary.
#pragma once

#define TARSEL_READ_PATH [[gnu::no_stack_protector]]
