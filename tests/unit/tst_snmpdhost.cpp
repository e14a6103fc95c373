// How commands are run for the snmpd supervision, with harmless ones.
#include "support/files.h"
#include "support/testprogram.h"

#include "snmpdconf/snmpdhost.h"

#include <cerrno>
#include <csignal>

namespace {
const SnmpdHost host = deviceHost();
const Command missingCommand{QStringLiteral("no-such-command-anywhere"), {}};
constexpr int longMs = 30000;
#define STREAMS "streams=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2); "

/// Each %1 in the script is `file`.
Command shell(const char *script, const QString &file = {})
{
    const QString text =
        QString::fromLatin1(script).replace(QStringLiteral("%1"), QLatin1Char('\'') + file + QLatin1Char('\''));
    return {QStringLiteral("sh"), {QStringLiteral("-c"), text}};
}
} // namespace

class TestSnmpdHost : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        m_file = m_dir->filePath(QStringLiteral("file"));
        m_timer.start();
    }

    void runWaitsForTheEndAndIgnoresFailures()
    {
        host.run(shell(STREAMS "sleep 0.3; echo \"$streams\" > %1; exit 3", m_file));
        QCOMPARE(readFile(m_file), QByteArray("/dev/null\n").repeated(3));
        host.run(missingCommand);
        QVERIFY(m_timer.elapsed() < 5000);
    }

    void startDetachedDoesNotWaitAndHidesTheServiceManager()
    {
        static constexpr const char *hidden[] = {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};
        for (const char *name : hidden)
            qputenv(name, "1");
        qputenv("KVSNMP_TEST_ENVIRONMENT", "inherited");
        host.startDetached(shell(STREAMS "sleep 1; { echo \"$streams\"; env; } > %1.new; mv %1.new %1", m_file));
        host.startDetached(missingCommand);
        QVERIFY2(m_timer.elapsed() < 900, "it did not wait");
        for (const char *name : hidden)
            qunsetenv(name);
        qunsetenv("KVSNMP_TEST_ENVIRONMENT");
        QTRY_VERIFY(QFile::exists(m_file));
        const QByteArray environment = readFile(m_file);
        QVERIFY(environment.startsWith(QByteArray("/dev/null\n").repeated(3)));
        QVERIFY(environment.contains("KVSNMP_TEST_ENVIRONMENT=inherited\n"));
        for (const char *name : hidden)
            QVERIFY2(!environment.contains(name), name);
    }

    void outputIsReadWhateverItsSizeAndTheExitStatus()
    {
        // More than a pipe holds: a reader that only waits would wait forever.
        const QByteArray output =
            host.outputOf(shell("head -c 300000 /dev/zero; printf '8192\\n'; echo 'not this' >&2"), longMs);
        QCOMPARE(output.size(), 300005);
        QVERIFY(output.endsWith("8192\n"));
        for (const char *script : {"echo 8192; exit 1", "echo 8192; kill -9 $$"})
            QCOMPARE(host.outputOf(shell(script), longMs), "8192\n");
        QCOMPARE(host.outputOf(missingCommand, longMs), QByteArray());
    }

    void outputOfASlowCommandIsEmpty()
    {
        const QByteArray output = host.outputOf(shell("echo $$ > %1; echo 8192; exec sleep 60", m_file), 500);
        QVERIFY(m_timer.elapsed() >= 495);
        QVERIFY(m_timer.elapsed() < 5000);
        QCOMPARE(output, QByteArray());

        // Killed, and not left behind as a zombie.
        const pid_t pid = readFile(m_file).trimmed().toInt();
        QVERIFY(pid > 0);
        QTRY_VERIFY(kill(pid, 0) == -1 && errno == ESRCH);
    }

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QString m_file;
    QElapsedTimer m_timer;
};

const TestEntry entry("tst_snmpdhost", runTest<TestSnmpdHost>);
#include "tst_snmpdhost.moc"
