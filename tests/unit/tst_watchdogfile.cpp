// The watchdog file: written again and again, but never through anything that somebody else has put there.
#include "app/watchdogfile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

class TestWatchdogFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void createsTheFile();
    void replacesOlderContent();
    void folderThatIsNotThere();
    void symbolicLinkIsNotFollowed();
    void danglingLinkCreatesNothing();
    void hardLinkLeavesTheOtherNameAlone();
    void pipeDoesNotBlock_data();
    void pipeDoesNotBlock();
    void directory();

private:
    static QByteArray contentOf(const QByteArray &path);
    QByteArray pathOf(const char *name) const { return QFile::encodeName(m_folder->filePath(QLatin1String(name))); }

    QScopedPointer<QTemporaryDir> m_folder;
    QByteArray m_path;
};

void TestWatchdogFile::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
    m_path = pathOf("kvsnmp.watchdogtest");
}

QByteArray TestWatchdogFile::contentOf(const QByteArray &path)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
}

void TestWatchdogFile::createsTheFile()
{
    QVERIFY(updateWatchdogFile(m_path.constData()));
    QCOMPARE(contentOf(m_path), QByteArray("update\n"));
}

void TestWatchdogFile::replacesOlderContent()
{
    QFile file(QFile::decodeName(m_path));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("something that is longer than the line\n");
    file.close();
    QVERIFY(updateWatchdogFile(m_path.constData()));
    QVERIFY(updateWatchdogFile(m_path.constData()));
    QCOMPARE(contentOf(m_path), QByteArray("update\n"));
}

void TestWatchdogFile::folderThatIsNotThere()
{
    QVERIFY(!updateWatchdogFile((m_path + "/not/there").constData()));
}

void TestWatchdogFile::symbolicLinkIsNotFollowed()
{
    const QByteArray target = pathOf("target");
    QFile file(QFile::decodeName(target));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    QCOMPARE(symlink(target.constData(), m_path.constData()), 0);
    QVERIFY(!updateWatchdogFile(m_path.constData()));
    QCOMPARE(contentOf(target), QByteArray("precious"));
}

void TestWatchdogFile::danglingLinkCreatesNothing()
{
    const QByteArray target = pathOf("target");
    QCOMPARE(symlink(target.constData(), m_path.constData()), 0);
    QVERIFY(!updateWatchdogFile(m_path.constData()));
    QVERIFY(!QFile::exists(QFile::decodeName(target)));
}

void TestWatchdogFile::hardLinkLeavesTheOtherNameAlone()
{
    const QByteArray target = pathOf("target");
    QFile file(QFile::decodeName(target));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    QCOMPARE(link(target.constData(), m_path.constData()), 0);
    QVERIFY(!updateWatchdogFile(m_path.constData()));
    QCOMPARE(contentOf(target), QByteArray("precious"));
}

void TestWatchdogFile::pipeDoesNotBlock_data()
{
    QTest::addColumn<bool>("hasReader");

    QTest::newRow("without a reader") << false;
    QTest::newRow("with a reader") << true;
}

void TestWatchdogFile::pipeDoesNotBlock()
{
    QFETCH(bool, hasReader);

    QCOMPARE(mkfifo(m_path.constData(), 0644), 0);
    const int reader = hasReader ? open(m_path.constData(), O_RDONLY | O_NONBLOCK) : -1;
    QVERIFY(!updateWatchdogFile(m_path.constData()));
    if (hasReader)
        close(reader);
}

void TestWatchdogFile::directory()
{
    QCOMPARE(mkdir(m_path.constData(), 0755), 0);
    QVERIFY(!updateWatchdogFile(m_path.constData()));
}

QTEST_GUILESS_MAIN(TestWatchdogFile)
#include "tst_watchdogfile.moc"
