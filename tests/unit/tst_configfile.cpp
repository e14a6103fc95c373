// snmpd.conf in place, where it cannot be deleted. How it is made anew is in tst_snmpdconfhandler.
#include "snmpdconf/configfile.h"

#include "support/testprogram.h"
#include "support/undeletable.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Outcome = ConfigFileResult::Outcome;
using Make = std::function<bool(const QByteArray &path, const QByteArray &other)>;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
}

bool writeContent(const QByteArray &path, const QByteArray &text)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

struct stat statusOf(const QByteArray &path)
{
    struct stat status {};
    if (lstat(path.constData(), &status) != 0)
        qFatal("%s is gone", path.constData());
    return status;
}

} // namespace

Q_DECLARE_METATYPE(Make)

class TestConfigFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        QVERIFY(QDir().mkpath(m_dir->filePath(QStringLiteral("snmp"))));
        m_path = QFile::encodeName(m_dir->filePath(QStringLiteral("snmp/snmpd.conf")));
        m_other = QFile::encodeName(m_dir->filePath(QStringLiteral("other")));
    }

    void longerFileIsShortenedAndClosedToOthers()
    {
        QVERIFY(writeContent(m_path, "# older, and longer than what comes\n"));
        QCOMPARE(chmod(m_path.constData(), 0644), 0);
        const Undeletable file(QFile::decodeName(m_path));
        const ino_t inode = statusOf(m_path).st_ino;
        const AsOrdinaryUser user;
        const ConfigFileResult result = writeConfigFile(QFile::decodeName(m_path), "# new\n");
        QCOMPARE(result.outcome, Outcome::InPlace);
        QCOMPARE(result.complaint,
                 QByteArray("snmpd.conf is written in place, it cannot be deleted: Permission denied"));
        QCOMPARE(contentOf(QFile::decodeName(m_path)), QByteArray("# new\n"));
        QCOMPARE(statusOf(m_path).st_ino, inode);
        QCOMPARE(uint{statusOf(m_path).st_mode}, uint{S_IFREG | 0600});
    }

    void fileOfAnotherUserIsWrittenAndComplainedAbout()
    {
        if (geteuid() != 0)
            QSKIP("only root can make a file of another user");
        QVERIFY(writeContent(m_path, "# older\n"));
        const Undeletable file(QFile::decodeName(m_path));
        QCOMPARE(chown(m_path.constData(), 12345, 0), 0);
        QCOMPARE(chmod(m_path.constData(), 0666), 0);
        ConfigFileResult result{};
        {
            const AsOrdinaryUser user;
            result = writeConfigFile(QFile::decodeName(m_path), "# new\n");
        }
        QCOMPARE(result.outcome, Outcome::InPlace);
        QCOMPARE(result.complaint,
                 QByteArray("snmpd.conf is written in place, it cannot be deleted: Permission denied; "
                            "user 12345 owns it, mode 0666"));
        QCOMPARE(contentOf(QFile::decodeName(m_path)), QByteArray("# new\n"));
    }

    void fileThatLeadsElsewhereIsLeftAlone_data()
    {
        QTest::addColumn<Make>("make");
        const auto row = [](const char *name, const Make &make) { QTest::newRow(name) << make; };
        row("symbolic link", [](const QByteArray &path, const QByteArray &other) {
            return symlink(other.constData(), path.constData()) == 0;
        });
        row("hard link", [](const QByteArray &path, const QByteArray &other) {
            return link(other.constData(), path.constData()) == 0;
        });
        row("pipe", [](const QByteArray &path, const QByteArray &) { return mkfifo(path.constData(), 0666) == 0; });
    }

    void fileThatLeadsElsewhereIsLeftAlone()
    {
        QFETCH(Make, make);
        QVERIFY(writeContent(m_other, "somebody else's\n"));
        QCOMPARE(chmod(m_other.constData(), 0666), 0);
        QVERIFY(make(m_path, m_other));
        const Undeletable file(QFile::decodeName(m_path));
        const mode_t mode = statusOf(m_path).st_mode;
        ConfigFileResult result{};
        {
            const AsOrdinaryUser user;
            result = writeConfigFile(QFile::decodeName(m_path), "# new\n");
        }
        QCOMPARE(result.outcome, Outcome::LeftAlone);
        QCOMPARE(result.complaint,
                 QByteArray("snmpd.conf is left as it is, it cannot be deleted (Permission denied) and "
                            "is not a regular file with one name"));
        QCOMPARE(contentOf(QFile::decodeName(m_other)), QByteArray("somebody else's\n"));
        QCOMPARE(statusOf(m_path).st_mode, mode);
    }

    void fileThatMayNotBeWrittenIsPassedOverInSilence()
    {
        QVERIFY(writeContent(m_path, "# older\n"));
        QCOMPARE(chmod(m_path.constData(), 0444), 0);
        const Undeletable file(QFile::decodeName(m_path));
        const AsOrdinaryUser user;
        const ConfigFileResult result = writeConfigFile(QFile::decodeName(m_path), "# new\n");
        QCOMPARE(result.outcome, Outcome::NotOpened);
        QCOMPARE(result.complaint, QByteArray());
        QCOMPARE(contentOf(QFile::decodeName(m_path)), QByteArray("# older\n"));
    }

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QByteArray m_path;
    QByteArray m_other;
};

const TestEntry entry("tst_configfile", runTest<TestConfigFile>);

#include "tst_configfile.moc"
