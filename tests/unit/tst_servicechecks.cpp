// The self-check's findings about the settings of a data service, and about one that delivers nothing.
#include "support/testprogram.h"

#include "check/checks.h"
#include "check/subject.h"
#include "tal/talhandler.h"

namespace {
using Access = SnmpAccessSettings;

Subject goodSubject()
{
    Subject subject(200);
    subject.model = 6420;
    subject.service.connected = true;
    subject.service.isComplete = true;
    const QStringList groups = TalHandler::settingsGroups();
    subject.service.groups = {groups.begin(), groups.end()};
    subject.service.customConfig = false;
    subject.service.settings.access = {QStringLiteral("public"), QStringLiteral("Read"), QStringLiteral("10.0.0.1"),
                                       QStringLiteral("::1"), QStringLiteral("161")};
    subject.service.settings.version.version2c = true;
    return subject;
}
} // namespace

class TestServiceChecks : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void accessText()
    {
        // clang-format off
        static constexpr struct {
            const char *name; QString Access::*field; const char *value; Status status; const char *text;
        } rows[] = {
            {"as it should be",      &Access::access,    "Read",     Status::Ok,
             "read access for 10.0.0.1 and ::1 on port 161"},
            {"disabled",             &Access::access,    "Disabled", Status::Failed,  "\"Disabled\""},
            {"another word",         &Access::access,    "Write",    Status::Failed,  "left empty"},
            {"no word",              &Access::access,    "",         Status::Failed,  "left empty"},
            {"no community",         &Access::community, "",         Status::Failed,  "community is empty"},
            {"no manager",           &Access::nmsIp,     "",         Status::Failed,  "manager's address is empty"},
            {"no IPv6 manager",      &Access::nmsIpv6,   "",         Status::Warning, "none over IPv6"},
            {"no port",              &Access::snmpPort,  "",         Status::Failed,  "the port is \"\""},
            {"port 0",               &Access::snmpPort,  "0",        Status::Failed,  "the port is \"0\""},
            {"port beyond the last", &Access::snmpPort,  "65536",    Status::Failed,  "the port is \"65536\""},
            {"port by name",         &Access::snmpPort,  "snmp",     Status::Failed,  "the port is \"snmp\""},
            {"the last port",        &Access::snmpPort,  "65535",    Status::Ok,      "on port 65535"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            Subject subject = goodSubject();
            subject.service.settings.access.*row.field = QLatin1String(row.value);
            const Outcome outcome = checkSnmpAccess(subject);
            QCOMPARE(outcome.status, row.status);
            QVERIFY2(outcome.text.contains(QLatin1String(row.text)), qPrintable(outcome.text));
            QCOMPARE(outcome.hint.isEmpty(), outcome.status == Status::Ok);
        }
    }

    void versions()
    {
        Subject subject = goodSubject();
        subject.service.settings.version = {false, false, true}; // version 3 gives no access
        QCOMPARE(checkSnmpAccess(subject).status, Status::Failed);
        subject.service.settings.version.version1 = true;
        QCOMPARE(checkSnmpAccess(subject).status, Status::Ok);
    }

    void customConfig()
    {
        Subject subject = goodSubject();
        subject.service.customConfig = true;
        subject.service.settings.access = {};
        QCOMPARE(checkSnmpAccess(subject).status, Status::NotApplicable);
        QCOMPARE(checkSnmpdConfSettings(subject).status, Status::NotApplicable);
    }

    void missingGroups()
    {
        Subject subject = goodSubject();
        QCOMPARE(checkSnmpSettings(subject).status, Status::Ok);
        subject.service.groups.remove(QStringLiteral("mib2_settings"));
        QCOMPARE(checkSnmpSettings(subject).status, Status::Warning);
        QVERIFY(checkSnmpSettings(subject).text.contains(QStringLiteral("mib2_settings")));
        subject.service.groups.remove(QStringLiteral("custom_config"));
        subject.service.customConfig.reset();
        QCOMPARE(checkSnmpSettings(subject).status, Status::Failed);
        subject.service.groups.clear();
        QVERIFY(checkSnmpSettings(subject).text.contains(QStringLiteral("delivers nothing")));
    }

    void values()
    {
        Subject subject = goodSubject();
        subject.service.values.insert(QStringLiteral("kvsnmp_sys_messages"), 3); // messages are no values
        QCOMPARE(checkDeviceValues(subject).status, Status::Failed);
        subject.service.values.insert(QStringLiteral("kvsnmp_voltage"), 5);
        QCOMPARE(checkDeviceValues(subject).text, QStringLiteral("5 values in 1 groups, 3 system messages"));
        subject.service.isComplete = false;
        QCOMPARE(checkDeviceValues(subject).status, Status::Warning);
    }

    void traps()
    {
        Subject subject = goodSubject();
        subject.service.enabledTraps = {{QStringLiteral("LET Fault"), false}, {QStringLiteral("RCI Fault"), false}};
        QCOMPARE(checkTrapsEnabled(subject).status, Status::Warning);
        subject.service.enabledTraps[QStringLiteral("RCI Fault")] = true;
        QCOMPARE(checkTrapsEnabled(subject).text, QStringLiteral("1 of 20, on: RCI Fault"));
        QCOMPARE(checkTrapReceivers(subject).status, Status::Warning); // none
        subject.service.settings.trap.trapAddress = QStringLiteral("127.0.0.1:1162");
        // Not the rest of the text: some machines cannot resolve the name localhost.
        QVERIFY(checkTrapReceivers(subject).text.startsWith(QStringLiteral("trap2sink 127.0.0.1:1162")));
        subject.service.customConfig = true; // then the file counts
        QCOMPARE(checkTrapReceivers(subject).status, Status::Warning);
        subject.conf = SnmpdConf("informsink 127.0.0.1 secret\n");
        QVERIFY(checkTrapReceivers(subject).text.startsWith(QStringLiteral("informsink 127.0.0.1")));
    }
};

const TestEntry entry("tst_servicechecks", runTest<TestServiceChecks>);
#include "tst_servicechecks.moc"
