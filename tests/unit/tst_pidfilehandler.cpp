// The pid file: which contents prevent a second instance, and which do not.
#include "app/pidfilehandler.h"

#include "support/childprocess.h"
#include "support/files.h"
#include "support/ordinaryuser.h"
#include "support/testprogram.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace {
QByteArray lineOf(pid_t pid)
{
    return QByteArray::number(pid) + '\n';
}

pid_t deadPid()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

struct HeldLock {
    explicit HeldLock(const QByteArray &path) : descriptor(open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        QCOMPARE(flock(descriptor, LOCK_EX | LOCK_NB), 0);
    }
    ~HeldLock() { close(descriptor); }
    Q_DISABLE_COPY(HeldLock)

    int descriptor;
};
} // namespace

class TestPidFileHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        QCOMPARE(chmod(QFile::encodeName(m_folder->path()).constData(), 0755), 0);
        m_path = QFile::encodeName(m_folder->filePath(QStringLiteral("kvsnmp.pid")));
    }

    void contentAndCheck()
    {
        const auto expectPid = [this](const QByteArray &content, pid_t read, pid_t blocking) {
            const AtRow at(content);
            const PidFileHandler handler(m_path.constData()); // removes the file
            if (!content.isNull())
                writeFile(m_path, content);
            QCOMPARE(handler.readPid(), read);
            QCOMPARE(handler.checkPid(), blocking);
        };
        for (const QByteArray &noNumber : {QByteArray(), QByteArray(""), QByteArray("none\n"), QByteArray(8, '\0')})
            expectPid(noNumber, 0, 0);
        expectPid("0\n", 0, 0);
        expectPid(lineOf(getpid()), getpid(), 0);
        const pid_t dead = deadPid();
        expectPid(lineOf(dead), dead, 0);
        const pid_t alive = getppid();
        const QByteArray digits = QByteArray::number(alive);
        for (const QByteArray &content :
             {digits + "\n", digits, "  " + digits + "\n", digits + "\n45\n", digits + "ab\n"})
            expectPid(content, alive, alive);
        // For kill() a number below zero is a process group, which exists or not.
        expectPid(lineOf(-getpgrp()), -getpgrp(), -getpgrp());
        expectPid(lineOf(-dead), -dead, 0);
    }

    void unreadableFileReadsAsNone()
    {
        writeFile(m_path, lineOf(getpid()));
        QCOMPARE(chmod(m_path.constData(), 0), 0);
        const PidFileHandler handler(m_path.constData());
        const AsOrdinaryUser user;
        QCOMPARE(open(m_path.constData(), O_RDONLY), -1);
        QCOMPARE(handler.readPid(), 0);
        QCOMPARE(handler.checkPid(), 0);
    }

    void errnoOfTheCheckIsThatOfKill()
    {
        writeFile(m_path, "1\n");
        const ChildResult otherUser = inChild([this] {
            if (getuid() == 0 && setuid(AsOrdinaryUser::nobody) != 0) // kill() looks at the real user
                return 99;
            const PidFileHandler handler(m_path.constData());
            return handler.checkPid() == 1 && errno == EPERM ? 0 : 1;
        });
        QVERIFY(otherUser.exitedWith(0));

        writeFile(m_path, lineOf(getppid()));
        const PidFileHandler handler(m_path.constData());
        errno = EAGAIN; // of an earlier call
        const pid_t pid = handler.checkPid();
        const int error = errno;
        QCOMPARE(pid, getppid());
        QCOMPARE(error, 0);
    }

    void fileIsWrittenUnlockedAndRemovedAtTheEnd()
    {
        {
            const PidFileHandler handler(m_path.constData());
            const mode_t savedMask = umask(0);
            QCOMPARE(handler.writePid(), getpid());
            umask(savedMask);
            QCOMPARE(readFile(m_path), lineOf(getpid()));
            QCOMPARE(statusOf(m_path).st_mode, mode_t{S_IFREG | 0644});
            const HeldLock lock(m_path);
        }
        QVERIFY(!QFile::exists(QFile::decodeName(m_path)));
    }

    void longerNumberIsNotTruncated()
    {
        writeFile(m_path, "12345678901234567890\n");
        const PidFileHandler handler(m_path.constData());
        QCOMPARE(handler.writePid(), getpid());
        const QByteArray pid = lineOf(getpid());
        QCOMPARE(readFile(m_path), pid + QByteArray("12345678901234567890\n").mid(pid.size()));
        QCOMPARE(handler.readPid(), getpid());
    }

    void failureHasItsMessageAndErrno()
    {
        // `target`: of a link at the path; null: a file whose lock is held
        const auto expect = [this](const char *target, int error, const QByteArray &out, const QByteArray &err) {
            for (const bool canPrint : {true, false}) { // a lost message does not change errno
                QScopedPointer<HeldLock> lock;
                if (target != nullptr) {
                    QCOMPARE(symlink(target, m_path.constData()), 0);
                } else {
                    writeFile(m_path, "4711\n");
                    lock.reset(new HeldLock(m_path));
                }
                const ChildResult child = inChild([&] {
                    std::setvbuf(stdout, nullptr, _IONBF, 0);
                    if (!canPrint) {
                        close(STDOUT_FILENO);
                        close(STDERR_FILENO);
                    }
                    const PidFileHandler handler(m_path.constData());
                    _exit(handler.writePid() == 0 && errno == error ? 0 : 1); // the file stays
                    return 0;
                });
                QVERIFY(child.exitedWith(0));
                QCOMPARE(child.out, canPrint ? out : QByteArray());
                QCOMPARE(child.err, canPrint ? err : QByteArray());
                if (canPrint && target == nullptr)
                    QCOMPARE(readFile(m_path), "4711\n");
                QCOMPARE(unlink(m_path.constData()), 0);
            }
        };
        expect("/nonexistent/kvsnmp.pid", ENOENT, {}, "Can't open or create " + m_path + ".\n");
        expect(nullptr, EWOULDBLOCK, "Can't lock, lock is held by pid 4711.\n", {});
        expect("/dev/full", ENOSPC, "Can't write pid , No space left on device.\n", {});
    }

private:
    QScopedPointer<QTemporaryDir> m_folder;
    QByteArray m_path;
};

const TestEntry entry("tst_pidfilehandler", runTest<TestPidFileHandler>);
#include "tst_pidfilehandler.moc"
