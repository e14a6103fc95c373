// The pid file: reading, checking, writing under a lock, removing.
#include "app/pidfilehandler.h"

#include <QScopedValueRollback>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

namespace {

// Callers report errno; each rollback below preserves it from a message or from closing the file.

struct StreamCloser {
    void operator()(std::FILE *stream) const
    {
        const QScopedValueRollback<int> cause(errno);
        std::fclose(stream);
    }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

/// The decimal integer at the start of the stream; 0 without one.
int firstNumber(std::FILE *stream)
{
    int number = 0;
    if (std::fscanf(stream, "%d", &number) != 1)
        return 0;
    return number;
}

Stream openForWriting(const char *path)
{
    const int descriptor = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0)
        return nullptr;
    Stream stream(fdopen(descriptor, "r+"));
    if (!stream) {
        const QScopedValueRollback<int> cause(errno);
        close(descriptor);
    }
    return stream;
}

} // namespace

PidFileHandler::PidFileHandler(const char *path) : m_path(path) {}

PidFileHandler::~PidFileHandler()
{
    removePid();
}

pid_t PidFileHandler::readPid() const
{
    const Stream stream(std::fopen(m_path, "re"));
    return stream ? firstNumber(stream.get()) : 0;
}

pid_t PidFileHandler::checkPid() const
{
    const pid_t pid = readPid();
    if (pid == 0 || pid == getpid())
        return 0;
    errno = 0;
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return 0;
    return pid; // it runs, possibly as another user
}

pid_t PidFileHandler::writePid() const
{
    const Stream stream = openForWriting(m_path);
    if (!stream) {
        const QScopedValueRollback<int> cause(errno);
        std::fprintf(stderr, "Can't open or create %s.\n", m_path);
        return 0;
    }
    if (flock(fileno(stream.get()), LOCK_EX | LOCK_NB) != 0) {
        const QScopedValueRollback<int> cause(errno);
        std::printf("Can't lock, lock is held by pid %d.\n", firstNumber(stream.get()));
        return 0;
    }
    // Not truncated: readers stop at the newline, so the rest of a longer number does no harm.
    const pid_t pid = getpid();
    if (std::fprintf(stream.get(), "%d\n", pid) <= 0 || std::fflush(stream.get()) != 0) {
        const QScopedValueRollback<int> cause(errno);
        std::printf("Can't write pid , %s.\n", std::strerror(errno));
        return 0;
    }
    if (flock(fileno(stream.get()), LOCK_UN) != 0) {
        const QScopedValueRollback<int> cause(errno);
        std::printf("Can't unlock pidfile %s, %s.\n", m_path, std::strerror(errno));
        return 0;
    }
    return pid;
}

void PidFileHandler::removePid() const
{
    unlink(m_path);
}
