// A replacement of the global operator new that fails on request, to test
// what an object does when an allocation in its constructor throws.
//
// The replacement is a definition, not a declaration: include this header in
// exactly one source file of a test executable (each tests/*_test.cpp is an
// executable of its own). Allocations of the library's shared object resolve
// to it as well, since the executable defines the symbol.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace failing_allocation {

// Allocations still to succeed before one throws; negative: none throws.
inline long g_allocationsBeforeFailure = -1;
// Whether the armed failure has happened.
inline bool g_failed = false;

/* Arms a std::bad_alloc on the allocation after the next `successes` ones,
 * for the guard's lifetime. */
class FailAllocationGuard {
  public:
    explicit FailAllocationGuard(long successes = 0) {
        g_failed = false;
        g_allocationsBeforeFailure = successes;
    }
    ~FailAllocationGuard() { g_allocationsBeforeFailure = -1; }

    FailAllocationGuard(FailAllocationGuard const&) = delete;
    FailAllocationGuard& operator=(FailAllocationGuard const&) = delete;

    bool failed() const { return g_failed; }
};

}  // namespace failing_allocation

void* operator new(std::size_t size) {
    using namespace failing_allocation;
    if (g_allocationsBeforeFailure == 0) {
        g_allocationsBeforeFailure = -1;
        g_failed = true;
        throw std::bad_alloc();
    }
    if (g_allocationsBeforeFailure > 0) {
        --g_allocationsBeforeFailure;
    }
    if (void* const memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

// Memory of this operator new comes from malloc, so free is its right partner;
// with inlining GCC 12 cannot see that and warns of a mismatch.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
#pragma GCC diagnostic pop
