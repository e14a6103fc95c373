// Processes and pid files, from a folder in the shape of /proc.
#include "support/testprogram.h"

#include "check/processes.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

void write(const QString &path, const QByteArray &text)
{
    QVERIFY(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(text);
}

/// The fields of a process up to its start, 4000 s after the system's.
QByteArray stat(const char *name, char state)
{
    const QByteArray ticks = QByteArray::number(4000 * static_cast<qlonglong>(sysconf(_SC_CLK_TCK)));
    return QByteArray("7 (") + name + ") " + state + " 1 1 1 0 -1 4194560 1 0 0 0 1 1 0 0 20 0 1 0 " + ticks +
           " 100 2\n";
}

} // namespace

class TestProcesses : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void findsThemByName()
    {
        write(file("12/stat"), stat("snmpd", 'S'));
        write(file("9/stat"), stat("snmpd", 'R'));
        write(file("13/stat"), stat("snmpd", 'Z')); // ended, not yet reaped
        write(file("14/stat"), stat("snmptrapd", 'S'));
        write(file("15/stat"), QByteArray()); // ends while it is looked at
        write(file("self/stat"), stat("snmpd", 'S'));
        const std::vector<Process> found = processesNamed("snmpd", proc());
        QCOMPARE(pidsOf(found), QStringLiteral("9 and 12"));
        QVERIFY(!processOf(13, proc()));
        QVERIFY(!processOf(99, proc()));
    }

    void tellsTheStart()
    {
        write(file("stat"), "cpu 1 2\nbtime 1000000\n");
        write(file("20/stat"), stat("kvsnmp", 'S'));
        QCOMPARE(processOf(20, proc())->started.toSecsSinceEpoch(), qint64{1004000});
    }

    void aStoppedOneIsTold_data()
    {
        QTest::addColumn<char>("state");
        QTest::addColumn<bool>("stopped");
        QTest::newRow("sleeping") << 'S' << false;
        QTest::newRow("waiting for a disk") << 'D' << false;
        QTest::newRow("stopped") << 'T' << true;
        QTest::newRow("traced") << 't' << true;
    }

    void aStoppedOneIsTold()
    {
        QFETCH(char, state);
        write(file("21/stat"), stat("kvsnmp", state));
        QTEST(processOf(21, proc())->isStopped(), "stopped");
    }

    void aNameWithBlanksAndBrackets()
    {
        write(file("22/stat"), stat("a) S (b", 'S'));
        QCOMPARE(processOf(22, proc())->name, QByteArray("a) S (b"));
    }

    void thisProcessIsFound()
    {
        const std::optional<Process> self = processOf(getpid());
        QVERIFY(self);
        QCOMPARE(self->name, QCoreApplication::applicationName().toLocal8Bit());
        QVERIFY(qAbs(self->started.secsTo(QDateTime::currentDateTime())) < 100);
    }

    void environment()
    {
        write(file("30/environ"), QByteArray("PATH=/bin:/sbin\0EMPTY=\0A=b=c\0", 29));
        const QMap<QByteArray, QByteArray> variables = environmentOf(30, proc());
        QCOMPARE(variables.value("PATH"), QByteArray("/bin:/sbin"));
        QCOMPARE(variables.value("A"), QByteArray("b=c"));
        QVERIFY(variables.contains("EMPTY"));
        QVERIFY(environmentOf(31, proc()).isEmpty());
    }

    void pidFile_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("pid");
        QTest::newRow("number and line end") << QByteArray("123\n") << 123;
        QTest::newRow("further lines") << QByteArray("123\n456\n") << 123;
        QTest::newRow("empty") << QByteArray() << 0;
        QTest::newRow("no number") << QByteArray("snmpd\n") << 0;
    }

    void pidFile()
    {
        QFETCH(QByteArray, text);
        write(file("pid"), text);
        QTEST(pidInFile(file("pid")).value_or(-1), "pid");
        QVERIFY(!pidInFile(file("no-such-file")));
    }

private:
    QString proc() const { return m_folder.path(); }
    QString file(const char *name) const { return m_folder.filePath(QString::fromLatin1(name)); }

    QTemporaryDir m_folder;
};

const TestEntry entry("tst_processes", runTest<TestProcesses>);
#include "tst_processes.moc"
