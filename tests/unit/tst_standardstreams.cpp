// Standard output and standard error: neither a closed nor an unread one stops the process.
#include "app/standardstreams.h"

#include "support/childprocess.h"
#include "support/testprogram.h"

#include <QDebug>
#include <QFile>
#include <QTemporaryFile>
#include <QtTest>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>

namespace {

constexpr char longLine[] = "a line of the length that a progress message usually has, and then a little more of it";

constexpr int errnoBefore = EXDEV; // no call here fails with it

/// Prints far more on both streams than any pipe, socket or terminal holds.
void printTooMuch()
{
    for (int i = 0; i < 20000; ++i)
        std::puts(longLine);
    for (int i = 0; i < 2000; ++i)
        qDebug().noquote() << longLine;
}

/// Runs `function` in a child whose two streams are `descriptor`; -1 leaves them closed. Gives the wait status, or
/// nothing when the child was still running after ten seconds.
std::optional<int> runOn(int descriptor, const std::function<void()> &function)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        qInstallMessageHandler(nullptr);
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
            if (descriptor < 0)
                close(stream);
            else
                dup2(descriptor, stream);
        }
        if (descriptor >= 0)
            stdout = fdopen(STDOUT_FILENO, "w"); // unused so far, as when a program begins
        errno = errnoBefore;
        prepareStandardStreams();
        function();
        std::fflush(stdout);
        _exit(7);
    }
    for (int waitedMs = 0; waitedMs < 10000; waitedMs += 10) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return status;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return std::nullopt;
}

bool endedItself(const std::optional<int> &status)
{
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 7;
}

bool isNonBlocking(int descriptor)
{
    return (fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0;
}

/// What can be read without waiting.
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

} // namespace

class TestStandardStreams : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void unreadPipe()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
        QVERIFY(endedItself(runOn(ends[1], printTooMuch)));
        QVERIFY(!isNonBlocking(ends[1])); // others write to the same pipe as before
        close(ends[0]);
        close(ends[1]);
    }

    void unreadPipeHoldsWholeLines()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
        QVERIFY(endedItself(runOn(ends[1], printTooMuch)));
        const QByteArray content = available(ends[0]);
        QVERIFY(content.size() > 4096);
        QVERIFY(content.endsWith('\n'));
        QList<QByteArray> lines = content.split('\n');
        lines.removeLast();
        for (const QByteArray &line : qAsConst(lines))
            QCOMPARE(line, QByteArray(longLine));
        close(ends[0]);
        close(ends[1]);
    }

    void pipeThatIsReadAgainGetsLinesAgain()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
        const std::optional<int> status = runOn(ends[1], [&ends] {
            printTooMuch();
            available(ends[0]);
            std::puts("after the jam");
            qDebug().noquote() << "and a debug line";
        });
        QVERIFY(endedItself(status));
        QCOMPARE(available(ends[0]), QByteArray("after the jam\nand a debug line\n"));
        close(ends[0]);
        close(ends[1]);
    }

    void linesAreWrittenAtOnce()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
        const std::optional<int> status = runOn(ends[1], [&ends] {
            std::puts("first");
            if (available(ends[0]) != "first\n")
                _exit(1);
        });
        QVERIFY(endedItself(status));
        close(ends[0]);
        close(ends[1]);
    }

    void closedReader()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
        close(ends[0]);
        QVERIFY(endedItself(runOn(ends[1], printTooMuch)));
        close(ends[1]);
    }

    void unreadSocket()
    {
        int ends[2];
        QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        QVERIFY(endedItself(runOn(ends[1], printTooMuch)));
        QVERIFY(available(ends[0]).startsWith(longLine));
        close(ends[0]);
        close(ends[1]);
    }

    void closedSocket()
    {
        int ends[2];
        QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        close(ends[0]);
        QVERIFY(endedItself(runOn(ends[1], printTooMuch)));
        close(ends[1]);
    }

    void unreadTerminal()
    {
        int master = -1;
        int terminal = -1;
        QCOMPARE(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
        QVERIFY(endedItself(runOn(terminal, printTooMuch)));
        QVERIFY(!isNonBlocking(terminal));
        close(terminal);
        close(master);
    }

    void closedStreamsAreNotReused()
    {
        const std::optional<int> status = runOn(-1, [] {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0 || ends[0] <= STDERR_FILENO)
                _exit(1);
            printTooMuch();
            if (!available(ends[0]).isEmpty())
                _exit(2);
        });
        QVERIFY(endedItself(status));
    }

    void fileKeepsItsPlaceAndEveryLine()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        file.write("before\n");
        file.flush();
        QVERIFY(endedItself(runOn(file.handle(), printTooMuch)));
        file.seek(0);
        const QByteArray content = file.readAll();
        QVERIFY(content.startsWith("before\na line"));
        QCOMPARE(content.count('\n'), 1 + 20000 + 2000);
    }

    void brokenPipeIsIgnored()
    {
        const ChildResult child = inChild([] {
            prepareStandardStreams();
            return std::raise(SIGPIPE) == 0 ? 7 : 1;
        });
        QVERIFY(child.exitedWith(7));
    }

    void errnoStaysAsItWas_data()
    {
        QTest::addColumn<bool>("areClosed");

        QTest::newRow("files") << false;
        QTest::newRow("closed streams") << true;
    }

    void errnoStaysAsItWas()
    {
        QFETCH(bool, areClosed);

        QTemporaryFile file;
        QVERIFY(file.open());
        const std::optional<int> status = runOn(areClosed ? -1 : file.handle(), [] {
            if (errno != errnoBefore)
                _exit(1);
        });
        QVERIFY(endedItself(status));
    }
};

const TestEntry entry("tst_standardstreams", runTest<TestStandardStreams>);
#include "tst_standardstreams.moc"
