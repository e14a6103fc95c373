// A preloaded library that moves CLOCK_MONOTONIC of one process, so that a test sees what happens after 60 s or 600 s
// at once. The file named by KVSNMP_CLOCK_FILE holds the shift as 8 bytes, nanoseconds, in the machine's order; a test
// writes it, and the process sees it from its next look at the clock on. Waiting calls are left alone: the daemon
// wakes often enough by itself.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum { nanosecondsPerSecond = 1000000000 };

typedef int (*ClockGettime)(clockid_t, struct timespec *);

static ClockGettime realClockGettime;
static const volatile int64_t *shift;

__attribute__((constructor)) static void setUp(void)
{
    realClockGettime = (ClockGettime)dlsym(RTLD_NEXT, "clock_gettime");
    const char *path = getenv("KVSNMP_CLOCK_FILE");
    const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0)
        return;
    void *mapping = mmap(NULL, sizeof *shift, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (mapping != MAP_FAILED)
        shift = mapping;
    unsetenv("LD_PRELOAD"); // programs started by this one keep the real clock
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own names are reserved
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system header's names are reserved
int clock_gettime(clockid_t id, struct timespec *time)
{
    if (realClockGettime == NULL) // asked before the constructor has run
        realClockGettime = (ClockGettime)dlsym(RTLD_NEXT, "clock_gettime");
    const int result = realClockGettime(id, time);
    if (result != 0 || shift == NULL ||
        (id != CLOCK_MONOTONIC && id != CLOCK_MONOTONIC_RAW && id != CLOCK_MONOTONIC_COARSE))
        return result;
    const int64_t total = (int64_t)time->tv_sec * nanosecondsPerSecond + time->tv_nsec + *shift;
    time->tv_sec = (time_t)(total / nanosecondsPerSecond);
    time->tv_nsec = (long)(total % nanosecondsPerSecond);
    return result;
}
