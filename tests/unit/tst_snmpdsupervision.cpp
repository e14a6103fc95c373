// Restarting snmpd, starting it cleanly, and the health probe. No command is run here: the bench writes them down.
#include "support/ordinaryuser.h"
#include "support/snmpdbench.h"
#include "support/testprogram.h"

#include "agent/trapgate.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QTest>

#include <sys/stat.h>

namespace {

const QString killallEvent = qs("run: killall|snmpd");
const QString restartingLine = qs("SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd");
const QString cancelLine = qs("SnmpdConfHandler onRestartSnmpdTimeout Cancel restart snmp, no config file");
const QString probeEvent = qs("probe(30000): ps|--noheaders|-C snmpd|-o rss");

QString startEvent(const SnmpdBench &bench)
{
    return qs("start: snmpd|-p|") + bench.pidFile;
}

/// Waits until every change so far has been reported, by one that is reported after them.
void takeChanges(const SnmpdBench &bench)
{
    QFileSystemWatcher watcher({bench.dir.path()});
    const QSignalSpy changed(&watcher, &QFileSystemWatcher::directoryChanged);
    const QString last = bench.dir.filePath(qs("last change"));
    SnmpdBench::write(last, {});
    QVERIFY(QFile::remove(last));
    QTRY_VERIFY(!changed.isEmpty());
    QCoreApplication::processEvents();
}

QString logEvent(int priority, const char *text)
{
    return qs("log(%1): %2").arg(QString::number(priority), qs(text));
}

using Notice = void (SnmpdConfHandler::*)();

} // namespace

Q_DECLARE_METATYPE(Notice)

/// As by a mount, or behind a link.

class TestSnmpdSupervision : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void restartWaitsForSettingsAndCustomFlag()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "# there\n");
        bench.handler->onRestartSnmpdTimeout(); // neither
        QVERIFY(bench.restartTimer()->isActive());
        bench.settle(); // settled, flag unknown
        bench.restartTimer()->stop();
        bench.handler->onRestartSnmpdTimeout();
        QVERIFY(bench.restartTimer()->isActive());
        QCOMPARE(bench.events, QStringList{settledEvent});
        QCOMPARE(bench.tal.log.lines(), QStringList());

        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(false);
        QTRY_COMPARE(bench.count(killallEvent), 1); // the retry, by itself
        QVERIFY(!bench.restartTimer()->isActive());
    }

    void restartIsCancelledWithoutAFile()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        bench.settle();
        QVERIFY(QFile::remove(bench.configFile));
        bench.events.clear();
        bench.tal.log.takeLines();
        bench.restartTimer()->stop();
        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(bench.events, QStringList());
        QCOMPARE(bench.tal.log.lines(), QStringList{cancelLine});
        QVERIFY(!bench.restartTimer()->isActive());
    }

    void restartStopsThenFinishesThenStarts()
    {
        SnmpdBench bench(qs("not watched, so that only the call below restarts"));
        QVERIFY(QDir().mkpath(bench.folder));
        SnmpdBench::write(bench.configFile, "# by hand\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        bench.tal.log.takeLines();
        bench.restartTimer()->stop();

        QElapsedTimer sinceStop;
        sinceStop.start();
        bench.handler->onRestartSnmpdTimeout();
        const QStringList atOnce = {killallEvent, qs("finish")};
        QCOMPARE(bench.events, atOnce);
        QCOMPARE(bench.tal.log.lines(), QStringList{restartingLine});

        QTRY_COMPARE(bench.count(startEvent(bench)), 1);
        QVERIFY(sinceStop.elapsed() >= 500);
        const QStringList start = {logEvent(LOG_INFO, "Starting snmpd (custom snmpd.conf)"), startEvent(bench)};
        QCOMPARE(bench.events, atOnce + start);
    }

    void noTrapGoesToASnmpdThatWasToldToEnd()
    {
        SnmpdBench bench(qs("not watched, so that only the call below restarts"));
        QVERIFY(QDir().mkpath(bench.folder));
        SnmpdBench::write(bench.configFile, "# by hand\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        bench.restartTimer()->stop();
        TrapGate &gate = trapGate();
        gate.openSession(-1);
        int opened = 0;
        gate.setOpened([&opened] { ++opened; });

        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(gate.state(), TrapGate::State::MasterEnding);
        QTRY_COMPARE(bench.count(startEvent(bench)), 1);
        QCOMPARE(gate.state(), TrapGate::State::Open); // here nothing has ended it
        QCOMPARE(opened, 1);
        gate.setOpened(nullptr);
        gate.closeSession();
    }

    void writtenFileLeadsToOneRestart()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        const QStringList expected = {settledEvent, killallEvent, qs("finish"),
                                      logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)"), startEvent(bench)};
        QTest::qWait(1100); // room for a restart too many
        QCOMPARE(bench.events, expected);
    }

    void changesOfTheFolderFoldIntoOneRestart()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        bench.events.clear();

        QElapsedTimer sinceLastChange;
        for (int i = 0; i < 4; ++i) {
            SnmpdBench::write(bench.folder + qs("/local%1.conf").arg(i), "x\n");
            sinceLastChange.start();
            QTest::qWait(150);
        }
        QTRY_COMPARE(bench.count(killallEvent), 1);
        QVERIFY(sinceLastChange.elapsed() >= 500);
        QTest::qWait(1100);
        QCOMPARE(bench.count(killallEvent), 1);
        QCOMPARE(bench.count(startEvent(bench)), 1);
    }

    void customFileThatChangesRestartsSnmpd()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "# by hand\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QTRY_COMPARE(bench.count(startEvent(bench)), 1); // the first start, with the file as it is
        bench.events.clear();

        QVERIFY(QFile::remove(bench.configFile));
        SnmpdBench::write(bench.configFile, "# by hand, again\n");
        QTRY_COMPARE(bench.count(startEvent(bench)), 1);
        const QStringList expected = {killallEvent, qs("finish"),
                                      logEvent(LOG_INFO, "Starting snmpd (custom snmpd.conf)"), startEvent(bench)};
        QCOMPARE(bench.events, expected);
        QCOMPARE(bench.configText(), QByteArray("# by hand, again\n"));
    }

    void folderThatIsMissingAtStartIsWatchedLater()
    {
        SnmpdBench bench(qs("not there"));
        QCOMPARE(bench.tal.log.takeLines(), QStringList{qs("SnmpdConfHandler Cannot watch ") + bench.folder + qs("/")});
        bench.deliverSettings();
        bench.settle();
        QCOMPARE(bench.tal.log.takeLines(), QStringList());

        QVERIFY(QDir().mkpath(bench.folder));
        bench.settle();
        QVERIFY(QFile::exists(bench.configFile));
        QTRY_COMPARE(bench.count(startEvent(bench)), 1);
    }

    void folderThatWentAndCameBackIsWatchedAgain()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        QVERIFY(QDir(bench.folder).removeRecursively());
        QTRY_VERIFY(bench.tal.log.lines().contains(cancelLine));
        QVERIFY(QDir().mkpath(bench.folder));
        bench.settle();
        QTRY_COMPARE(bench.count(startEvent(bench)), 2);
    }

    void folderReplacedByAnotherIsWatched_data()
    {
        QTest::addColumn<bool>("finished");
        QTest::newRow("empty, filled later") << false;
        QTest::newRow("with its file") << true;
    }

    void folderReplacedByAnotherIsWatched()
    {
        QFETCH(bool, finished);
        SnmpdBench bench;
        bench.deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        const QString old = bench.dir.filePath(qs("old"));
        const QString made = finished ? bench.dir.filePath(qs("new")) : bench.folder;
        if (finished) {
            QVERIFY(QDir().mkpath(made));
            SnmpdBench::write(made + qs("/snmpd.conf"), "# another\n");
        }
        QVERIFY(QDir().rename(bench.folder, old));
        if (finished) {
            QVERIFY(QDir().rename(made, bench.folder));
        } else {
            takeChanges(bench);
            QVERIFY(QDir().mkpath(bench.folder));
            takeChanges(bench);
            SnmpdBench::write(bench.configFile, "# another\n");
        }
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 2, 10000);

        SnmpdBench::write(old + qs("/local.conf"), "x\n");
        takeChanges(bench);
        QVERIFY2(!bench.restartTimer()->isActive(), "the old folder is still watched");
        SnmpdBench::write(bench.folder + qs("/local.conf"), "x\n");
        QTRY_VERIFY(bench.restartTimer()->isActive());
    }

    void folderReplacedWithoutAnEventIsNoticedLater_data()
    {
        QTest::addColumn<Notice>("notice");
        QTest::newRow("settings") << Notice(&SnmpdConfHandler::slotSnmpdConfSysSettingUpdate);
        QTest::newRow("health probe") << Notice(&SnmpdConfHandler::watchdogSnmpd);
        QTest::newRow("restart") << Notice(&SnmpdConfHandler::onRestartSnmpdTimeout);
    }

    void folderReplacedWithoutAnEventIsNoticedLater()
    {
        QFETCH(Notice, notice);
        SnmpdBench bench(qs("link"));
        const QTemporaryDir elsewhere;
        const QString folder = elsewhere.filePath(qs("snmp"));
        QVERIFY(QDir().mkpath(folder));
        SnmpdBench::write(folder + qs("/snmpd.conf"), "# by hand\n");
        QVERIFY(QFile::link(folder, bench.folder));
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        takeChanges(bench);

        QVERIFY(QDir().rename(folder, elsewhere.filePath(qs("old"))));
        QVERIFY(QDir().mkpath(folder));
        SnmpdBench::write(folder + qs("/snmpd.conf"), "# by hand, too\n");
        QCoreApplication::processEvents();
        QVERIFY(!bench.restartTimer()->isActive());
        (*bench.handler.*notice)();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 2, 5000);
        SnmpdBench::write(bench.folder + qs("/local.conf"), "x\n");
        QTRY_VERIFY(bench.restartTimer()->isActive());
    }

    void changeBesideTheFolderIsIgnored()
    {
        SnmpdBench bench;
        bench.restartTimer()->stop();
        SnmpdBench::write(bench.dir.filePath(qs("another file")), "x\n");
        takeChanges(bench);
        QVERIFY(!bench.restartTimer()->isActive());
    }

    void pidFileLeftOver_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("argument");
        QTest::newRow("a pid") << QByteArray("1234\n") << qs("1234");
        QTest::newRow("no line end") << QByteArray("1234") << qs("1234");
        QTest::newRow("only the first line") << QByteArray("1234\n5678\n") << qs("1234");
        QTest::newRow("not a number: passed on as read") << QByteArray(" 12x4 \n") << qs(" 12x4 ");
        QTest::newRow("empty file") << QByteArray() << QString();
        QTest::newRow("empty first line") << QByteArray("\n1234\n") << QString();
        QTest::newRow("an endless line is bounded") << QByteArray(100000, '7') << QString(255, QLatin1Char('7'));
    }

    void pidFileLeftOver()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, argument);
        SnmpdBench bench;
        SnmpdBench::write(bench.pidFile, content);
        bench.handler->doStartSnmpd();
        const QStringList expected = {logEvent(LOG_ERR, "Snmpd was not properly closed last time"),
                                      qs("run: kill|-9|") + argument, qs("run: rm|") + bench.pidFile,
                                      logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)"), startEvent(bench)};
        QCOMPARE(bench.events, expected);
    }

    void pidFileThatCannotBeReadIsRemovedOnly()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.pidFile, "1234\n");
        QVERIFY(QFile::setPermissions(bench.pidFile, {}));
        const QStringList expected = {logEvent(LOG_ERR, "Snmpd was not properly closed last time"),
                                      qs("run: rm|") + bench.pidFile,
                                      logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)"), startEvent(bench)};
        QCOMPARE(chmod(QFile::encodeName(bench.dir.path()).constData(), 0711), 0); // that it is there may be seen
        {
            const AsOrdinaryUser user;
            bench.handler->doStartSnmpd();
        }
        QCOMPARE(bench.events, expected);
    }

    void whatIsNoPidFileIsLeftAlone_data()
    {
        QTest::addColumn<bool>("folder");
        QTest::newRow("nothing there") << false;
        QTest::newRow("a folder of that name") << true;
    }

    void whatIsNoPidFileIsLeftAlone()
    {
        QFETCH(bool, folder);
        SnmpdBench bench;
        if (folder)
            QVERIFY(QDir().mkpath(bench.pidFile));
        bench.handler->doStartSnmpd();
        const QStringList expected = {logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)"), startEvent(bench)};
        QCOMPARE(bench.events, expected);
    }

    void probe_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QString>("systemLogText"); // empty: all is well
        QTest::addColumn<QString>("debugText");
        const QString notRunning = qs("Snmpd health check: snmpd is not running");
        const QString notRunningLine = qs("watchdog restarting snmpd, snmpd not running");
        const auto well = [](const char *name, const QByteArray &output) {
            QTest::newRow(name) << output << QString() << QString();
        };
        const auto gone = [&](const char *name, const QByteArray &output) {
            QTest::newRow(name) << output << notRunning << notRunningLine;
        };
        const auto tooBig = [](const char *name, const QByteArray &output, const char *number) {
            QTest::newRow(name) << output << qs("Snmpd health check: memory usage too high: %1 kB").arg(qs(number))
                                << qs("watchdog restarting snmpd, memory usage too high: %1").arg(qs(number));
        };
        well("usual", "  8192\n");
        well("10239 kB is below the limit", "10239\n");
        tooBig("10240 kB is not", "10240\n", "10240");
        tooBig("surrounded by white space", " \t 20480 \n\n", "20480");
        gone("no output", "");
        gone("only white space", " \n\t\n");
        gone("a NUL at first", QByteArray("\0"
                                          "8192\n",
                                          6));
        tooBig("a NUL ends the text", QByteArray("10240\0junk\n", 11), "10240");
        well("two processes read as 0", " 20480\n 20480\n");
        well("not a number reads as 0", "RSS\n");
        well("a number with a unit reads as 0", "20480k\n");
        well("too big for a number reads as 0", "99999999999999999999\n");
        well("not hexadecimal", "0x7000\n");
        well("negative", "-20480\n");
    }

    void probe()
    {
        QFETCH(QByteArray, output);
        QFETCH(QString, systemLogText);
        QFETCH(QString, debugText);
        SnmpdBench bench;
        bench.restartTimer()->stop();
        bench.probeOutput = output;
        bench.handler->watchdogSnmpd();

        QStringList events = {probeEvent};
        QStringList lines;
        if (!systemLogText.isEmpty()) {
            events.append(qs("log(%1): %2").arg(QString::number(LOG_ERR), systemLogText));
            lines.append(qs("SnmpdConfHandler watchdogSnmpd ") + debugText);
        }
        QCOMPARE(bench.events, events);
        QCOMPARE(bench.tal.log.lines(), lines);
        QCOMPARE(bench.restartTimer()->isActive(), !systemLogText.isEmpty());
    }

    void probeRestartsThroughTheNormalPath()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(bench.count(startEvent(bench)), 1, 5000);
        bench.events.clear();
        bench.probeOutput.clear();
        bench.handler->watchdogSnmpd();
        QTRY_COMPARE(bench.count(startEvent(bench)), 1);
        const QStringList expected = {
            probeEvent,   logEvent(LOG_ERR, "Snmpd health check: snmpd is not running"), killallEvent,
            qs("finish"), logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)"),    startEvent(bench)};
        QCOMPARE(bench.events, expected);
    }
};

const TestEntry entry("tst_snmpdsupervision", runTest<TestSnmpdSupervision>);

#include "tst_snmpdsupervision.moc"
