// A preloaded library that shifts the clocks of one process: CLOCK_MONOTONIC, so that a test need not wait 60 s or 600
// s, and the time of day, which an operator may set. The test writes both shifts to the file that KVSNMP_CLOCK_FILE
// names, each as nanoseconds in 8 bytes of the machine's order; they hold from the next reading of a clock on. Calls
// that wait are not changed: the daemon wakes often enough by itself.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { nanosecondsPerSecond = 1000000000, nanosecondsPerMicrosecond = 1000 };

struct Shifts {
    int64_t monotonic;
    int64_t timeOfDay;
};

typedef int (*ClockGettime)(clockid_t, struct timespec *);

static ClockGettime realClockGettime;
static const volatile struct Shifts *shifts;

__attribute__((constructor)) static void setUp(void)
{
    realClockGettime = (ClockGettime)dlsym(RTLD_NEXT, "clock_gettime");
    const char *path = getenv("KVSNMP_CLOCK_FILE");
    const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0)
        return;
    void *mapping = mmap(NULL, sizeof *shifts, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (mapping != MAP_FAILED)
        shifts = mapping;
    unsetenv("LD_PRELOAD"); // programs started by this one keep the real clock
}

static int64_t shiftOf(clockid_t id)
{
    if (shifts == NULL)
        return 0;
    switch (id) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
        return shifts->monotonic;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
        return shifts->timeOfDay;
    default:
        return 0;
    }
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system header's names are reserved
int clock_gettime(clockid_t id, struct timespec *time)
{
    if (realClockGettime == NULL) // asked before the constructor has run
        realClockGettime = (ClockGettime)dlsym(RTLD_NEXT, "clock_gettime");
    const int result = realClockGettime(id, time);
    const int64_t shift = shiftOf(id);
    if (result != 0 || shift == 0)
        return result;
    const int64_t total = (int64_t)time->tv_sec * nanosecondsPerSecond + time->tv_nsec + shift;
    int64_t seconds = total / nanosecondsPerSecond;
    int64_t nanoseconds = total % nanosecondsPerSecond;
    if (nanoseconds < 0) { // before 1970
        --seconds;
        nanoseconds += nanosecondsPerSecond;
    }
    time->tv_sec = (time_t)seconds;
    time->tv_nsec = (long)nanoseconds;
    return 0;
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system header's names are reserved
int gettimeofday(struct timeval *restrict time, void *restrict zone)
{
    struct timespec now;
    (void)zone; // obsolete, ignored
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
        return -1;
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / nanosecondsPerMicrosecond;
    return 0;
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system header's names are reserved
time_t time(time_t *seconds)
{
    struct timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
        return (time_t)-1;
    if (seconds != NULL)
        *seconds = now.tv_sec;
    return now.tv_sec;
}
