// From the settings to the file: what is compared, when it is written, how the file comes to be.
#include "support/ordinaryuser.h"
#include "support/snmpdbench.h"
#include "support/testprogram.h"

#include "snmpdconf/snmpdconftext.h"

#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

namespace {
const QByteArray usualFile = // of SnmpdBench::deliverSettings()
    snmpdConfText({{qs("public"), qs("Read"), qs("192.0.2.1"), qs("2001:db8::1"), qs("161")},
                   {qs("amp-1"), qs("cellar"), qs("ops")},
                   {qs("192.0.2.7"), qs("192.0.2.8")},
                   {false, true, false}})
        .text;
const QByteArray handmadeFile = "# by hand\n";

const QString generatingLine =
    qs("SnmpdConfHandler slotSnmpdConfSysSettingUpdate Generating new snmpd.conf based on TAL values");

/// What the system log was opened with; see openlog() below.
struct {
    QByteArray identity;
    int options = 0;
    int facility = 0;
    int closed = 0;
} systemLog;

/// Runs `function` while the last byte of the usual file finds no room.
template <typename Function>
void withoutRoomForTheEnd(Function function)
{
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{static_cast<rlim_t>(usualFile.size()) - 1, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    function();
    setrlimit(RLIMIT_FSIZE, &before);
}
} // namespace

// Stand in front of the system's own.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own names are reserved
extern "C" void openlog(const char *identity, int options, int facility)
{
    systemLog = {identity, options, facility, 0};
}
extern "C" void closelog()
{
    ++systemLog.closed;
}

class TestSnmpdConfHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void beginAndEnd()
    {
        {
            const SnmpdBench bench;
            QCOMPARE(systemLog.identity, "kv-snmp");
            QCOMPARE(systemLog.options, LOG_PID | LOG_CONS | LOG_NDELAY);
            QCOMPARE(systemLog.facility, LOG_DAEMON);
            QCOMPARE(systemLog.closed, 0);
            QVERIFY(bench.settingsTimer()->isSingleShot() && !bench.settingsTimer()->isActive());
            QVERIFY(bench.restartTimer()->isSingleShot() && bench.restartTimer()->isActive());
            QVERIFY(!bench.watchdogTimer()->isSingleShot() && bench.watchdogTimer()->isActive());
        }
        QCOMPARE(systemLog.closed, 1);
    }

    void burstOfSettingsGivesOneWriteAfter300Ms()
    {
        SnmpdBench bench;
        bench.restartTimer()->stop();
        bench.deliverSettings();
        QTest::qWait(200);
        QElapsedTimer sinceLastChange;
        sinceLastChange.start();
        bench.change("access public Read 192.0.2.1 2001:db8::9 1161"); // an address that is not compared comes with it

        QTRY_COMPARE(bench.count(settledEvent), 1);
        QVERIFY2(sinceLastChange.elapsed() >= 280, "the last change starts the 300 ms anew");
        QCOMPARE(bench.configText(), QByteArray(usualFile).replace("db8::1", "db8::9").replace(":161", ":1161"));
        QVERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.tal.log.lines(), QStringList{generatingLine});
        QCOMPARE(bench.events, QStringList{settledEvent}); // the finish comes with the restart
    }

    void changeStartsTheSettingsTimer()
    {
        const auto expect = [](const char *signal, bool actedOn) {
            const AtRow at(signal);
            SnmpdBench bench;
            bench.deliverSettings();
            QVERIFY(bench.settingsTimer()->isActive());
            SnmpdBench::prolong(bench.settingsTimer());
            bench.change(signal);
            QVERIFY(bench.settingsTimer()->isActive());
            QCOMPARE(SnmpdBench::isProlonged(bench.settingsTimer()), !actedOn); // a running one starts anew

            bench.deliverSettings();
            bench.settle();
            QVERIFY(!bench.settingsTimer()->isActive());
            bench.change(signal);
            QCOMPARE(bench.settingsTimer()->isActive(), actedOn);
            bench.settle();
            QCOMPARE(bench.configText() != usualFile, actedOn);
        };
        for (const char *other :
             {"mib2 amp-2 cellar ops", "mib2 amp-1 attic ops", "mib2 amp-1 cellar desk",
              "access secret Read 192.0.2.1 2001:db8::1 161", "access public Disabled 192.0.2.1 2001:db8::1 161",
              "access public Read 192.0.2.9 2001:db8::1 161", "access public Read 192.0.2.1 2001:db8::1 1161",
              "trap 192.0.2.17 192.0.2.8", "trap 192.0.2.7 192.0.2.18", "version 1 1 0", "version 0 0 0"})
            expect(other, true);
        for (const char *equal :
             {"mib2 amp-1 cellar ops", "access public Read 192.0.2.1 2001:db8::1 161", "trap 192.0.2.7 192.0.2.8",
              "version 0 1 0", "access public Read 192.0.2.1 2001:db8::9 161", "version 0 1 1"}) // intended
            expect(equal, false);
    }

    void nothingIsWrittenBeforeTheCustomFlagIsKnown()
    {
        SnmpdBench bench;
        bench.startAgent();
        bench.change("access public Read 192.0.2.1 2001:db8::1 161");
        QTRY_COMPARE(bench.count(settledEvent), 1);
        QVERIFY(!QFile::exists(bench.configFile));
        bench.change("custom 0"); // a flag that does not change only becomes known
        QVERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.agent.systemName, "before");
        QCOMPARE(bench.tal.log.lines(), QStringList());
        QCOMPARE(bench.events, QStringList{settledEvent});
        bench.settle();
        QVERIFY(QFile::exists(bench.configFile));
    }

    void sysNameOfTheAgent()
    {
        SnmpdBench bench;
        bench.change("mib2 early - -"); // no agent yet: no harm
        QCOMPARE(bench.handler->sysName(), qs("early"));
        bench.startAgent();
        const QByteArray longName = "mib2 " + QByteArray("\xc3\xa4").repeated(300) + " cellar ops";
        const std::pair<QByteArray, QByteArray> steps[] = {
            {"mib2 K\xc3\xb6ln - -", "K\xf6ln"},
            {"mib2 amp-1 - ops", "K\xf6ln"}, // intended: not copied together with a contact
            {"mib2 amp-2 cellar ops", "K\xf6ln"},
            {"mib2 amp-3 cellar ops", "amp-3"},
            {longName, QByteArray(256, '\xe4')},
            {"custom 1", ""}, // it is another one in a custom file
            {"mib2 amp-4 cellar ops", ""},
            {"custom 0", "amp-4"},
        };
        for (const auto &[signal, name] : steps) {
            const AtRow at(signal);
            bench.settingsTimer()->stop();
            bench.change(signal);
            QCOMPARE(QByteArray(bench.agent.systemName), name);
            QCOMPARE(bench.settingsTimer()->isActive(), signal != "custom 1");
            if (signal.startsWith("mib2"))
                QCOMPARE(bench.handler->sysName(), qs(signal).section(QLatin1Char(' '), 1, 1));
        }
    }

    void customFileThatHasVanishedIsReplaced()
    {
        SnmpdBench bench;
        bench.deliverSettings("custom 1");
        bench.settle();
        QCOMPARE(bench.configText(), usualFile);
        QCOMPARE(bench.events, QStringList{settledEvent});
    }

    void customFileIsKeptUntilTheFlagIsFalse()
    {
        SnmpdBench bench;
        writeFile(bench.configFile, handmadeFile);
        bench.change("custom 1");
        QVERIFY(bench.handler->useCustomConfigFile());
        QVERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.tal.log.takeLines(),
                 QStringList{qs("SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device has custom snmpd.conf")});
        bench.handler->onRestartSnmpdTimeout(); // settled and known without the settings timer
        QCOMPARE(bench.count(killallEvent), 1);

        bench.tal.log.takeLines();
        bench.events.clear();
        bench.restartTimer()->stop();
        bench.deliverSettings("custom 1");
        bench.settle();
        QVERIFY(!bench.restartTimer()->isActive());
        QCOMPARE(bench.events, (QStringList{settledEvent, finishEvent}));
        QCOMPARE(bench.configText(), handmadeFile);
        QCOMPARE(bench.tal.log.lines(), QStringList());

        bench.change("custom 0");
        QVERIFY(!bench.handler->useCustomConfigFile());
        QCOMPARE(
            bench.tal.log.lines(),
            QStringList{qs("SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device uses our generated snmpd.conf")});
        QTRY_COMPARE(bench.configText(), usualFile);
        bench.change("access public Write 192.0.2.1 2001:db8::1 161");
        QTRY_COMPARE(bench.configText(), QByteArray()); // empty, and there
    }

    void customFlagWhileTheCountdownRuns()
    {
        SnmpdBench bench(qs("not watched, so that nothing restarts"));
        QVERIFY(QDir().mkpath(bench.folder));
        bench.restartTimer()->stop();
        writeFile(bench.configFile, handmadeFile);
        bench.deliverSettings();
        SnmpdBench::prolong(bench.settingsTimer());
        bench.change("custom 1");
        QVERIFY2(SnmpdBench::isProlonged(bench.settingsTimer()), "it runs on");
        bench.change("custom 0");
        QVERIFY2(!SnmpdBench::isProlonged(bench.settingsTimer()), "it begins anew");
        bench.change("custom 1");
        QTRY_VERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.events, (QStringList{settledEvent, finishEvent}));
        QCOMPARE(bench.configText(), handmadeFile);
    }

    void fileIsMadeAnewForItsOwnerAlone()
    {
        SnmpdBench bench;
        const QString target = bench.dir.filePath(qs("target")); // a link is not followed
        writeFile(target, "somebody else's\n");
        QVERIFY(QFile::setPermissions(target, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
        QVERIFY(QFile::link(target, bench.configFile));
        bench.deliverSettings();
        const mode_t umaskBefore = umask(0);
        bench.settle();
        umask(umaskBefore);
        QCOMPARE(statusOf(QFile::encodeName(bench.configFile)).st_mode, mode_t{S_IFREG | 0600});
        QCOMPARE(bench.configText(), usualFile);
        QCOMPARE(readFile(target), "somebody else's\n");

        writeFile(bench.configFile, "an older file that is not ours and much longer than " + usualFile);
        QVERIFY(QFile::setPermissions(bench.configFile, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
        bench.settle();
        QCOMPARE(statusOf(QFile::encodeName(bench.configFile)).st_mode, mode_t{S_IFREG | 0600});
        QCOMPARE(bench.configText(), usualFile);
    }

    void fileThatCannotBeCreatedGivesNoMessage()
    {
        for (const bool folderInItsPlace : {false, true}) {
            SnmpdBench bench;
            bench.deliverSettings();
            QVERIFY(folderInItsPlace ? QDir().mkpath(bench.configFile) : QDir().rmdir(bench.folder));
            bench.settle();
            QCOMPARE(bench.events, QStringList{settledEvent});
            QCOMPARE(bench.tal.log.lines(), QStringList());
        }
    }

    void fileThatCannotBeWrittenToItsEndIsRemoved()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        withoutRoomForTheEnd([&] { bench.settle(); });
        QVERIFY(!QFileInfo::exists(bench.configFile));
        QCOMPARE(bench.events, (QStringList{settledEvent, logEvent(LOG_ERR, "snmpd.conf could not be written: "
                                                                            "File too large")}));
        bench.settle();
        QCOMPARE(bench.configText(), usualFile);
    }

    void fileThatCannotBeDeletedIsWrittenInPlace()
    {
        for (const bool hasRoom : {true, false}) {
            SnmpdBench bench;
            writeFile(bench.configFile, "# older\n");
            const Undeletable file(bench.configFile);
            bench.deliverSettings();
            bench.restartTimer()->stop();
            bench.tal.log.takeLines();
            {
                const AsOrdinaryUser user;
                hasRoom ? bench.settle() : withoutRoomForTheEnd([&] { bench.settle(); });
            }
            QCOMPARE(bench.configText(), hasRoom ? usualFile : QByteArray());
            QCOMPARE(bench.tal.log.lines(), QStringList{generatingLine});
            const QString event = hasRoom
                                      ? logEvent(LOG_WARNING, "snmpd.conf is written in place, it cannot be deleted: "
                                                              "Permission denied")
                                      : logEvent(LOG_ERR, "snmpd.conf could not be written in place and is empty now: "
                                                          "File too large");
            QCOMPARE(bench.events, (QStringList{settledEvent, event}));
            QCOMPARE(bench.restartTimer()->isActive(), hasRoom); // without room snmpd keeps what it has read
        }
    }

    void eachCutSettingIsLoggedOncePerWrite()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        bench.change("access public\nextend Read 192.0.2.1 2001:db8::1 161");
        bench.change("mib2 amp-1 cellar\r ops");
        QCOMPARE(bench.events, QStringList()); // nothing before the file is written
        const QStringList expected = {
            settledEvent,
            logEvent(LOG_WARNING, "Setting sysLocation cut at its first line end or NUL"),
            logEvent(LOG_WARNING, "Setting community cut at its first line end or NUL"),
        };
        bench.settle();
        QCOMPARE(bench.events, expected);
        QCOMPARE(bench.configText(), usualFile);
        bench.settle();
        QCOMPARE(bench.events, expected + expected);
    }
};

const TestEntry entry("tst_snmpdconfhandler", runTest<TestSnmpdConfHandler>);
#include "tst_snmpdconfhandler.moc"
