// Processes and pid files, from a folder in the shape of /proc.
#include "support/files.h"
#include "support/testprogram.h"

#include "check/processes.h"

#include <unistd.h>

namespace {
/// The fields of a process up to its start, 4000 s after the system's.
QByteArray stat(const char *name, char state, int parent = 1)
{
    const QByteArray ticks = QByteArray::number(4000 * static_cast<qlonglong>(sysconf(_SC_CLK_TCK)));
    return QByteArray("7 (") + name + ") " + state + " " + QByteArray::number(parent) +
           " 1 1 0 -1 4194560 1 0 0 0 1 1 0 0 20 0 1 0 " + ticks + " 100 2\n";
}
} // namespace

class TestProcesses : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void processesAreFoundByName()
    {
        write("12/stat", stat("snmpd", 'S'));
        write("9/stat", stat("snmpd", 'R'));
        write("13/stat", stat("snmpd", 'Z')); // ended, not yet reaped
        write("14/stat", stat("snmptrapd", 'S'));
        write("15/stat", QByteArray());           // ends while it is looked at
        write("16/stat", stat("snmpd", 'S', 12)); // forked, has not executed its program yet
        write("self/stat", stat("snmpd", 'S'));
        QCOMPARE(pidsOf(processesNamed("snmpd", proc())), QStringLiteral("9 and 12"));
        QVERIFY(!processOf(13, proc()));
        QVERIFY(!processOf(99, proc()));
    }

    void startNameAndState()
    {
        write("stat", "cpu 1 2\nbtime 1000000\n");
        for (const char state : {'S', 'D', 'T', 't'}) {
            write("21/stat", stat("a) S (b", state));
            const std::optional<Process> process = processOf(21, proc());
            QVERIFY(process);
            QCOMPARE(process->name, "a) S (b");
            QCOMPARE(process->isStopped(), state == 'T' || state == 't');
            QCOMPARE(process->started.toSecsSinceEpoch(), qint64{1004000});
        }
    }

    void environment()
    {
        write("30/environ", QByteArray("PATH=/bin:/sbin\0EMPTY=\0A=b=c\0", 29));
        const QMap<QByteArray, QByteArray> expected = {{"PATH", "/bin:/sbin"}, {"EMPTY", ""}, {"A", "b=c"}};
        QCOMPARE(environmentOf(30, proc()), expected);
        QVERIFY(environmentOf(31, proc()).isEmpty());
    }

    void pidFile()
    {
        static constexpr struct {
            const char *text;
            int pid;
        } rows[] = {{"123\n", 123}, {"123\n456\n", 123}, {"", 0}, {"snmpd\n", 0}};
        const QString path = m_folder.filePath(QStringLiteral("pid"));
        QVERIFY(!pidInFile(path));
        for (const auto &row : rows) {
            const AtRow at(row.text);
            write("pid", row.text);
            QCOMPARE(pidInFile(path).value_or(-1), row.pid);
        }
    }

private:
    QString proc() const { return m_folder.path(); }
    void write(const char *name, const QByteArray &text) const
    {
        const QString path = m_folder.filePath(QLatin1String(name));
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        writeFile(path, text);
    }

    QTemporaryDir m_folder;
};

const TestEntry entry("tst_processes", runTest<TestProcesses>);
#include "tst_processes.moc"
