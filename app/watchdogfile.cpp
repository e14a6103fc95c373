// The watchdog file: rewrites our file, replaces anything else at its path by a new one.
#include "app/watchdogfile.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Another user's file may be open in their program; a second link is the name of another file.
bool isOurs(const struct stat &info)
{
    return S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_uid == geteuid();
}

/// -1 if something else, or nothing, is there.
int openOurs(const char *path)
{
    struct stat info {};
    // Checked before it is opened: opening a device or a pipe can have side effects.
    if (lstat(path, &info) != 0 || !isOurs(info))
        return -1;
    const int descriptor = open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor >= 0 && (fstat(descriptor, &info) != 0 || !isOurs(info))) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

void writeLine(int descriptor)
{
    constexpr std::string_view line = "update\n";
    // A full disk leaves the file empty; the next tick writes it again.
    [[maybe_unused]] const ssize_t written = write(descriptor, line.data(), line.size());
}

/// Created with an unpredictable name and renamed: between an unlink() and an open() another user could repeatedly put
/// something else there.
bool replace(const char *path)
{
    std::string made = std::string(path) + ".XXXXXX";
    const int descriptor = mkostemp(made.data(), O_CLOEXEC);
    if (descriptor < 0)
        return false;
    fchmod(descriptor, 0644);
    writeLine(descriptor);
    close(descriptor);
    if (std::rename(made.c_str(), path) == 0)
        return true;
    unlink(made.c_str());
    return false;
}

} // namespace

bool updateWatchdogFile(const char *path)
{
    const int descriptor = openOurs(path);
    if (descriptor < 0)
        return replace(path);
    if (ftruncate(descriptor, 0) == 0)
        writeLine(descriptor);
    close(descriptor);
    return true;
}
