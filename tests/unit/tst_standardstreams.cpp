// Standard output and standard error: neither a closed nor an unread one stops the process.
#include "app/standardstreams.h"

#include "support/testprogram.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {
constexpr char longLine[] = "a line of the length that a progress message usually has, and then a little more of it";

constexpr int errnoBefore = EXDEV; // no call here fails with it

void printTooMuch()
{
    for (int i = 0; i < 20000; ++i)
        std::puts(longLine);
    for (int i = 0; i < 2000; ++i)
        qDebug().noquote() << longLine;
}

/// Runs `function` in a child whose two streams are `descriptor`; -1 leaves them closed. Returns the child's exit
/// status, 7 at the end of the function, or the signal that ended it, SIGALRM after ten seconds.
int endOf(int descriptor, const std::function<void()> &function)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(10); // ends the child
        std::signal(SIGPIPE, SIG_DFL);
        qInstallMessageHandler(nullptr);
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
            if (descriptor < 0)
                close(stream);
            else
                dup2(descriptor, stream);
        }
        if (descriptor >= 0)
            stdout = fdopen(STDOUT_FILENO, "w"); // unused so far, as when a program begins
        const int firstFree = fcntl(descriptor, F_DUPFD, 3);
        close(firstFree);
        errno = errnoBefore;
        prepareStandardStreams();
        function();
        if (fcntl(descriptor, F_DUPFD, 3) != firstFree)
            _exit(8); // it keeps a descriptor
        std::fflush(stdout);
        _exit(7);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
}

bool runsToItsEnd(int descriptor, const std::function<void()> &function)
{
    return endOf(descriptor, function) == 7;
}

/// All of the file but the line that qemu-user adds about the signal.
QByteArray printed(QTemporaryFile &file)
{
    file.seek(0);
    const QByteArray content = file.readAll();
    const int emulators = content.indexOf("qemu: uncaught target signal");
    return emulators < 0 ? content : content.left(emulators);
}

QByteArray available(int descriptor)
{
    QByteArray content;
    std::array<char, 4096> buffer{};
    pollfd readable{descriptor, POLLIN, 0};
    while (poll(&readable, 1, 0) == 1 && (readable.revents & POLLIN) != 0) {
        const ssize_t got = read(descriptor, buffer.data(), buffer.size());
        if (got <= 0)
            break;
        content.append(buffer.data(), static_cast<int>(got));
    }
    return content;
}

bool makePipe(int *ends)
{
    return pipe2(ends, O_CLOEXEC) == 0;
}

struct Ends {
    explicit Ends(bool (*make)(int *ends))
    {
        int made[2] = {-1, -1};
        QVERIFY(make(made));
        reader = made[0];
        writer = made[1];
    }
    ~Ends()
    {
        closeReader();
        close(writer);
    }
    Q_DISABLE_COPY(Ends)

    void closeReader() { close(std::exchange(reader, -1)); }

    int reader = -1;
    int writer = -1;
};
} // namespace

class TestStandardStreams : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void unreadOrClosedReaderStopsNothing()
    {
        static constexpr struct {
            const char *name;
            bool (*make)(int *ends);
            bool keepsItsFlags; // others write to it as before
        } rows[] = {
            {"pipe", makePipe, true},
            {"socket", [](int *ends) { return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0; }, false},
            {"terminal", [](int *ends) { return openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) == 0; }, true},
        };
        for (const auto &row : rows)
            for (const bool closed : {false, true}) {
                const AtRow at(row.name);
                Ends ends(row.make);
                if (closed)
                    ends.closeReader();
                QVERIFY(runsToItsEnd(ends.writer, printTooMuch));
                const QByteArray content = closed ? QByteArray() : available(ends.reader);
                QVERIFY(closed || content.size() > 4096);
                if (row.make == makePipe) // whole lines
                    QCOMPARE(content, (QByteArray(longLine) + '\n').repeated(content.count('\n')));
                QVERIFY(closed || content.startsWith(longLine));
                if (row.keepsItsFlags)
                    QVERIFY((fcntl(ends.writer, F_GETFL) & O_NONBLOCK) == 0);
            }
    }

    void linesAreWrittenAtOnceAndAgainAfterAJam()
    {
        for (const bool hold : {false, true}) { // holds nothing back from readers of lines
            const Ends ends(makePipe);
            QVERIFY(runsToItsEnd(ends.writer, [&ends, hold] {
                if (hold)
                    holdStandardOutput();
                std::puts("first");
                if (available(ends.reader) != "first\n")
                    _exit(1);
                printTooMuch();
                available(ends.reader);
                std::puts("after the jam");
                qDebug().noquote() << "and a debug line";
            }));
            QCOMPARE(available(ends.reader), "after the jam\nand a debug line\n");
        }
    }

    void closedStreamsAreNotReused()
    {
        QVERIFY(runsToItsEnd(-1, [] {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0 || ends[0] <= STDERR_FILENO)
                _exit(1);
            printTooMuch();
            if (!available(ends[0]).isEmpty())
                _exit(2);
        }));
    }

    void fileKeepsItsPlaceAndEveryLine()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        file.write("before\n");
        file.flush();
        QVERIFY(runsToItsEnd(file.handle(), printTooMuch));
        const QByteArray content = printed(file);
        QVERIFY(content.startsWith("before\na line"));
        QCOMPARE(content.count('\n'), 1 + 20000 + 2000);
    }

    void heldLinesComeInOrderAndComplete()
    {
        for (const int end : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
            const AtRow at(strsignal(end));
            QTemporaryFile file;
            QVERIFY(file.open());
            const auto print = [&file, end] {
                std::signal(end, SIG_DFL); // not the sanitizer's handler
                holdStandardOutput();
                std::puts("held");
                std::puts("held too");
                if (file.size() != 0)
                    _exit(1);
                qDebug("after them");
                if (file.size() != sizeof("held\nheld too\nafter them\n") - 1)
                    _exit(2);
                std::puts("last");
                std::raise(end);
            };
            QCOMPARE(endOf(file.handle(), print), end);
            QCOMPARE(printed(file), QByteArray("held\nheld too\nafter them\nlast\n"));
        }
    }

    void errnoStaysAsItWasAndABrokenPipeIsIgnored()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        for (const int stream : {file.handle(), -1})
            QVERIFY(runsToItsEnd(stream, [] {
                if (errno != errnoBefore || std::raise(SIGPIPE) != 0)
                    _exit(1);
            }));
    }
};

const TestEntry entry("tst_standardstreams", runTest<TestStandardStreams>);
#include "tst_standardstreams.moc"
