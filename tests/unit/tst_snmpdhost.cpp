// How commands are run for the snmpd supervision, with harmless ones.
#include "support/testprogram.h"

#include "snmpdconf/snmpdhost.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <csignal>

namespace {

Command shell(const QString &script)
{
    return {QStringLiteral("sh"), {QStringLiteral("-c"), script}};
}

const Command missingCommand{QStringLiteral("no-such-command-anywhere"), {}};

} // namespace

class TestSnmpdHost : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void pathsAreTheSystems()
    {
        const SnmpdHost host = deviceHost();
        QCOMPARE(host.configFile, QStringLiteral("/etc/snmp/snmpd.conf"));
        QCOMPARE(host.configFolder, QStringLiteral("/etc/snmp/"));
        QCOMPARE(host.pidFile, QStringLiteral("/var/run/snmpd.pid"));
    }

    void runWaitsForTheEnd()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("done"));
        deviceHost().run(shell(QStringLiteral("sleep 0.3; echo noise; echo noise >&2; : > '%1'").arg(file)));
        QVERIFY(QFile::exists(file));
    }

    void runIgnoresFailures()
    {
        deviceHost().run(shell(QStringLiteral("exit 3")));
        QElapsedTimer timer;
        timer.start();
        deviceHost().run(missingCommand);
        QVERIFY(timer.elapsed() < 5000);
    }

    void startDetachedDoesNotWait()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("done"));
        QElapsedTimer timer;
        timer.start();
        deviceHost().startDetached(shell(QStringLiteral("sleep 1; : > '%1'").arg(file)));
        deviceHost().startDetached(missingCommand);
        QVERIFY2(timer.elapsed() < 900, "it did not wait");
        QTRY_VERIFY(QFile::exists(file));
    }

    void startDetachedHandsOnNoServiceManager()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("environment"));
        qputenv("NOTIFY_SOCKET", "/run/systemd/notify");
        qputenv("WATCHDOG_USEC", "120000000");
        qputenv("WATCHDOG_PID", "1");
        qputenv("KVSNMP_TEST_ENVIRONMENT", "handed on");
        deviceHost().startDetached(shell(QStringLiteral("env > '%1.new'; mv '%1.new' '%1'").arg(file)));
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "KVSNMP_TEST_ENVIRONMENT"})
            qunsetenv(name);
        QTRY_VERIFY(QFile::exists(file));
        QFile written(file);
        QVERIFY(written.open(QIODevice::ReadOnly));
        const QByteArray environment = written.readAll();
        QVERIFY(environment.contains("KVSNMP_TEST_ENVIRONMENT=handed on\n"));
        QVERIFY(!environment.contains("NOTIFY_SOCKET"));
        QVERIFY(!environment.contains("WATCHDOG_"));
    }

    void outputOfReadsAllOutput()
    {
        // More than a pipe holds, so that a reader that only waits would wait for ever.
        const QByteArray output = deviceHost().outputOf(
            shell(QStringLiteral("head -c 300000 /dev/zero; printf '8192\\n'; echo 'not this' >&2")), 30000);
        QCOMPARE(output.size(), 300005);
        QVERIFY(output.endsWith("8192\n"));
    }

    void outputCountsWhateverTheExitStatus()
    {
        QCOMPARE(deviceHost().outputOf(shell(QStringLiteral("echo 8192; exit 1")), 30000), QByteArray("8192\n"));
        QCOMPARE(deviceHost().outputOf(shell(QStringLiteral("echo 8192; kill -9 $$")), 30000), QByteArray("8192\n"));
    }

    void outputOfACommandThatIsTooSlowIsEmpty()
    {
        const QTemporaryDir dir;
        const QString pidFile = dir.filePath(QStringLiteral("pid"));
        QElapsedTimer timer;
        timer.start();
        const QByteArray output =
            deviceHost().outputOf(shell(QStringLiteral("echo $$ > '%1'; echo 8192; exec sleep 60").arg(pidFile)), 500);
        QVERIFY(timer.elapsed() >= 495);
        QVERIFY(timer.elapsed() < 5000);
        QCOMPARE(output, QByteArray());

        // It is gone for good, not left behind as a zombie.
        QFile file(pidFile);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const pid_t pid = file.readAll().trimmed().toInt();
        QVERIFY(pid > 0);
        QTRY_VERIFY(kill(pid, 0) == -1 && errno == ESRCH);
    }

    void outputOfACommandThatCannotStartIsEmpty()
    {
        QCOMPARE(deviceHost().outputOf(missingCommand, 30000), QByteArray());
    }
};

const TestEntry entry("tst_snmpdhost", runTest<TestSnmpdHost>);

#include "tst_snmpdhost.moc"
