// The watchdog file: opened without following, looked at, and only then emptied and written.
#include "app/watchdogfile.h"

#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isPlainFile(int descriptor)
{
    struct stat info {};
    return fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1;
}

} // namespace

bool updateWatchdogFile(const char *path)
{
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    if (descriptor < 0)
        return false;
    const bool plain = isPlainFile(descriptor);
    if (plain && ftruncate(descriptor, 0) == 0) {
        constexpr std::string_view line = "update\n";
        // A full disk leaves the file empty; the next tick writes it again.
        [[maybe_unused]] const ssize_t written = write(descriptor, line.data(), line.size());
    }
    close(descriptor);
    return plain;
}
