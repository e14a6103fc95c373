// The watchdog file: written again and again, and made anew when something else stands at its path.
#include "support/testprogram.h"

#include "app/watchdogfile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using Plant = std::function<bool(const char *path, const char *target)>;
Q_DECLARE_METATYPE(Plant)

namespace {

bool bindSocket(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path, sizeof address.sun_path);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const int result = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    close(descriptor);
    return result == 0;
}

struct stat lookAt(const QByteArray &path)
{
    struct stat info {};
    lstat(path.constData(), &info);
    return info;
}

} // namespace

class TestWatchdogFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        QVERIFY(m_folder->isValid());
        m_path = pathOf("kvsnmp.watchdogtest");
    }

    void createsTheFile()
    {
        QVERIFY(updateWatchdogFile(m_path.constData()));
        QCOMPARE(contentOf(m_path), QByteArray("update\n"));
    }

    void replacesOlderContentInPlace()
    {
        write(m_path, "something that is longer than the line\n");
        const ino_t inode = lookAt(m_path).st_ino;
        QVERIFY(updateWatchdogFile(m_path.constData()));
        QVERIFY(updateWatchdogFile(m_path.constData()));
        QCOMPARE(contentOf(m_path), QByteArray("update\n"));
        QCOMPARE(lookAt(m_path).st_ino, inode);
    }

    void folderThatIsNotThere() { QVERIFY(!updateWatchdogFile((m_path + "/not/there").constData())); }

    void anythingElseIsReplaced_data()
    {
        QTest::addColumn<Plant>("plant");

        QTest::newRow("symbolic link to a file")
            << Plant([](const char *p, const char *t) { return symlink(t, p) == 0; });
        QTest::newRow("dangling link") << Plant([](const char *p, const char *) { return symlink("nothing", p) == 0; });
        QTest::newRow("link to itself") << Plant([](const char *p, const char *) { return symlink(p, p) == 0; });
        QTest::newRow("link to a folder") << Plant([](const char *p, const char *) { return symlink("/", p) == 0; });
        QTest::newRow("link to a device")
            << Plant([](const char *p, const char *) { return symlink("/dev/null", p) == 0; });
        QTest::newRow("hard link") << Plant([](const char *p, const char *t) { return link(t, p) == 0; });
        QTest::newRow("pipe") << Plant([](const char *p, const char *) { return mkfifo(p, 0666) == 0; });
        QTest::newRow("socket") << Plant([](const char *p, const char *) { return bindSocket(p); });
    }

    void anythingElseIsReplaced()
    {
        QFETCH(Plant, plant);

        const QByteArray target = pathOf("target");
        write(target, "precious");
        QVERIFY(plant(m_path.constData(), target.constData()));
        QVERIFY(updateWatchdogFile(m_path.constData()));
        QCOMPARE(contentOf(m_path), QByteArray("update\n"));
        QCOMPARE(contentOf(target), QByteArray("precious"));
        QCOMPARE(entries(), (QStringList{QStringLiteral("kvsnmp.watchdogtest"), QStringLiteral("target")}));
        const struct stat made = lookAt(m_path);
        QVERIFY(S_ISREG(made.st_mode));
        QCOMPARE(made.st_nlink, nlink_t{1});
        QCOMPARE(made.st_mode & 07777, mode_t{0644});
    }

    void readerOfAPipeGetsNothing()
    {
        QCOMPARE(mkfifo(m_path.constData(), 0644), 0);
        const int reader = open(m_path.constData(), O_RDONLY | O_NONBLOCK);
        QVERIFY(updateWatchdogFile(m_path.constData()));
        QCOMPARE(contentOf(m_path), QByteArray("update\n"));
        char byte = 0;
        QCOMPARE(read(reader, &byte, sizeof byte), ssize_t{0});
        close(reader);
    }

    void whoPlantsAgainAndAgainNeitherStopsItNorIsWrittenThrough()
    {
        const QByteArray target = pathOf("target");
        write(target, "precious");
        std::atomic<bool> goOn{true};
        std::atomic<int> planted{0};
        std::thread planter([&] {
            while (goOn)
                planted += symlink(target.constData(), m_path.constData()) == 0 ? 1 : 0;
        });
        int updated = 0;
        constexpr int ticks = 1000;
        for (int tick = 0; tick < ticks; ++tick) {
            updated += updateWatchdogFile(m_path.constData()) ? 1 : 0;
            const int before = planted;
            unlink(m_path.constData());
            while (planted == before)
                std::this_thread::yield();
        }
        goOn = false;
        planter.join();
        QCOMPARE(updated, ticks);
        QCOMPARE(contentOf(target), QByteArray("precious"));
    }

    void directoryIsLeftAlone()
    {
        QCOMPARE(mkdir(m_path.constData(), 0755), 0);
        QVERIFY(!updateWatchdogFile(m_path.constData()));
        QVERIFY(S_ISDIR(lookAt(m_path).st_mode));
        QCOMPARE(entries(), QStringList{QStringLiteral("kvsnmp.watchdogtest")});
    }

private:
    static QByteArray contentOf(const QByteArray &path)
    {
        QFile file(QFile::decodeName(path));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
    }

    static void write(const QByteArray &path, const QByteArray &content)
    {
        QFile file(QFile::decodeName(path));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64{content.size()});
    }

    QStringList entries() const
    {
        return QDir(m_folder->path()).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    }
    QByteArray pathOf(const char *name) const { return QFile::encodeName(m_folder->filePath(QLatin1String(name))); }

    QScopedPointer<QTemporaryDir> m_folder;
    QByteArray m_path;
};

const TestEntry entry("tst_watchdogfile", runTest<TestWatchdogFile>);
#include "tst_watchdogfile.moc"
