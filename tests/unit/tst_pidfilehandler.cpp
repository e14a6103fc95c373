// The pid file: what keeps a second instance out, and what does not.
#include "app/pidfilehandler.h"

#include "support/childprocess.h"
#include "support/testprogram.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr uid_t nobody = 65534;

/// The pid of a process that has ended and been waited for.
pid_t deadPid()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

/// Runs `function` without the rights of the superuser.
template <typename Function>
ChildResult asOrdinaryUser(Function function)
{
    return inChild([function] {
        if (getuid() == 0 && setuid(nobody) != 0)
            return 99;
        return function();
    });
}

} // namespace

class TestPidFileHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        QVERIFY(m_folder->isValid());
        QCOMPARE(chmod(QFile::encodeName(m_folder->path()).constData(), 0755), 0);
        m_path = QFile::encodeName(m_folder->filePath(QStringLiteral("kvsnmp.pid")));
    }

    void cleanup() { m_folder.reset(); }

    void contentAndCheck_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file
        QTest::addColumn<int>("read");
        QTest::addColumn<int>("blocking");
        const QByteArray dead = QByteArray::number(deadPid());
        const QByteArray parent = QByteArray::number(getppid());
        // clang-format off
        QTest::newRow("no file")                      << QByteArray() << 0 << 0;
        QTest::newRow("empty")                        << QByteArray("") << 0 << 0;
        QTest::newRow("letters")                      << QByteArray("none\n") << 0 << 0;
        QTest::newRow("NUL bytes")                    << QByteArray(8, '\0') << 0 << 0;
        QTest::newRow("0")                            << QByteArray("0\n") << 0 << 0;
        QTest::newRow("a process that has ended")     << dead + "\n" << dead.toInt() << 0;
        QTest::newRow("the own number")               << QByteArray::number(getpid()) + "\n" << getpid() << 0;
        QTest::newRow("a process that lives")         << parent + "\n" << getppid() << getppid();
        QTest::newRow("no line end")                  << parent << getppid() << getppid();
        QTest::newRow("blanks before it")             << "  " + parent + "\n" << getppid() << getppid();
        QTest::newRow("rest of a longer number")      << parent + "\n45\n" << getppid() << getppid();
        QTest::newRow("letters behind it")            << parent + "ab\n" << getppid() << getppid();
        // To kill() a number below zero is a process group, which may be there or not.
        QTest::newRow("a process group that is there") << "-" + QByteArray::number(getpgrp()) + "\n" << -getpgrp() << -getpgrp();
        QTest::newRow("a process group that is not")  << "-" + dead + "\n" << -dead.toInt() << 0;
        // clang-format on
    }

    void contentAndCheck()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, read);
        QFETCH(int, blocking);

        if (!content.isNull())
            write(content);
        const PidFileHandler handler(m_path.constData());
        QCOMPARE(handler.readPid(), read);
        QCOMPARE(handler.checkPid(), blocking);
    }

    void unreadableFileReadsAsNone()
    {
        write(QByteArray::number(getpid()));
        QCOMPARE(chmod(m_path.constData(), 0), 0);
        const ChildResult child = asOrdinaryUser([this] {
            if (open(m_path.constData(), O_RDONLY) >= 0)
                return 98;
            const PidFileHandler handler(m_path.constData());
            return handler.readPid() == 0 && handler.checkPid() == 0 ? 0 : 1;
        });
        QVERIFY(child.exitedWith(0));
    }

    void errnoOfTheCheckIsThatOfKill()
    {
        write("1\n");
        const ChildResult otherUser = asOrdinaryUser([this] {
            const PidFileHandler handler(m_path.constData());
            return handler.checkPid() == 1 && errno == EPERM ? 0 : 1;
        });
        QVERIFY(otherUser.exitedWith(0));

        write(QByteArray::number(getppid()) + '\n');
        const PidFileHandler handler(m_path.constData());
        errno = EAGAIN; // of something before
        const pid_t pid = handler.checkPid();
        const int error = errno;
        QCOMPARE(pid, getppid());
        QCOMPARE(error, 0);
    }

    void writesTheOwnPid()
    {
        const PidFileHandler handler(m_path.constData());
        const mode_t savedMask = umask(0);
        QCOMPARE(handler.writePid(), getpid());
        umask(savedMask);
        QCOMPARE(content(), QByteArray::number(getpid()) + '\n');
        struct stat info {};
        QCOMPARE(stat(m_path.constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777U, mode_t{0644});
    }

    void writesOverALongerNumberWithoutTruncating()
    {
        write("12345678901234567890\n");
        const PidFileHandler handler(m_path.constData());
        QCOMPARE(handler.writePid(), getpid());
        const QByteArray pid = QByteArray::number(getpid()) + '\n';
        QCOMPARE(content(), pid + QByteArray("12345678901234567890\n").mid(pid.size()));
        QCOMPARE(handler.readPid(), getpid());
    }

    void lockIsNotKept()
    {
        const PidFileHandler handler(m_path.constData());
        QCOMPARE(handler.writePid(), getpid());
        const int descriptor = open(m_path.constData(), O_RDWR);
        QCOMPARE(flock(descriptor, LOCK_EX | LOCK_NB), 0);
        close(descriptor);
    }

    void heldLockIsReportedWithItsHolder()
    {
        write("4711\n");
        const int descriptor = open(m_path.constData(), O_RDWR);
        QCOMPARE(flock(descriptor, LOCK_EX | LOCK_NB), 0);
        const ChildResult child = inChild([this] { // its own open file: the lock is not its own
            const PidFileHandler handler(m_path.constData());
            const int status = handler.writePid() == 0 ? 0 : 1;
            std::fflush(stdout);
            _exit(status); // the file stays
            return status;
        });
        QVERIFY(child.exitedWith(0));
        QCOMPARE(child.out, QByteArray("Can't lock, lock is held by pid 4711.\n"));
        QCOMPARE(content(), QByteArray("4711\n"));
        close(descriptor);
    }

    void twoWritersAtOnce()
    {
        // Whoever gets the lock writes; the other one either waits his turn or is refused. Never does a mix stand
        // there.
        for (int round = 0; round < 20; ++round) {
            QFile::remove(QFile::decodeName(m_path));
            pid_t writers[2];
            for (pid_t &writer : writers) {
                writer = fork();
                if (writer == 0) {
                    const PidFileHandler handler(m_path.constData());
                    _exit(handler.writePid() == getpid() ? 0 : 1);
                }
            }
            int successes = 0;
            for (const pid_t writer : writers) {
                int status = -1;
                waitpid(writer, &status, 0);
                if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
                    ++successes;
            }
            QVERIFY(successes >= 1);
            // The first line: behind it may stand the end of a longer number, when the pids began anew between the two.
            const QByteArray found = content().split('\n').first();
            QVERIFY2(found == QByteArray::number(writers[0]) || found == QByteArray::number(writers[1]),
                     found.constData());
        }
    }

    void folderThatIsNotThere()
    {
        const QByteArray path = m_path + "/not/there";
        const ChildResult child = inChild([path] {
            const PidFileHandler handler(path.constData());
            return handler.writePid() == 0 ? 0 : 1;
        });
        QVERIFY(child.exitedWith(0));
        QCOMPARE(child.err, "Can't open or create " + path + ".\n");
        QCOMPARE(child.out, QByteArray());
    }

    void fullDisk()
    {
        // A link, because the handler removes its file when it goes.
        QCOMPARE(symlink("/dev/full", m_path.constData()), 0);
        const ChildResult child = inChild([this] {
            const PidFileHandler handler(m_path.constData());
            return handler.writePid() == 0 ? 0 : 1;
        });
        QVERIFY(child.exitedWith(0));
        QCOMPARE(child.out, QByteArray("Can't write pid , No space left on device.\n"));
    }

    void errnoIsThatOfTheFailure_data()
    {
        QTest::addColumn<QByteArray>("target"); // of a link at the path; empty: a file whose lock is held
        QTest::addColumn<int>("error");

        QTest::newRow("no folder") << QByteArray("/nonexistent/kvsnmp.pid") << ENOENT;
        QTest::newRow("held lock") << QByteArray() << EWOULDBLOCK;
        QTest::newRow("full disk") << QByteArray("/dev/full") << ENOSPC;
    }

    void errnoIsThatOfTheFailure()
    {
        QFETCH(QByteArray, target);
        QFETCH(int, error);

        int locked = -1;
        if (target.isEmpty()) {
            locked = open(m_path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            QCOMPARE(flock(locked, LOCK_EX | LOCK_NB), 0);
        } else {
            QCOMPARE(symlink(target.constData(), m_path.constData()), 0);
        }
        const ChildResult child = inChild([this, error] {
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            close(STDOUT_FILENO);
            close(STDERR_FILENO); // so that the message fails, too
            const PidFileHandler handler(m_path.constData());
            return handler.writePid() == 0 && errno == error ? 0 : 1;
        });
        QVERIFY(child.exitedWith(0));
        close(locked);
    }

    void destructorRemovesTheFile()
    {
        {
            const PidFileHandler handler(m_path.constData());
            QCOMPARE(handler.writePid(), getpid());
            QVERIFY(QFile::exists(QFile::decodeName(m_path)));
        }
        QVERIFY(!QFile::exists(QFile::decodeName(m_path)));
    }

    void removesALinkAndNotItsTarget()
    {
        const QString target = m_folder->filePath(QStringLiteral("target"));
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(QFile::link(target, QFile::decodeName(m_path)));
        const PidFileHandler handler(m_path.constData());
        handler.removePid();
        QVERIFY(!QFileInfo(QFile::decodeName(m_path)).isSymLink());
        QVERIFY(QFile::exists(target));
    }

private:
    void write(const QByteArray &content) const
    {
        QFile file(QFile::decodeName(m_path));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64{content.size()});
    }

    QByteArray content() const
    {
        QFile file(QFile::decodeName(m_path));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
    }

    QScopedPointer<QTemporaryDir> m_folder;
    QByteArray m_path;
};

const TestEntry entry("tst_pidfilehandler", runTest<TestPidFileHandler>);
#include "tst_pidfilehandler.moc"
