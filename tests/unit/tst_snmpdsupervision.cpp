// Restarting snmpd, starting it cleanly, and the health probe. No command is run: the bench only records them.
#include "support/ordinaryuser.h"
#include "support/snmpdbench.h"
#include "support/testprogram.h"

#include "agent/trapgate.h"

namespace {
const QString restartingLine = qs("SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd");
const QString cancelLine = qs("SnmpdConfHandler onRestartSnmpdTimeout Cancel restart snmp, no config file");
const QString probeEvent = qs("probe(30000): ps|--noheaders|-C snmpd|-o rss");
const QString notClosedEvent = logEvent(LOG_ERR, "Snmpd was not properly closed last time");
const QString startingEvent = logEvent(LOG_INFO, "Starting snmpd (snmpd.conf from TAL)");
const QString notRunningEvent = logEvent(LOG_ERR, "Snmpd health check: snmpd is not running");
const QString startingCustomEvent = logEvent(LOG_INFO, "Starting snmpd (custom snmpd.conf)");

/// Waits until every change so far has been reported, by one that is reported after them.
void takeChanges(const SnmpdBench &bench)
{
    QFileSystemWatcher watcher({bench.dir.path()});
    const QSignalSpy changed(&watcher, &QFileSystemWatcher::directoryChanged);
    const QString last = bench.dir.filePath(qs("last change"));
    writeFile(last, {});
    QVERIFY(QFile::remove(last));
    QTRY_VERIFY(!changed.isEmpty());
    QCoreApplication::processEvents();
}

/// A bench with a file made by hand, and a folder that is not watched, so that only the test restarts.
struct UnwatchedBench : SnmpdBench {
    UnwatchedBench() : SnmpdBench(qs("not watched"))
    {
        QVERIFY(QDir().mkpath(folder));
        writeFile(configFile, "# by hand\n");
        change("custom 1");
        tal.log.takeLines();
        restartTimer()->stop();
    }
};

struct StartedBench : SnmpdBench {
    StartedBench()
    {
        deliverSettings();
        QTRY_COMPARE_WITH_TIMEOUT(count(startEvent()), 1, 5000);
        QCOMPARE(events, (QStringList{settledEvent, killallEvent, finishEvent, startingEvent, startEvent()}));
        events.clear();
    }
};
} // namespace

class TestSnmpdSupervision : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void restartWaitsForSettingsAndCustomFlag()
    {
        SnmpdBench bench;
        writeFile(bench.configFile, "# there\n");
        bench.handler->onRestartSnmpdTimeout(); // neither
        QVERIFY(bench.restartTimer()->isActive());
        bench.settle(); // settled, flag unknown
        bench.restartTimer()->stop();
        bench.handler->onRestartSnmpdTimeout();
        QVERIFY(bench.restartTimer()->isActive());
        QCOMPARE(bench.events, QStringList{settledEvent});
        QCOMPARE(bench.tal.log.lines(), QStringList());

        bench.change("custom 0");
        QTRY_COMPARE(bench.count(killallEvent), 1); // the retry, by itself
        QVERIFY(!bench.restartTimer()->isActive());
    }

    void restartIsCancelledWithoutAFile()
    {
        UnwatchedBench bench;
        QVERIFY(QFile::remove(bench.configFile));
        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(bench.events, QStringList());
        QCOMPARE(bench.tal.log.lines(), QStringList{cancelLine});
        QVERIFY(!bench.restartTimer()->isActive());
    }

    /// No trap goes to a snmpd that must end.
    void restartStopsThenFinishesThenStarts()
    {
        UnwatchedBench bench;
        TrapGate &gate = trapGate();
        gate.openSession(-1);
        int opened = 0;
        gate.setOpened([&opened] { ++opened; });
        QElapsedTimer sinceStop;
        sinceStop.start();
        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(gate.state(), TrapGate::State::MasterEnding);
        const QStringList atOnce = {killallEvent, finishEvent};
        QCOMPARE(bench.events, atOnce);
        QCOMPARE(bench.tal.log.lines(), QStringList{restartingLine});
        QTRY_COMPARE(bench.count(bench.startEvent()), 1);
        QVERIFY(sinceStop.elapsed() >= 500);
        QCOMPARE(bench.events, atOnce + (QStringList{startingCustomEvent, bench.startEvent()}));
        QCOMPARE(gate.state(), TrapGate::State::Open); // here nothing has ended it
        QCOMPARE(opened, 1);
        gate.setOpened(nullptr);
        gate.closeSession();
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
        QTRY_COMPARE(bench.count(bench.startEvent()), 1);
    }

    void folderReplacedByAnotherIsWatched()
    {
        for (const bool finished : {false, true}) { // empty and filled later, or with its file
            StartedBench bench;
            const QString old = bench.dir.filePath(qs("old"));
            const QString made = finished ? bench.dir.filePath(qs("new")) : bench.folder;
            if (finished) {
                QVERIFY(QDir().mkpath(made));
                writeFile(made + qs("/snmpd.conf"), "# another\n");
            }
            QVERIFY(QDir().rename(bench.folder, old));
            if (finished) {
                QVERIFY(QDir().rename(made, bench.folder));
            } else {
                takeChanges(bench);
                QVERIFY(QDir().mkpath(bench.folder));
                takeChanges(bench);
                writeFile(bench.configFile, "# another\n");
            }
            QTRY_COMPARE_WITH_TIMEOUT(bench.count(bench.startEvent()), 1, 10000);

            writeFile(old + qs("/local.conf"), "x\n");
            takeChanges(bench);
            QVERIFY2(!bench.restartTimer()->isActive(), "the old folder is still watched");
            writeFile(bench.folder + qs("/local.conf"), "x\n");
            QTRY_VERIFY(bench.restartTimer()->isActive());
        }
    }

    /// As by a mount, or behind a link.
    void folderReplacedWithoutAnEventIsNoticedLater()
    {
        for (const auto notice : {&SnmpdConfHandler::slotSnmpdConfSysSettingUpdate, &SnmpdConfHandler::watchdogSnmpd,
                                  &SnmpdConfHandler::onRestartSnmpdTimeout}) {
            SnmpdBench bench(qs("link"));
            const QTemporaryDir elsewhere;
            const QString folder = elsewhere.filePath(qs("snmp"));
            QVERIFY(QDir().mkpath(folder));
            writeFile(folder + qs("/snmpd.conf"), "# by hand\n");
            QVERIFY(QFile::link(folder, bench.folder));
            bench.change("custom 1");
            QTRY_COMPARE_WITH_TIMEOUT(bench.count(bench.startEvent()), 1, 5000);
            takeChanges(bench);

            QVERIFY(QDir().rename(folder, elsewhere.filePath(qs("old"))));
            QVERIFY(QDir().mkpath(folder));
            writeFile(folder + qs("/snmpd.conf"), "# by hand, too\n");
            QCoreApplication::processEvents();
            QVERIFY(!bench.restartTimer()->isActive());
            (*bench.handler.*notice)();
            QTRY_COMPARE_WITH_TIMEOUT(bench.count(bench.startEvent()), 2, 5000);
            writeFile(bench.folder + qs("/local.conf"), "x\n");
            QTRY_VERIFY(bench.restartTimer()->isActive());
        }
    }

    void changeBesideTheFolderIsIgnored()
    {
        SnmpdBench bench;
        bench.restartTimer()->stop();
        writeFile(bench.dir.filePath(qs("another file")), "x\n");
        takeChanges(bench);
        QVERIFY(!bench.restartTimer()->isActive());
    }

    void pidFileLeftOver()
    {
        const QByteArray rows[][2] = {
            {"1234\n", "1234"},
            {"1234", "1234"},
            {"1234\n5678\n", "1234"},
            {" 12x4 \n", " 12x4 "}, // not a number: passed on as read
            {"", ""},
            {"\n1234\n", ""},
            {QByteArray(100000, '7'), QByteArray(255, '7')}, // bounded
        };
        SnmpdBench none;
        expectStart(none, {});
        SnmpdBench folder;
        QVERIFY(QDir().mkpath(folder.pidFile));
        expectStart(folder, {});
        for (const auto &[content, argument] : rows) {
            const AtRow at(argument);
            SnmpdBench bench;
            writeFile(bench.pidFile, content);
            expectStart(bench, {notClosedEvent, qs("run: kill|-9|") + qs(argument), qs("run: rm|") + bench.pidFile});
        }
        SnmpdBench unreadable;
        writeFile(unreadable.pidFile, "1234\n");
        QVERIFY(QFile::setPermissions(unreadable.pidFile, {}));
        QCOMPARE(chmod(QFile::encodeName(unreadable.dir.path()).constData(), 0711), 0); // to see that the file exists
        const AsOrdinaryUser user;
        expectStart(unreadable, {notClosedEvent, qs("run: rm|") + unreadable.pidFile});
    }

    void probe()
    {
        const auto expect = [](const QByteArray &output, const QString &event, const QString &line) {
            const AtRow at(output);
            SnmpdBench bench;
            bench.restartTimer()->stop();
            bench.probeOutput = output;
            bench.handler->watchdogSnmpd();
            const bool isWell = event.isEmpty();
            QCOMPARE(bench.events, (QStringList{probeEvent} + (isWell ? QStringList() : QStringList{event})));
            QCOMPARE(bench.tal.log.lines(), isWell ? QStringList() : QStringList{line});
            QCOMPARE(bench.restartTimer()->isActive(), !isWell);
        };
        for (const char *well : {"  8192\n", "10239\n"}) // below the limit
            expect(well, {}, {});
        for (const char *zero :
             {" 20480\n 20480\n", "RSS\n", "20480k\n", "99999999999999999999\n", "0x7000\n", "-20480\n"})
            expect(zero, {}, {}); // not one decimal number reads as 0
        for (const QByteArray &gone : {QByteArray(), QByteArray(" \n\t\n"), QByteArray("\0008192\n", 6)})
            expect(gone, notRunningEvent,
                   qs("SnmpdConfHandler watchdogSnmpd watchdog restarting snmpd, snmpd not running"));
        for (const QByteArray &big :
             {QByteArray("10240\n"), QByteArray(" \t 10240 \n\n"), QByteArray("10240\0junk\n", 11)})
            expect(big, logEvent(LOG_ERR, "Snmpd health check: memory usage too high: 10240 kB"),
                   qs("SnmpdConfHandler watchdogSnmpd watchdog restarting snmpd, memory usage too high: 10240"));
    }

private:
    static void expectStart(SnmpdBench &bench, const QStringList &before)
    {
        bench.handler->doStartSnmpd();
        QCOMPARE(bench.events, before + (QStringList{startingEvent, bench.startEvent()}));
    }
};

const TestEntry entry("tst_snmpdsupervision", runTest<TestSnmpdSupervision>);
#include "tst_snmpdsupervision.moc"
