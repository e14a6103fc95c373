// Standard output and standard error: buffering, SIGPIPE, crashes, and writing without waiting.
#include "app/standardstreams.h"

#include <QScopedValueRollback>
#include <QtGlobal>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <stdio_ext.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int crashSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

char held[16384];
struct sigaction outerActions[NSIG];
QtMessageHandler outerMessageHandler = nullptr;

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

/// Uses no function of stdio: the signal may have interrupted one.
void writeHeldAndCrash(int signalNumber, siginfo_t *info, void *)
{
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, held, std::min(__fpending(stdout), sizeof held));
    sigaction(signalNumber, &outerActions[signalNumber], nullptr);
    if (info->si_code <= 0) // sent by a process; otherwise the instruction fails again
        raise(signalNumber);
}

void printAfterHeldLines(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    std::fflush(stdout);
    outerMessageHandler(type, context, message);
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

void holdStandardOutput()
{
    if (canBlock(STDOUT_FILENO))
        return;
    std::fflush(stdout);
    std::setvbuf(stdout, held, _IOFBF, sizeof held); // glibc allows it after the first output
    outerMessageHandler = qInstallMessageHandler(printAfterHeldLines);
    struct sigaction action {};
    action.sa_sigaction = writeHeldAndCrash;
    action.sa_flags = SA_SIGINFO;
    for (const int signalNumber : crashSignals)
        sigaction(signalNumber, &action, &outerActions[signalNumber]);
}
