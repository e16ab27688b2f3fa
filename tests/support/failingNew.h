// Allocations with `new (std::nothrow)` that fail on demand. Linking this replaces that operator in the whole
// program; every other allocation is left alone, so that the test's own parts go on working.
#pragma once

// The n-th such allocation from now on gives null, once; 0: none does.
void FailingNew_Set(unsigned n);
