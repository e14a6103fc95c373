// clock_gettime() and select() for the whole process: the agent library uses those of its program.
#include "agentx/virtualtime.h"

#include "support.h"

#include <ctime>
#include <utility>

#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
std::chrono::microseconds now = std::chrono::hours(1);
std::function<void()> otherEnd;
std::function<void()> inVain;
} // namespace

void virtualtime::advance(std::chrono::microseconds duration)
{
    now += duration;
}

void virtualtime::whileWaiting(std::function<void()> end, std::function<void()> vain)
{
    otherEnd = std::move(end);
    inVain = std::move(vain);
}

// The library uses the monotonic clock, the fuzzer the other one.
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    now += std::chrono::microseconds(1); // a stopped clock would never pass a deadline after an exact wait
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now);
    *time = {seconds.count(), std::chrono::nanoseconds(now - seconds).count()};
    return 0;
}

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout)
{
    if (otherEnd)
        otherEnd();
    const timespec atOnce{};
    const int ready = pselect(count, readable, writable, exceptional, &atOnce, nullptr);
    if (ready == 0) {
        require(timeout != nullptr, "the library never waits without a limit");
        const auto limit = std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
        virtualtime::advance(limit);
        if (limit.count() > 0)
            inVain();
    }
    return ready;
}
