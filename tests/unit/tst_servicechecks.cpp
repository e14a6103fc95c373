// What the self-check says of the settings that a data service delivers, and of one that delivers nothing.
#include "support/testprogram.h"

#include "check/checks.h"
#include "check/subject.h"

#include <QtTest>

Q_DECLARE_METATYPE(Status)

namespace {

/// Settings with which a device answers.
Subject goodSubject()
{
    Subject subject(200);
    subject.model = 6420;
    subject.service.connected = true;
    subject.service.isComplete = true;
    subject.service.groups = {settingsGroups.begin(), settingsGroups.end()};
    subject.service.customConfig = false;
    SnmpAccessSettings &access = subject.service.settings.access;
    access.access = QStringLiteral("Read");
    access.community = QStringLiteral("public");
    access.nmsIp = QStringLiteral("10.0.0.1");
    access.nmsIpv6 = QStringLiteral("::1");
    access.snmpPort = QStringLiteral("161");
    subject.service.settings.version.version2c = true;
    return subject;
}

} // namespace

class TestServiceChecks : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void accessText_data()
    {
        QTest::addColumn<int>("field");
        QTest::addColumn<QString>("value");
        QTest::addColumn<Status>("status");
        QTest::addColumn<QString>("text");
        const auto row = [](const char *name, int field, const char *value, Status status, const char *text) {
            QTest::newRow(name) << field << QString::fromLatin1(value) << status << QString::fromLatin1(text);
        };
        row("as it should be", 0, "Read", Status::Ok, "read access for 10.0.0.1 and ::1 on port 161");
        row("disabled", 0, "Disabled", Status::Failed, "\"Disabled\"");
        row("another word", 0, "Write", Status::Failed, "left empty");
        row("no word", 0, "", Status::Failed, "left empty");
        row("no community", 1, "", Status::Failed, "community is empty");
        row("no manager", 2, "", Status::Failed, "manager's address is empty");
        row("no IPv6 manager", 3, "", Status::Warning, "none over IPv6");
        row("no port", 4, "", Status::Failed, "the port is \"\"");
        row("port 0", 4, "0", Status::Failed, "the port is \"0\"");
        row("port beyond the last", 4, "65536", Status::Failed, "the port is \"65536\"");
        row("port by name", 4, "snmp", Status::Failed, "the port is \"snmp\"");
        row("the last port", 4, "65535", Status::Ok, "on port 65535");
    }

    void accessText()
    {
        QFETCH(int, field);
        QFETCH(QString, value);
        QFETCH(QString, text);
        constexpr QString SnmpAccessSettings::*fields[] = {&SnmpAccessSettings::access, &SnmpAccessSettings::community,
                                                           &SnmpAccessSettings::nmsIp, &SnmpAccessSettings::nmsIpv6,
                                                           &SnmpAccessSettings::snmpPort};
        Subject subject = goodSubject();
        subject.service.settings.access.*fields[field] = value;
        const Outcome outcome = checkSnmpAccess(subject);
        QTEST(outcome.status, "status");
        QVERIFY2(outcome.text.contains(text), qPrintable(outcome.text));
        QCOMPARE(outcome.hint.isEmpty(), outcome.status == Status::Ok);
    }

    void versions()
    {
        Subject subject = goodSubject();
        subject.service.settings.version = {};
        subject.service.settings.version.version3 = true; // gives no access
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
        QCOMPARE(checkTrapReceivers(subject).text, QStringLiteral("trap2sink 127.0.0.1:1162"));
        subject.service.customConfig = true; // then the file counts
        QCOMPARE(checkTrapReceivers(subject).status, Status::Warning);
        subject.conf = SnmpdConf("informsink 127.0.0.1 secret\n");
        QCOMPARE(checkTrapReceivers(subject).text, QStringLiteral("informsink 127.0.0.1"));
    }
};

const TestEntry entry("tst_servicechecks", runTest<TestServiceChecks>);
#include "tst_servicechecks.moc"
