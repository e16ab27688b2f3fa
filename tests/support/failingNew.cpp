#include "failingNew.h"

#include <cstddef>
#include <new>

namespace {

unsigned left = 0;

bool Fails() {
    return left != 0 && --left == 0;
}

} // namespace

void FailingNew_Set(unsigned n) {
    left = n;
}

// Real shortage ends the test's program, as it does everywhere else in tests.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Fails() ? nullptr : ::operator new(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Fails() ? nullptr : ::operator new[](size);
}
