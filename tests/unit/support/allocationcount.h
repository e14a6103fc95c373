// Counts what is allocated between two points, through malloc and through new, by whichever library.
#pragma once

#include <cstddef>

/// Starts and stops the count. One thread.
class AllocationCount {
public:
    static void start() { s_counting = true; }
    static void stop() { s_counting = false; }
    static bool isRunning() { return s_counting; }
    static std::size_t total() { return s_total; }
    static void reset() { s_total = 0; }

    /// Called for every allocation of the process.
    static void note()
    {
        if (s_counting)
            ++s_total;
    }

private:
    inline static bool s_counting = false;
    inline static std::size_t s_total = 0;
};
