// The SNMP settings: texts, version flags, custom configuration, addresses and the map of enabled traps.
#include "support/talbench.h"
#include "support/testprogram.h"

#include <QMap>
#include <QSignalSpy>

namespace {

const QString settings = QStringLiteral("/state/config/snmp_settings/");
const QString trapSettings = settings + qs("trap_settings");

using Traps = QMap<QString, bool>;

const QStringList trapNames{qs("Cooling Fan Fault"),
                            qs("Missing Amplifier Module"),
                            qs("PSU Voltage Fault"),
                            qs("Selected Line Voltage Fault"),
                            qs("LET Fault"),
                            qs("Amplifier Shutdown"),
                            qs("Speaker Line Monitoring Fault"),
                            qs("Overtemperature"),
                            qs("Fuse Broken"),
                            qs("Amplifier Disabled"),
                            qs("RCO Fault"),
                            qs("RCI Fault"),
                            qs("DC Power Fault"),
                            qs("AC Power Fault"),
                            qs("ETH Port Disconnected"),
                            qs("Microphone Error"),
                            qs("Missing EMBDR Module"),
                            qs("Custom Fault"),
                            qs("Line In Fault"),
                            qs("Software Fault")};

/// One text leaf: reference, group and leaf in the data service, place among the texts of its record.
struct TextLeaf {
    const char *ref;
    const char *name;
    int field;
};

const TextLeaf textLeaves[] = {
    {"mib2_settings", "sys_name", 0},       {"mib2_settings", "sys_location", 1}, {"mib2_settings", "sys_contact", 2},
    {"access_control", "community", 0},     {"access_control", "access", 1},      {"access_control", "nms_ip", 2},
    {"access_control", "nms_ipv6", 3},      {"access_control", "snmp_port", 4},   {"trap_settings", "trap_address", 0},
    {"trap_settings", "inform_address", 1},
};

/// The group's path; only one reference is not spelled like its group.
QString groupPath(const char *ref)
{
    return settings + (qstrcmp(ref, "mib2_settings") == 0 ? qs("mib_2_settings") : qs(ref));
}

/// A bench that keeps what the settings signals carry.
class SettingsBench : public TalBench {
public:
    SettingsBench() : TalBench(6420)
    {
        using Handler = TalHandler;
        QObject::connect(&handler, &Handler::signalSnmpdConfMib2Settings, &handler, [this](const SnmpMib2Settings &s) {
            emitted << qs("mib2");
            texts = QStringList{s.sysName, s.sysLocation, s.sysContact};
        });
        QObject::connect(&handler, &Handler::signalSnmpdConfAccessSettings, &handler,
                         [this](const SnmpAccessSettings &s) {
                             emitted << qs("access");
                             texts = QStringList{s.community, s.access, s.nmsIp, s.nmsIpv6, s.snmpPort};
                         });
        QObject::connect(&handler, &Handler::signalSnmpdConfTrapSettings, &handler, [this](const SnmpTrapSettings &s) {
            emitted << qs("trap");
            texts = QStringList{s.trapAddress, s.informAddress};
        });
        QObject::connect(&handler, &Handler::signalUpdateEnabledSnmpTraps, &handler, [this](Traps &enabled) {
            emitted << qs("enabled");
            traps = enabled;
            map = &enabled;
        });
        QObject::connect(&handler, &Handler::signalSnmpdConfVersionSettings, &handler,
                         [this](const SnmpVersionSettings &s) {
                             emitted << qs("version");
                             versions = QStringLiteral("%1%2%3").arg(s.version1).arg(s.version2c).arg(s.version3);
                         });
        QObject::connect(&handler, &Handler::signalSnmpdConfUseCustomConfFile, &handler,
                         [this](bool use) { emitted << (use ? qs("custom") : qs("no custom")); });
    }

    /// A change of one leaf below the subscribed group.
    void settingsLeaf(const char *ref, const char *op, const QString &path, const QString &text)
    {
        notify(ref, op, path, leafXml(path, text), groupPath(ref));
    }

    QStringList takeEmitted()
    {
        QStringList all;
        all.swap(emitted);
        return all;
    }

    QStringList emitted;  ///< names of the signals, in order
    QStringList texts;    ///< of the last record of texts
    QString versions;     ///< of the last version record, e.g. "011"
    Traps traps;          ///< copy of the last map
    Traps *map = nullptr; ///< the last map itself
};

QString trapPath(const char *name)
{
    return QStringLiteral("%1/traps/trap[name='%2']").arg(trapSettings, qs(name));
}

/// One trap of a list.
QString trapXml(const char *name, const char *enabled)
{
    return QStringLiteral("<trap><name>%1</name><enabled>%2</enabled></trap>").arg(qs(name), qs(enabled));
}

QString listXml(const QString &traps)
{
    return QStringLiteral("<trap_settings><trap_address>192.0.2.1</trap_address><traps>%1</traps></trap_settings>")
        .arg(traps);
}

QStringList enabledNames(const Traps &traps)
{
    return traps.keys(true);
}

} // namespace

class TestSnmpSettings : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void recordsAreKnownUnderTheirOwnNames();
    void textLeaf_data();
    void textLeaf();
    void textValue_data();
    void textValue();
    void wholeGroups();
    void oneLeafKeepsTheOthers();
    void groupWithoutAKnownLeafIsStillHandedOn_data();
    void groupWithoutAKnownLeafIsStillHandedOn();

    void versionFlags_data();
    void versionFlags();
    void versionFlagsStartFalseAndKeepTheirValue();
    void upperCaseTrueIsFalse();

    void customConfig_data();
    void customConfig();

    void mapHasTwentyKeysAllFalseAtFirst();
    void trapSignalsInOrderAndTheMapItself();
    void trapFlag_data();
    void trapFlag();
    void trapReplaceOfOneFlagLeavesTheOthers();
    void trapDeleteOfOneFlag();
    void trapDeleteOfTheWholeGroup();
    void trapCreateOfEveryName_data();
    void trapCreateOfEveryName();
    void trapCreate_data();
    void trapCreate();
    void trapCreateFirstPassSetsFalse();
    void trapCreateOfOneTrap();
    void trapCreateOfTheFlagAloneIsFalse();
    void trapCreateKeepsTrapsThatItDoesNotName();
    void trapListBrokenInTheMiddleKeepsWhatWasRead();
    void trapListOfAReplaceIsReadWithoutTheStream();
    void namesOutsideTheMapAreIgnored();
};

void TestSnmpSettings::recordsAreKnownUnderTheirOwnNames()
{
    registerSnmpSettingsTypes();
    registerSnmpSettingsTypes(); // a second time is harmless
    QCOMPARE(QMetaType::type("SnmpMib2Settings"), qMetaTypeId<SnmpMib2Settings>());
    QCOMPARE(QMetaType::type("SnmpAccessSettings"), qMetaTypeId<SnmpAccessSettings>());
    QCOMPARE(QMetaType::type("SnmpTrapSettings"), qMetaTypeId<SnmpTrapSettings>());
    QCOMPARE(QMetaType::type("SnmpVersionSettings"), qMetaTypeId<SnmpVersionSettings>());
}

void TestSnmpSettings::textLeaf_data()
{
    QTest::addColumn<int>("which");
    for (int which = 0; which < int(std::size(textLeaves)); ++which)
        QTest::newRow(textLeaves[which].name) << which;
}

void TestSnmpSettings::textLeaf()
{
    QFETCH(int, which);
    const TextLeaf &leaf = textLeaves[which];
    const QString path = groupPath(leaf.ref) + qs("/") + qs(leaf.name);

    SettingsBench bench;
    bench.notify(leaf.ref, "replace", groupPath(leaf.ref), leafXml(groupPath(leaf.ref), QString()));
    QStringList expected; // every text of the record is empty at first
    for (int field = 0; field < bench.texts.size(); ++field)
        expected << QString();
    QVERIFY(!expected.isEmpty());
    QCOMPARE(bench.texts, expected);

    for (const char *op : {"create", "replace"}) {
        bench.settingsLeaf(leaf.ref, op, path, qs("value of ") + qs(op));
        expected[leaf.field] = qs("value of ") + qs(op);
        QCOMPARE(bench.texts, expected);
    }
    bench.settingsLeaf(leaf.ref, "patch", path, qs("ignored"));
    QCOMPARE(bench.texts, expected);
    bench.settingsLeaf(leaf.ref, "Delete", path, qs("ignored"));
    QCOMPARE(bench.texts, expected);

    bench.settingsLeaf(leaf.ref, "delete", path, expected[leaf.field]);
    expected[leaf.field] = QString();
    QCOMPARE(bench.texts, expected);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestSnmpSettings::textValue_data()
{
    QTest::addColumn<QString>("sent");
    QTest::addColumn<QString>("stored");
    QTest::newRow("plain") << qs("public") << qs("public");
    QTest::newRow("blanks only") << qs("   ") << QString();
    QTest::newRow("blanks, tab and line end only") << qs(" \t\n ") << QString();
    QTest::newRow("surrounding blanks stay") << qs(" public ") << qs(" public ");
    QTest::newRow("inner blanks stay") << qs("my  community") << qs("my  community");
    QTest::newRow("markup characters") << qs("a<b>&\"c") << qs("a<b>&\"c");
    QTest::newRow("beyond ASCII") << qs("M\xc3\xbcnchen \xe4\xb8\xad") << qs("M\xc3\xbcnchen \xe4\xb8\xad");
    QTest::newRow("empty") << QString() << QString();
}

void TestSnmpSettings::textValue()
{
    QFETCH(QString, sent);
    QFETCH(QString, stored);

    for (const TextLeaf &leaf : textLeaves)
        for (const char *op : {"create", "replace"}) {
            SettingsBench bench;
            const QString path = groupPath(leaf.ref) + qs("/") + qs(leaf.name);
            bench.settingsLeaf(leaf.ref, "replace", path, qs("before"));
            bench.settingsLeaf(leaf.ref, op, path, sent);
            QCOMPARE(bench.texts.value(leaf.field), stored);
        }
}

void TestSnmpSettings::wholeGroups()
{
    SettingsBench bench;
    bench.notify("mib2_settings", "create", settings + qs("mib_2_settings"),
                 qs("<mib_2_settings><sys_contact>C</sys_contact><sys_name>N</sys_name><sys_location>L</sys_location>"
                    "</mib_2_settings>"));
    QCOMPARE(bench.texts, QStringList({qs("N"), qs("L"), qs("C")}));
    bench.notify("access_control", "create", settings + qs("access_control"),
                 qs("<access_control><community>public</community><access>Read</access><nms_ip>192.0.2.9</nms_ip>"
                    "<nms_ipv6>2001:db8::9</nms_ipv6><snmp_port>161</snmp_port></access_control>"));
    QCOMPARE(bench.texts, QStringList({qs("public"), qs("Read"), qs("192.0.2.9"), qs("2001:db8::9"), qs("161")}));
    QCOMPARE(bench.takeEmitted(), QStringList({qs("mib2"), qs("access")}));

    bench.notify("access_control", "delete", settings + qs("access_control"),
                 qs("<access_control><community>public</community><access>Read</access></access_control>"));
    QCOMPARE(bench.texts, QStringList({QString(), QString(), qs("192.0.2.9"), qs("2001:db8::9"), qs("161")}));
    bench.notify("access_control", "delete", settings + qs("access_control"), QString());
    QCOMPARE(bench.texts, QStringList({QString(), QString(), qs("192.0.2.9"), qs("2001:db8::9"), qs("161")}));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestSnmpSettings::oneLeafKeepsTheOthers()
{
    SettingsBench bench;
    bench.notify("mib2_settings", "create", settings + qs("mib_2_settings"),
                 qs("<mib_2_settings><sys_name>N</sys_name><sys_location>L</sys_location></mib_2_settings>"));
    bench.settingsLeaf("mib2_settings", "replace", settings + qs("mib_2_settings/sys_contact"), qs("C"));
    QCOMPARE(bench.takeEmitted(), QStringList({qs("mib2"), qs("mib2")}));
    QCOMPARE(bench.texts, QStringList({qs("N"), qs("L"), qs("C")}));
}

void TestSnmpSettings::groupWithoutAKnownLeafIsStillHandedOn_data()
{
    QTest::addColumn<QByteArray>("ref");
    QTest::addColumn<QStringList>("signalsSent");
    QTest::newRow("mib2_settings") << QByteArray("mib2_settings") << QStringList{qs("mib2")};
    QTest::newRow("access_control") << QByteArray("access_control") << QStringList{qs("access")};
    QTest::newRow("trap_settings") << QByteArray("trap_settings") << QStringList{qs("trap"), qs("enabled")};
    QTest::newRow("version_control") << QByteArray("version_control") << QStringList{qs("version")};
    QTest::newRow("custom_config") << QByteArray("custom_config") << QStringList(); // only when its leaf is there
}

void TestSnmpSettings::groupWithoutAKnownLeafIsStillHandedOn()
{
    QFETCH(QByteArray, ref);
    QFETCH(QStringList, signalsSent);

    SettingsBench bench;
    const QString other = settings + qs("another_group");
    for (const char *op : {"create", "replace", "delete", "patch", ""}) {
        bench.notify(ref, op, other, qs("<another_group><leaf>true</leaf></another_group>"), groupPath(ref));
        QCOMPARE(bench.takeEmitted(), signalsSent);
        QCOMPARE(bench.log.lines(), QStringList());
        for (const char *data : {"", "no xml at all", "<mib_2_settings><sys_name>x", "<a></b>"}) {
            bench.notify(ref, op, other, qs(data), groupPath(ref));
            QCOMPARE(bench.takeEmitted(), signalsSent);
        }
    }
    QCOMPARE(bench.texts.join(QString()), QString());
    QCOMPARE(enabledNames(bench.traps), QStringList());
}

void TestSnmpSettings::versionFlags_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("value");
    QTest::newRow("create true") << QByteArray("create") << qs("true") << true;
    QTest::newRow("replace true") << QByteArray("replace") << qs("true") << true;
    QTest::newRow("create false") << QByteArray("create") << qs("false") << false;
    QTest::newRow("replace false") << QByteArray("replace") << qs("false") << false;
    QTest::newRow("True") << QByteArray("replace") << qs("True") << false;
    QTest::newRow("TRUE") << QByteArray("replace") << qs("TRUE") << false;
    QTest::newRow("leading blank") << QByteArray("replace") << qs(" true") << false;
    QTest::newRow("trailing blank") << QByteArray("create") << qs("true ") << false;
    QTest::newRow("1") << QByteArray("replace") << qs("1") << false;
    QTest::newRow("empty") << QByteArray("replace") << QString() << false;
    QTest::newRow("delete") << QByteArray("delete") << qs("true") << false;
    QTest::newRow("any other operation") << QByteArray("patch") << qs("true") << false;
}

void TestSnmpSettings::versionFlags()
{
    QFETCH(QByteArray, op);
    QFETCH(QString, text);
    QFETCH(bool, value);

    const char *const leaves[] = {"version_1", "version_2c", "version_3"};
    for (int place = 0; place < 3; ++place)
        for (const bool before : {false, true}) {
            SettingsBench bench;
            const QString all = before ? qs("true") : qs("false");
            bench.notify("version_control", "create", settings + qs("version_control"),
                         QStringLiteral("<version_control><version_1>%1</version_1><version_2c>%1</version_2c>"
                                        "<version_3>%1</version_3></version_control>")
                             .arg(all));
            QCOMPARE(bench.versions, before ? qs("111") : qs("000"));

            bench.settingsLeaf("version_control", op, settings + qs("version_control/") + qs(leaves[place]), text);
            QString expected = before ? qs("111") : qs("000");
            expected[place] = value ? QLatin1Char('1') : QLatin1Char('0');
            QCOMPARE(bench.versions, expected);
            QCOMPARE(bench.takeEmitted(), QStringList({qs("version"), qs("version")}));
            QCOMPARE(bench.log.lines(), QStringList());
        }
}

void TestSnmpSettings::versionFlagsStartFalseAndKeepTheirValue()
{
    SettingsBench bench;
    bench.notify("version_control", "create", settings + qs("version_control"), qs("<version_control/>"));
    QCOMPARE(bench.versions, qs("000"));
    bench.settingsLeaf("version_control", "replace", settings + qs("version_control/version_3"), qs("true"));
    bench.settingsLeaf("version_control", "replace", settings + qs("version_control/version_1"), qs("true"));
    bench.notify("version_control", "delete", settings + qs("version_control"), qs("<version_control/>"));
    QCOMPARE(bench.versions, qs("101"));
}

void TestSnmpSettings::upperCaseTrueIsFalse()
{
    SettingsBench bench;
    bench.settingsLeaf("version_control", "replace", settings + qs("version_control/version_2c"), qs("true"));
    bench.settingsLeaf("version_control", "replace", settings + qs("version_control/version_2c"), qs("TRUE"));
    QCOMPARE(bench.versions, qs("000"));
}

void TestSnmpSettings::customConfig_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QString>("data");
    QTest::addColumn<QStringList>("signalsSent");
    const QString yes = qs("<custom_config>true</custom_config>");
    const QStringList custom{qs("custom")};
    const QStringList noCustom{qs("no custom")};
    QTest::newRow("create true") << QByteArray("create") << yes << custom;
    QTest::newRow("replace true") << QByteArray("replace") << yes << custom;
    QTest::newRow("create false") << QByteArray("create") << qs("<custom_config>false</custom_config>") << noCustom;
    QTest::newRow("replace True") << QByteArray("replace") << qs("<custom_config>True</custom_config>") << noCustom;
    QTest::newRow("blank before") << QByteArray("replace") << qs("<custom_config> true</custom_config>") << noCustom;
    QTest::newRow("empty") << QByteArray("replace") << qs("<custom_config/>") << noCustom;
    QTest::newRow("delete") << QByteArray("delete") << yes << noCustom;
    QTest::newRow("delete with no data") << QByteArray("delete") << QString() << noCustom;
    QTest::newRow("any other operation") << QByteArray("patch") << yes << noCustom;
}

void TestSnmpSettings::customConfig()
{
    QFETCH(QByteArray, op);
    QFETCH(QString, data);
    QFETCH(QStringList, signalsSent);

    SettingsBench bench;
    bench.notify("custom_config", op, settings + qs("custom_config"), data);
    QCOMPARE(bench.takeEmitted(), signalsSent);
    bench.notify("custom_config", op, settings + qs("custom_config"), data); // and again when nothing changed
    QCOMPARE(bench.takeEmitted(), signalsSent);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestSnmpSettings::mapHasTwentyKeysAllFalseAtFirst()
{
    SettingsBench bench;
    bench.notify("trap_settings", "replace", trapSettings, qs("<trap_settings/>"));
    QStringList sorted = trapNames;
    sorted.sort();
    QCOMPARE(bench.traps.keys(), sorted);
    QCOMPARE(enabledNames(bench.traps), QStringList());
}

void TestSnmpSettings::trapSignalsInOrderAndTheMapItself()
{
    SettingsBench bench;
    bench.notify("trap_settings", "replace", trapSettings, listXml(trapXml("Fuse Broken", "true")));
    QCOMPARE(bench.takeEmitted(), QStringList({qs("trap"), qs("enabled")}));
    QCOMPARE(bench.texts, QStringList({qs("192.0.2.1"), QString()}));
    const Traps *first = bench.map;
    bench.notify("trap_settings", "patch", trapSettings, qs("<trap_settings/>"));
    QCOMPARE(bench.map, first);
    QCOMPARE(enabledNames(*first), QStringList{qs("Fuse Broken")});
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestSnmpSettings::trapFlag_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("enabled");
    QTest::newRow("true") << QByteArray("replace") << qs("true") << true;
    QTest::newRow("false") << QByteArray("replace") << qs("false") << false;
    QTest::newRow("True") << QByteArray("replace") << qs("True") << false;
    QTest::newRow("leading blank") << QByteArray("replace") << qs(" true") << false;
    QTest::newRow("trailing blank") << QByteArray("replace") << qs("true ") << false;
    QTest::newRow("blanks") << QByteArray("replace") << qs("  ") << false;
    QTest::newRow("empty") << QByteArray("replace") << QString() << false;
    QTest::newRow("any other operation") << QByteArray("patch") << qs("true") << false;
    QTest::newRow("operation in other case") << QByteArray("Replace") << qs("true") << false;
    QTest::newRow("no operation") << QByteArray("") << qs("true") << false;
}

void TestSnmpSettings::trapFlag()
{
    QFETCH(QByteArray, op);
    QFETCH(QString, text);
    QFETCH(bool, enabled);

    for (const QString &name : trapNames)
        for (const bool before : {false, true}) {
            SettingsBench bench;
            const QString path = trapPath(name.toLatin1()) + qs("/enabled");
            if (before)
                bench.settingsLeaf("trap_settings", "replace", path, qs("true"));
            bench.settingsLeaf("trap_settings", op, path, text);
            QCOMPARE(enabledNames(bench.traps), enabled ? QStringList{name} : QStringList());
            QCOMPARE(bench.traps.size(), 20);
        }
}

void TestSnmpSettings::trapReplaceOfOneFlagLeavesTheOthers()
{
    SettingsBench bench;
    bench.settingsLeaf("trap_settings", "replace", trapPath("Overtemperature") + qs("/enabled"), qs("true"));
    bench.settingsLeaf("trap_settings", "replace", trapPath("LET Fault") + qs("/enabled"), qs("true"));
    QCOMPARE(enabledNames(bench.traps), QStringList({qs("LET Fault"), qs("Overtemperature")}));
    bench.settingsLeaf("trap_settings", "replace", trapPath("LET Fault") + qs("/enabled"), qs("false"));
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("Overtemperature")});
    bench.settingsLeaf("trap_settings", "replace", trapSettings + qs("/trap_address"), qs("192.0.2.7"));
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("Overtemperature")});
}

void TestSnmpSettings::trapDeleteOfOneFlag()
{
    SettingsBench bench;
    bench.notify("trap_settings", "replace", trapSettings,
                 listXml(trapXml("Overtemperature", "true") + trapXml("Fuse Broken", "true")));
    QCOMPARE(enabledNames(bench.traps), QStringList({qs("Fuse Broken"), qs("Overtemperature")}));
    bench.settingsLeaf("trap_settings", "delete", trapPath("Fuse Broken") + qs("/enabled"), qs("true"));
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("Overtemperature")});
    bench.notify("trap_settings", "delete", trapPath("Overtemperature") + qs("/enabled"), QString(), trapSettings);
    QCOMPARE(enabledNames(bench.traps), QStringList());
}

void TestSnmpSettings::trapDeleteOfTheWholeGroup()
{
    SettingsBench bench;
    const QString list = listXml(trapXml("Overtemperature", "true"));
    bench.notify("trap_settings", "create", trapSettings, list);
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("Overtemperature")});
    bench.notify("trap_settings", "delete", trapSettings, list);
    QCOMPARE(enabledNames(bench.traps), QStringList());
    QCOMPARE(bench.texts, QStringList({QString(), QString()}));
}

void TestSnmpSettings::trapCreateOfEveryName_data()
{
    QTest::addColumn<QString>("name");
    for (const QString &name : trapNames)
        QTest::newRow(qPrintable(name)) << name;
}

void TestSnmpSettings::trapCreateOfEveryName()
{
    QFETCH(QString, name);

    SettingsBench bench;
    QString list;
    for (const QString &each : trapNames)
        list += trapXml(each.toLatin1(), each == name ? "true" : "false");
    bench.notify("trap_settings", "create", trapSettings, listXml(list));
    QCOMPARE(enabledNames(bench.traps), QStringList{name});
    QCOMPARE(bench.log.lines(), QStringList());
}

// How the list of a "create" is read, on a map in which "Fuse Broken" was enabled before.
void TestSnmpSettings::trapCreate_data()
{
    QTest::addColumn<QString>("traps");
    QTest::addColumn<bool>("enabled");

    const auto row = [](const char *name, const char *traps, bool enabled) {
        QTest::newRow(name) << qs(traps) << enabled;
    };
    row("enabled directly after name", "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>", true);
    row("more leaves behind", "<trap><name>Fuse Broken</name><enabled>true</enabled><text>x</text></trap>", true);
    row("text false", "<trap><name>Fuse Broken</name><enabled>false</enabled></trap>", false);
    row("text True", "<trap><name>Fuse Broken</name><enabled>True</enabled></trap>", false);
    row("text with a blank", "<trap><name>Fuse Broken</name><enabled> true</enabled></trap>", false);
    row("no enabled: as it was", "<trap><name>Fuse Broken</name></trap>", true);
    row("another leaf between", "<trap><name>Fuse Broken</name><text/><enabled>true</enabled></trap>", false);
    row("another leaf first", "<trap><text/><name>Fuse Broken</name><enabled>true</enabled></trap>", false);
    row("enabled first", "<trap><enabled>true</enabled><name>Fuse Broken</name></trap>", false);
    row("white space before name", "<trap> <name>Fuse Broken</name><enabled>true</enabled></trap>", false);
    row("white space before enabled", "<trap><name>Fuse Broken</name>\n<enabled>true</enabled></trap>", false);
    row("comment before enabled", "<trap><name>Fuse Broken</name><!-- --><enabled>true</enabled></trap>", false);
    row("white space between traps",
        "\n<trap><name>RCI Fault</name><enabled>false</enabled></trap>\n"
        "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>\n",
        true);
    row("enabled in other case", "<trap><name>Fuse Broken</name><Enabled>true</Enabled></trap>", true);
    row("last one of a name holds",
        "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>"
        "<trap><name>Fuse Broken</name><enabled>false</enabled></trap>",
        false);
    row("name element that begins with name", "<trap><name_en>Fuse Broken</name_en><enabled>false</enabled></trap>",
        false);
    row("name element that does not", "<trap><title>Fuse Broken</title><enabled>false</enabled></trap>", true);
    row("trap in other case", "<Trap><name>Fuse Broken</name><enabled>false</enabled></Trap>", true);
    row("name in other case", "<trap><name>fuse broken</name><enabled>false</enabled></trap>", true);
    row("name with a blank behind", "<trap><name>Fuse Broken </name><enabled>false</enabled></trap>", true);
    row("an element inside a name ends the reading",
        "<trap><name>RCI Fault<b/></name></trap><trap><name>Fuse Broken</name><enabled>true</enabled></trap>", false);
    row("empty trap", "<trap/>", true);
    row("empty list", "", true);
}

void TestSnmpSettings::trapCreate()
{
    QFETCH(QString, traps);
    QFETCH(bool, enabled);

    SettingsBench bench;
    bench.settingsLeaf("trap_settings", "replace", trapPath("Fuse Broken") + qs("/enabled"), qs("true"));
    bench.takeEmitted();
    bench.notify("trap_settings", "create", trapSettings, listXml(traps));
    QCOMPARE(enabledNames(bench.traps), enabled ? QStringList{qs("Fuse Broken")} : QStringList());
    QCOMPARE(bench.traps.size(), 20);
    QCOMPARE(bench.takeEmitted(), QStringList({qs("trap"), qs("enabled")}));
    QCOMPARE(bench.log.lines(), QStringList());
}

// Intended: each leaf of a "create" first makes its flag false; only the list, read in its own strict way, enables.
void TestSnmpSettings::trapCreateFirstPassSetsFalse()
{
    SettingsBench bench;
    const QString spaced = listXml(qs("<trap>\n<name>Overtemperature</name>\n<enabled>true</enabled>\n</trap>"));
    bench.notify("trap_settings", "replace", trapSettings, spaced);
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("Overtemperature")});
    bench.notify("trap_settings", "create", trapSettings, spaced);
    QCOMPARE(enabledNames(bench.traps), QStringList());
}

void TestSnmpSettings::trapCreateOfOneTrap()
{
    SettingsBench bench;
    bench.notify("trap_settings", "create", trapPath("AC Power Fault"), trapXml("AC Power Fault", "true"),
                 trapSettings);
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("AC Power Fault")});
}

void TestSnmpSettings::trapCreateOfTheFlagAloneIsFalse()
{
    SettingsBench bench;
    bench.settingsLeaf("trap_settings", "replace", trapPath("AC Power Fault") + qs("/enabled"), qs("true"));
    bench.settingsLeaf("trap_settings", "create", trapPath("AC Power Fault") + qs("/enabled"), qs("true"));
    QCOMPARE(enabledNames(bench.traps), QStringList());
}

void TestSnmpSettings::trapCreateKeepsTrapsThatItDoesNotName()
{
    SettingsBench bench;
    bench.settingsLeaf("trap_settings", "replace", trapPath("RCO Fault") + qs("/enabled"), qs("true"));
    bench.notify("trap_settings", "create", trapSettings, listXml(trapXml("LET Fault", "true")));
    QCOMPARE(enabledNames(bench.traps), QStringList({qs("LET Fault"), qs("RCO Fault")}));
}

void TestSnmpSettings::trapListBrokenInTheMiddleKeepsWhatWasRead()
{
    SettingsBench bench;
    bench.settingsLeaf("trap_settings", "replace", trapPath("RCI Fault") + qs("/enabled"), qs("true"));
    bench.takeEmitted();
    bench.notify("trap_settings", "create", trapSettings,
                 qs("<trap_settings><trap_address>192.0.2.1</trap_address><traps>"
                    "<trap><name>LET Fault</name><enabled>true</enabled></trap>"
                    "<trap><name>RCI Fault</name><enabled>false</wrong></trap>"
                    "<trap><name>RCO Fault</name><enabled>true</enabled></trap></traps></trap_settings>"));
    QVERIFY(bench.traps.value(qs("LET Fault")));
    QVERIFY(!bench.traps.value(qs("RCO Fault")));
    QCOMPARE(bench.takeEmitted(), QStringList({qs("trap"), qs("enabled")}));
    QCOMPARE(bench.texts, QStringList({QString(), QString()})); // no leaf can be looked up in a broken document
}

void TestSnmpSettings::trapListOfAReplaceIsReadWithoutTheStream()
{
    SettingsBench bench;
    bench.notify("trap_settings", "replace", trapSettings,
                 listXml(qs("<trap><text/><name>LET Fault</name><enabled>true</enabled></trap>") +
                         trapXml("LET Fault", "false") + // the first one of a name holds
                         qs("<trap><name_en>RCO Fault</name_en><enabled>true</enabled></trap>")));
    QCOMPARE(enabledNames(bench.traps), QStringList{qs("LET Fault")});
}

void TestSnmpSettings::namesOutsideTheMapAreIgnored()
{
    SettingsBench bench;
    for (const char *op : {"create", "replace"}) {
        bench.notify("trap_settings", op, trapSettings,
                     listXml(trapXml("Coffee Machine Fault", "true") + trapXml("", "true") +
                             qs("<trap><name>LET Fault</name></trap>")));
        QCOMPARE(bench.traps.size(), 20);
        QVERIFY(!bench.traps.contains(qs("Coffee Machine Fault")));
        QCOMPARE(enabledNames(bench.traps), QStringList());
    }
}

const TestEntry entry("tst_snmpsettings", runTest<TestSnmpSettings>);
#include "tst_snmpsettings.moc"
