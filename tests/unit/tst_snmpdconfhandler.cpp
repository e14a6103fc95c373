// From the settings to the file: what is compared, when it is written, how the file comes to be.
#include "support/snmpdbench.h"
#include "support/testprogram.h"
#include "support/undeletable.h"

#include <QElapsedTimer>
#include <QTest>

#include <csignal>
#include <functional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray usualFile = "master agentx\n"
                             "sysName amp-1\n"
                             "sysContact ops\n"
                             "sysLocation cellar\n"
                             "informsink 192.0.2.8\n"
                             "trap2sink 192.0.2.7\n"
                             "com2sec mynetwork 192.0.2.1 public\n"
                             "com2sec6 mynetwork 2001:db8::1 public\n"
                             "#group MyROGroup v1         mynetwork\n"
                             "group MyROGroup v2c         mynetwork\n"
                             "view all    included .1\n"
                             "access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
                             "agentAddress udp6:161,udp:161\n";

const QString generatingLine =
    qs("SnmpdConfHandler slotSnmpdConfSysSettingUpdate Generating new snmpd.conf based on TAL values");

using Change = std::function<void(TalHandler &)>;

/// What the system log was opened with; see openlog() below.
struct {
    QString identity;
    int options = 0;
    int facility = 0;
    int closed = 0;
} systemLog;

/// While one lives, the last byte of the usual file finds no room.
class NoRoomForTheEnd {
public:
    NoRoomForTheEnd()
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit small = m_before;
        small.rlim_cur = static_cast<rlim_t>(usualFile.size()) - 1;
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~NoRoomForTheEnd() { setrlimit(RLIMIT_FSIZE, &m_before); }
    NoRoomForTheEnd(const NoRoomForTheEnd &) = delete;
    NoRoomForTheEnd &operator=(const NoRoomForTheEnd &) = delete;

private:
    rlimit m_before{};
};

} // namespace

Q_DECLARE_METATYPE(Change)

// Stand in front of the system's own.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own names are reserved
extern "C" void openlog(const char *identity, int options, int facility)
{
    systemLog = {QString::fromLatin1(identity), options, facility, 0};
}
extern "C" void closelog()
{
    ++systemLog.closed;
}

/// The folder does not change then, so the restart has to come from here.

class TestSnmpdConfHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void opensAndClosesTheSystemLog()
    {
        {
            const SnmpdBench bench;
            QCOMPARE(systemLog.identity, qs("kv-snmp"));
            QCOMPARE(systemLog.options, LOG_PID | LOG_CONS | LOG_NDELAY);
            QCOMPARE(systemLog.facility, LOG_DAEMON);
            QCOMPARE(systemLog.closed, 0);
        }
        QCOMPARE(systemLog.closed, 1);
    }

    void startsItsTimers()
    {
        const SnmpdBench bench;
        QVERIFY(bench.settingsTimer()->isSingleShot());
        QVERIFY(!bench.settingsTimer()->isActive());
        QVERIFY(bench.restartTimer()->isSingleShot());
        QVERIFY(bench.restartTimer()->isActive());
        QVERIFY(!bench.watchdogTimer()->isSingleShot());
        QVERIFY(bench.watchdogTimer()->isActive());
        QCOMPARE(bench.tal.log.lines(), QStringList());
        QCOMPARE(bench.handler->useCustomConfigFile(), false);
        QCOMPARE(bench.handler->sysName(), QString());
    }

    void burstOfSettingsGivesOneWriteAfter300Ms()
    {
        SnmpdBench bench;
        bench.restartTimer()->stop();
        bench.deliverSettings();
        QTest::qWait(200);
        QElapsedTimer sinceLastChange;
        sinceLastChange.start();
        SnmpAccessSettings access = SnmpdBench::access();
        access.snmpPort = qs("1161");
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(access);

        QTRY_COMPARE(bench.count(settledEvent), 1);
        QVERIFY2(sinceLastChange.elapsed() >= 280, "the last change starts the 300 ms anew");
        QCOMPARE(bench.configText(), QByteArray(usualFile).replace(":161", ":1161"));
        QVERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.tal.log.lines(), QStringList{generatingLine});
        QCOMPARE(bench.events, QStringList{settledEvent}); // the finish comes with the restart
    }

    void changeStartsTheSettingsTimer_data()
    {
        QTest::addColumn<Change>("change");
        QTest::addColumn<bool>("actedOn");
        const auto mib2 = [](const char *name, const char *location, const char *contact) -> Change {
            return [=](TalHandler &tal) {
                Q_EMIT tal.signalSnmpdConfMib2Settings({qs(name), qs(location), qs(contact)});
            };
        };
        const auto access = [](const char *community, const char *word, const char *ip, const char *ipv6,
                               const char *port) -> Change {
            return [=](TalHandler &tal) {
                Q_EMIT tal.signalSnmpdConfAccessSettings({qs(community), qs(word), qs(ip), qs(ipv6), qs(port)});
            };
        };
        const auto trap = [](const char *address, const char *inform) -> Change {
            return [=](TalHandler &tal) { Q_EMIT tal.signalSnmpdConfTrapSettings({qs(address), qs(inform)}); };
        };
        const auto version = [](bool version1, bool version2c, bool version3) -> Change {
            return [=](TalHandler &tal) { Q_EMIT tal.signalSnmpdConfVersionSettings({version1, version2c, version3}); };
        };
        const auto row = [](const char *name, const Change &change, bool actedOn) {
            QTest::newRow(name) << change << actedOn;
        };
        row("mib2, equal", mib2("amp-1", "cellar", "ops"), false);
        row("sysName", mib2("amp-2", "cellar", "ops"), true);
        row("sysLocation", mib2("amp-1", "attic", "ops"), true);
        row("sysContact", mib2("amp-1", "cellar", "desk"), true);
        row("access, equal", access("public", "Read", "192.0.2.1", "2001:db8::1", "161"), false);
        row("community", access("secret", "Read", "192.0.2.1", "2001:db8::1", "161"), true);
        row("access", access("public", "Disabled", "192.0.2.1", "2001:db8::1", "161"), true);
        row("nmsIp", access("public", "Read", "192.0.2.9", "2001:db8::1", "161"), true);
        row("nmsIpv6 alone is not acted on", access("public", "Read", "192.0.2.1", "2001:db8::9", "161"), false);
        row("snmpPort", access("public", "Read", "192.0.2.1", "2001:db8::1", "1161"), true);
        row("receivers, equal", trap("192.0.2.7", "192.0.2.8"), false);
        row("trapAddress", trap("192.0.2.17", "192.0.2.8"), true);
        row("informAddress", trap("192.0.2.7", "192.0.2.18"), true);
        row("versions, equal", version(false, true, false), false);
        row("version1", version(true, true, false), true);
        row("version2c", version(false, false, false), true);
        row("version3 alone is not acted on", version(false, true, true), false);
    }

    void changeStartsTheSettingsTimer()
    {
        QFETCH(Change, change);
        QFETCH(bool, actedOn);
        SnmpdBench bench;
        bench.deliverSettings();
        QVERIFY(bench.settingsTimer()->isActive());
        bench.settle();
        QVERIFY(!bench.settingsTimer()->isActive());

        change(bench.tal.handler);
        QCOMPARE(bench.settingsTimer()->isActive(), actedOn);
        bench.settle();
        QCOMPARE(bench.configText() != usualFile, actedOn);
    }

    void changeRestartsARunningCountdown_data() { changeStartsTheSettingsTimer_data(); }
    void changeRestartsARunningCountdown()
    {
        QFETCH(Change, change);
        QFETCH(bool, actedOn);
        SnmpdBench bench;
        bench.deliverSettings();
        SnmpdBench::prolong(bench.settingsTimer());
        change(bench.tal.handler);
        QVERIFY(bench.settingsTimer()->isActive());
        QCOMPARE(SnmpdBench::isProlonged(bench.settingsTimer()), !actedOn);
    }

    void versionAndAddressThatAreNotComparedComeWithTheNextChange()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        bench.settle();
        SnmpAccessSettings access = SnmpdBench::access();
        access.nmsIpv6 = qs("2001:db8::9");
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(access);
        Q_EMIT bench.tal.handler.signalSnmpdConfTrapSettings({qs("192.0.2.17"), qs("192.0.2.8")});
        bench.settle();
        QVERIFY2(bench.configText().contains("2001:db8::1 "), "the new address was not stored by itself");

        access.snmpPort = qs("1161");
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(access);
        bench.settle();
        QVERIFY(bench.configText().contains("com2sec6 mynetwork 2001:db8::9 public\n"));
        QVERIFY(bench.configText().contains("udp:1161\n"));
    }

    void nothingIsWrittenBeforeTheCustomFlagIsKnown()
    {
        SnmpdBench bench;
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(SnmpdBench::access());
        QTRY_COMPARE(bench.count(settledEvent), 1);
        QVERIFY(!QFile::exists(bench.configFile));
        QCOMPARE(bench.tal.log.lines(), QStringList());
        QCOMPARE(bench.events, QStringList{settledEvent});
    }

    void sysNameAloneIsCopiedToTheAgent()
    {
        SnmpdBench bench;
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("early"), {}, {}}); // no agent yet: no harm
        QCOMPARE(bench.handler->sysName(), qs("early"));
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("K\xc3\xb6ln"), {}, {}});
        QCOMPARE(QByteArray(bench.agent.systemName), QByteArray("K\xf6ln"));
        QCOMPARE(bench.handler->sysName(), qs("K\xc3\xb6ln"));
        QVERIFY(bench.settingsTimer()->isActive());
    }

    void sysNameTogetherWithContactOrLocationIsNotCopiedAtThatMoment()
    {
        SnmpdBench bench;
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("amp-1"), {}, qs("ops")});
        QCOMPARE(bench.agentName(), qs("before"));
        QVERIFY(bench.settingsTimer()->isActive());
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("amp-2"), qs("cellar"), qs("ops")});
        QCOMPARE(bench.agentName(), qs("before"));
        QCOMPARE(bench.handler->sysName(), qs("amp-2"));
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("amp-3"), qs("cellar"), qs("ops")});
        QCOMPARE(bench.agentName(), qs("amp-3"));
    }

    void sysNameIsNotCopiedWithACustomFile()
    {
        SnmpdBench bench;
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("amp-1"), {}, {}});
        QCOMPARE(bench.agentName(), QString());
        QCOMPARE(bench.handler->sysName(), qs("amp-1"));
        QVERIFY(bench.settingsTimer()->isActive());
    }

    void sysNameIsCutTo256BytesOfLatin1()
    {
        SnmpdBench bench;
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({QString(300, QChar(0xe4)), {}, {}});
        QCOMPARE(QByteArray(bench.agent.systemName), QByteArray(256, '\xe4'));
    }

    void customFileIsKept()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "# by hand\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QCOMPARE(bench.tal.log.takeLines(),
                 QStringList{qs("SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device has custom snmpd.conf")});
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(SnmpdBench::access());
        bench.settle();
        const QStringList expected = {settledEvent, qs("finish")};
        QCOMPARE(bench.events, expected);
        QCOMPARE(bench.configText(), QByteArray("# by hand\n"));
        QCOMPARE(bench.tal.log.lines(), QStringList());
    }

    void customFileThatHasVanishedIsReplaced()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        bench.settle();
        QCOMPARE(bench.configText(), usualFile);
        QCOMPARE(bench.events, QStringList{settledEvent});
    }

    void customFlagTrueAppliesAtOnce()
    {
        SnmpdBench bench;
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QVERIFY(bench.handler->useCustomConfigFile());
        QCOMPARE(bench.agentName(), QString());
        QVERIFY(!bench.settingsTimer()->isActive());
        // Settled and known without the settings timer: a restart goes through.
        SnmpdBench::write(bench.configFile, "# by hand\n");
        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(bench.count(qs("run: killall|snmpd")), 1);
    }

    void customFlagFalseAgainWritesTheFile()
    {
        SnmpdBench bench;
        bench.startAgent();
        SnmpdBench::write(bench.configFile, "# by hand\n");
        bench.deliverSettings();
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        bench.settle();
        QCOMPARE(bench.agentName(), QString());
        bench.tal.log.takeLines();

        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(false);
        QVERIFY(!bench.handler->useCustomConfigFile());
        QCOMPARE(bench.agentName(), qs("amp-1"));
        QCOMPARE(
            bench.tal.log.lines(),
            QStringList{qs("SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device uses our generated snmpd.conf")});
        QVERIFY(bench.settingsTimer()->isActive());
        QTRY_COMPARE(bench.configText(), usualFile);
    }

    void customFlagWhileTheCountdownRuns()
    {
        SnmpdBench bench(qs("not watched, so that nothing restarts"));
        QVERIFY(QDir().mkpath(bench.folder));
        bench.restartTimer()->stop();
        SnmpdBench::write(bench.configFile, "# by hand\n");
        bench.deliverSettings();
        SnmpdBench::prolong(bench.settingsTimer());
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QVERIFY2(SnmpdBench::isProlonged(bench.settingsTimer()), "it runs on");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(false);
        QVERIFY2(!SnmpdBench::isProlonged(bench.settingsTimer()), "it begins anew");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        QTRY_VERIFY(!bench.settingsTimer()->isActive());
        const QStringList expected = {settledEvent, qs("finish")};
        QCOMPARE(bench.events, expected);
        QCOMPARE(bench.configText(), QByteArray("# by hand\n"));
    }

    void customFlagThatDoesNotChangeOnlyBecomesKnown()
    {
        SnmpdBench bench;
        bench.startAgent();
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(false);
        QVERIFY(!bench.settingsTimer()->isActive());
        QCOMPARE(bench.agentName(), qs("before"));
        QCOMPARE(bench.tal.log.lines(), QStringList());
        bench.settle();
        QVERIFY(QFile::exists(bench.configFile)); // known: the file is written
    }

    void otherAccessTextLeavesAnEmptyFile()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        bench.settle();
        SnmpAccessSettings access = SnmpdBench::access();
        access.access = qs("Write");
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(access);
        bench.tal.log.takeLines();
        bench.settle();
        QVERIFY(QFile::exists(bench.configFile));
        QCOMPARE(bench.configText(), QByteArray());
        QCOMPARE(bench.tal.log.lines(), QStringList{generatingLine});
    }

    void fileIsReadableByItsOwnerAlone()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "an older file that is not ours and much longer than nothing");
        QVERIFY(QFile::setPermissions(bench.configFile, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
        bench.deliverSettings();
        const mode_t umaskBefore = umask(0);
        bench.settle();
        umask(umaskBefore);
        struct stat status {};
        QCOMPARE(stat(QFile::encodeName(bench.configFile).constData(), &status), 0);
        QCOMPARE(uint{status.st_mode}, uint{S_IFREG | 0600});
        QCOMPARE(bench.configText(), usualFile);
    }

    void linkInPlaceOfTheFileIsReplacedNotFollowed()
    {
        SnmpdBench bench;
        const QString target = bench.dir.filePath(qs("target"));
        SnmpdBench::write(target, "somebody else's\n");
        QVERIFY(QFile::link(target, bench.configFile));
        bench.deliverSettings();
        bench.settle();
        QCOMPARE(SnmpdBench::read(target), QByteArray("somebody else's\n"));
        QVERIFY(!QFileInfo(bench.configFile).isSymLink());
        QCOMPARE(bench.configText(), usualFile);
    }

    void fileThatCannotBeCreatedIsPassedOverInSilence_data()
    {
        QTest::addColumn<bool>("folderExists");
        QTest::newRow("no folder") << false;
        QTest::newRow("a folder stands in the file's place") << true;
    }

    void fileThatCannotBeCreatedIsPassedOverInSilence()
    {
        QFETCH(bool, folderExists);
        SnmpdBench bench;
        bench.deliverSettings();
        if (folderExists)
            QVERIFY(QDir().mkpath(bench.configFile));
        else
            QVERIFY(QDir().rmdir(bench.folder));
        bench.settle();
        QCOMPARE(bench.events, QStringList{settledEvent});
        QCOMPARE(bench.tal.log.lines(), QStringList());
    }

    void fileThatCannotBeWrittenToItsEndIsRemoved()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        {
            const NoRoomForTheEnd noRoom;
            bench.settle();
        }
        QVERIFY(!QFileInfo::exists(bench.configFile));
        QCOMPARE(bench.events, (QStringList{settledEvent, qs("log(%1): snmpd.conf could not be written: File too large")
                                                              .arg(QString::number(LOG_ERR))}));

        bench.settle();
        QCOMPARE(bench.configText(), usualFile);
    }

    void fileThatCannotBeDeletedIsWrittenInPlace()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "# older\n");
        const Undeletable file(bench.configFile);
        bench.deliverSettings();
        bench.restartTimer()->stop();
        bench.tal.log.takeLines();
        {
            const AsOrdinaryUser user;
            bench.settle();
        }
        QCOMPARE(bench.configText(), usualFile);
        QCOMPARE(bench.events,
                 (QStringList{settledEvent,
                              qs("log(%1): snmpd.conf is written in place, it cannot be deleted: Permission denied")
                                  .arg(QString::number(LOG_WARNING))}));
        QCOMPARE(bench.tal.log.lines(), QStringList{generatingLine});
        QVERIFY(bench.restartTimer()->isActive());
    }

    void fileThatCannotBeWrittenToItsEndInPlaceIsEmptied()
    {
        SnmpdBench bench;
        SnmpdBench::write(bench.configFile, "# older\n");
        const Undeletable file(bench.configFile);
        bench.deliverSettings();
        bench.restartTimer()->stop();
        {
            const AsOrdinaryUser user;
            const NoRoomForTheEnd noRoom;
            bench.settle();
        }
        QCOMPARE(bench.configText(), QByteArray());
        QCOMPARE(bench.events,
                 (QStringList{settledEvent,
                              qs("log(%1): snmpd.conf could not be written in place and is empty now: File too large")
                                  .arg(QString::number(LOG_ERR))}));
        QVERIFY2(!bench.restartTimer()->isActive(), "snmpd goes on with what it has read");
    }

    void eachCutSettingIsLoggedOncePerWrite()
    {
        SnmpdBench bench;
        bench.deliverSettings();
        SnmpAccessSettings access = SnmpdBench::access();
        access.community = qs("public\nextend x /bin/sh");
        Q_EMIT bench.tal.handler.signalSnmpdConfAccessSettings(access);
        Q_EMIT bench.tal.handler.signalSnmpdConfMib2Settings({qs("amp-1"), qs("cellar\r"), qs("ops")});
        QCOMPARE(bench.events, QStringList()); // nothing before the file is written
        bench.settle();
        const QString line = qs("log(%1): Setting %2 cut at its first line end or NUL");
        const QString priority = QString::number(LOG_WARNING);
        const QStringList expected = {settledEvent, line.arg(priority, qs("sysLocation")),
                                      line.arg(priority, qs("community"))};
        QCOMPARE(bench.events, expected);
        QCOMPARE(bench.configText(), usualFile);

        bench.settle();
        QCOMPARE(bench.events, expected + expected);
    }
};

const TestEntry entry("tst_snmpdconfhandler", runTest<TestSnmpdConfHandler>);

#include "tst_snmpdconfhandler.moc"
