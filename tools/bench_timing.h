#pragma once
// Timing helpers shared by the benchmark programs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

inline double millisecondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The median of several runs, each after its own preparation (not timed),
// so that one slow disk flush doesn't decide.
inline double medianOf(int rounds, const std::function<void()>& prepare, const std::function<void()>& work)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        prepare();
        times.push_back(millisecondsOf(work));
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// One line of a comparison table: the add-in's time, the reference's, their ratio.
inline void printComparisonRow(int whatWidth, const char* what, double korvane, double reference, const char* target)
{
    std::printf("| %-*s | %9.1f ms | %9.1f ms | %5.2f | %-8s |\n", whatWidth, what, korvane, reference,
                korvane / reference, target);
}
