// What every benchmark measures with.
#pragma once

#include <algorithm>
#include <vector>

#include <windows.h>

// Time since some fixed moment.
inline double Microseconds() {
    LARGE_INTEGER frequency;
    LARGE_INTEGER now;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    return 1e6 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Microseconds for one of `times` calls.
template <typename Work>
double Time(int times, Work work) {
    const double start = Microseconds();
    for (int i = 0; i < times; i++) {
        work();
    }
    return (Microseconds() - start) / times;
}

// Not of an empty list.
inline double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}
