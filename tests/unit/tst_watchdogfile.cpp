// The watchdog file: written again and again, and created anew when something else is at its path.
#include "support/files.h"
#include "support/testprogram.h"

#include "app/watchdogfile.h"

#include <atomic>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {
int bindSocket(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path, sizeof address.sun_path);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const int result = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    close(descriptor);
    return result;
}
} // namespace

class TestWatchdogFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        m_path = pathOf("file");
        m_target = pathOf("target");
        writeFile(m_target, "precious");
    }

    void fileIsCreatedAndRewrittenInPlace()
    {
        QVERIFY(update());
        QCOMPARE(readFile(m_path), "update\n");
        writeFile(m_path, "something that is longer than the line\n");
        const ino_t inode = statusOf(m_path).st_ino;
        QVERIFY(update());
        QVERIFY(update());
        QCOMPARE(readFile(m_path), "update\n");
        QCOMPARE(statusOf(m_path).st_ino, inode);
    }

    void anythingElseIsReplaced()
    {
        static constexpr std::pair<const char *, int (*)(const char *path, const char *target)> rows[] = {
            {"symbolic link to a file", [](const char *path, const char *target) { return symlink(target, path); }},
            {"dangling link", [](const char *path, const char *) { return symlink("nothing", path); }},
            {"link to itself", [](const char *path, const char *) { return symlink(path, path); }},
            {"link to a folder", [](const char *path, const char *) { return symlink("/", path); }},
            {"link to a device", [](const char *path, const char *) { return symlink("/dev/null", path); }},
            {"hard link", [](const char *path, const char *target) { return link(target, path); }},
            {"pipe", [](const char *path, const char *) { return mkfifo(path, 0666); }},
            {"socket", [](const char *path, const char *) { return bindSocket(path); }},
        };
        for (const auto &[name, plant] : rows) {
            const AtRow at(name);
            QCOMPARE(plant(m_path.constData(), m_target.constData()), 0);
            QVERIFY(update());
            QCOMPARE(readFile(m_path), "update\n");
            QCOMPARE(readFile(m_target), "precious");
            QCOMPARE(entries(), (QStringList{QStringLiteral("file"), QStringLiteral("target")}));
            QCOMPARE(statusOf(m_path).st_mode, mode_t{S_IFREG | 0644});
            QCOMPARE(statusOf(m_path).st_nlink, nlink_t{1});
            QCOMPARE(unlink(m_path.constData()), 0);
        }
    }

    void readerOfAPlantedPipeNeverMeetsAWriter()
    {
        QCOMPARE(mkfifo(m_path.constData(), 0644), 0);
        pollfd reader = {open(m_path.constData(), O_RDONLY | O_NONBLOCK), POLLIN, 0};
        QVERIFY(update());
        QCOMPARE(readFile(m_path), "update\n");
        QCOMPARE(poll(&reader, 1, 0), 0); // POLLHUP after a writer
        close(reader.fd);
    }

    void linksThatReturnNeitherStopItNorAreWrittenThrough()
    {
        std::atomic<bool> goOn{true};
        std::atomic<int> planted{0};
        std::thread planter([&] {
            while (goOn)
                planted += symlink(m_target.constData(), m_path.constData()) == 0 ? 1 : 0;
        });
        int updated = 0;
        constexpr int ticks = 1000;
        for (int tick = 0; tick < ticks; ++tick) {
            updated += update() ? 1 : 0;
            const int before = planted;
            unlink(m_path.constData());
            while (planted == before)
                std::this_thread::yield();
        }
        goOn = false;
        planter.join();
        QCOMPARE(updated, ticks);
        QCOMPARE(readFile(m_target), "precious");
    }

    void folders()
    {
        QVERIFY(!updateWatchdogFile((m_path + "/not/there").constData()));
        QCOMPARE(mkdir(m_path.constData(), 0755), 0);
        QVERIFY(!update());
        QVERIFY(S_ISDIR(statusOf(m_path).st_mode));
        QCOMPARE(entries(), (QStringList{QStringLiteral("file"), QStringLiteral("target")}));
    }

private:
    bool update() const { return updateWatchdogFile(m_path.constData()); }
    QByteArray pathOf(const char *name) const { return QFile::encodeName(m_folder->filePath(QLatin1String(name))); }
    QStringList entries() const
    {
        return QDir(m_folder->path()).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    }

    QScopedPointer<QTemporaryDir> m_folder;
    QByteArray m_path;
    QByteArray m_target;
};

const TestEntry entry("tst_watchdogfile", runTest<TestWatchdogFile>);
#include "tst_watchdogfile.moc"
