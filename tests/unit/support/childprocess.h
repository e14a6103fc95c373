// Runs a function in a child process; returns how the child ended and what it printed.
#pragma once

#include <QByteArray>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

struct ChildResult {
    int waitStatus = -1;
    QByteArray out;
    QByteArray err;

    bool exitedWith(int status) const { return WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == status; }
    bool endedBy(int signalNumber) const { return WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == signalNumber; }
};

inline QByteArray contentOf(int descriptor)
{
    QByteArray content;
    char buffer[4096];
    lseek(descriptor, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(descriptor, buffer, sizeof buffer)) > 0;)
        content.append(buffer, static_cast<int>(got));
    return content;
}

/// An exit() of the child must not run the exit functions of the test program.
inline void endAtOnce(int status, void *)
{
    std::fflush(nullptr);
    _exit(status);
}

/// The child's exit status is what `function` returns, unless it ends the process itself.
template <typename Function>
ChildResult inChild(Function function)
{
    const int out = memfd_create("out", MFD_CLOEXEC);
    const int err = memfd_create("err", MFD_CLOEXEC);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        for (const int signalNumber : {SIGABRT, SIGTERM, SIGINT, SIGHUP, SIGPIPE})
            std::signal(signalNumber, SIG_DFL); // the test program's own handlers print stacks
        on_exit(endAtOnce, nullptr);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        const int status = function();
        std::fflush(nullptr);
        _exit(status);
    }
    ChildResult result;
    waitpid(pid, &result.waitStatus, 0);
    result.out = contentOf(out);
    result.err = contentOf(err);
    close(out);
    close(err);
    return result;
}
