// Standard output and standard error: buffering, SIGPIPE, and writing without waiting.
#include "app/standardstreams.h"

#include <QScopedValueRollback>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Opens closed streams: otherwise the next socket would reuse the closed number and receive our output.
void fillMissingStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(descriptor, F_GETFD) < 0)
            open("/dev/null", O_RDWR); // gets the lowest free number, which is this one
}

bool canBlock(int descriptor)
{
    struct stat info {};
    if (fstat(descriptor, &info) != 0)
        return false;
    return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || isatty(descriptor) == 1;
}

void makeNonBlocking(int descriptor)
{
    if (!canBlock(descriptor))
        return;
    // The open file and its flags are shared with our parent. A pipe or a terminal is therefore reopened, so that only
    // we and our commands write without waiting. A socket cannot be reopened.
    const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
    const int own = open(self.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (own >= 0) {
        dup2(own, descriptor);
        close(own);
        return;
    }
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags >= 0)
        fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
}

} // namespace

void prepareStandardStreams()
{
    const QScopedValueRollback<int> caller(errno);
    std::signal(SIGPIPE, SIG_IGN);
    fillMissingStreams();
    makeNonBlocking(STDOUT_FILENO);
    makeNonBlocking(STDERR_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}
