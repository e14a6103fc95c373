// The SNMP settings: texts, version flags, custom configuration, addresses and the map of enabled traps.
#include "support/catalogue.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include <QMap>

namespace {

const QString settings = QStringLiteral("/state/config/snmp_settings/");

using Traps = QMap<QString, bool>;

/// The group's path; only one reference is not spelled like its group.
QString groupPath(const QString &ref)
{
    return settings + (ref == qs("mib2_settings") ? qs("mib_2_settings") : ref);
}

QString flagPath(const QString &trap)
{
    return settings + qs("trap_settings/traps/trap[name='%1']/enabled").arg(trap);
}

QString listXml(const QString &traps)
{
    return qs("<trap_settings><trap_address>192.0.2.1</trap_address><traps>%1</traps></trap_settings>").arg(traps);
}

/// A bench that keeps what the settings signals carry, as "mib2(N|L|C)", "version(010)", "enabled(RCI Fault,RCO
/// Fault)".
class SettingsBench : public TalBench {
public:
    SettingsBench() : TalBench(6420)
    {
        using Handler = TalHandler;
        QObject::connect(&handler, &Handler::signalSnmpdConfMib2Settings, &handler, [this](const SnmpMib2Settings &s) {
            emitted << qs("mib2(%1)").arg(QStringList({s.sysName, s.sysLocation, s.sysContact}).join(QLatin1Char('|')));
        });
        QObject::connect(&handler, &Handler::signalSnmpdConfAccessSettings, &handler,
                         [this](const SnmpAccessSettings &s) {
                             emitted << qs("access(%1)")
                                            .arg(QStringList({s.community, s.access, s.nmsIp, s.nmsIpv6, s.snmpPort})
                                                     .join(QLatin1Char('|')));
                         });
        QObject::connect(&handler, &Handler::signalSnmpdConfTrapSettings, &handler, [this](const SnmpTrapSettings &s) {
            emitted << qs("trap(%1|%2)").arg(s.trapAddress, s.informAddress);
        });
        QObject::connect(&handler, &Handler::signalUpdateEnabledSnmpTraps, &handler, [this](Traps &enabled) {
            emitted << qs("enabled(%1)").arg(QStringList(enabled.keys(true)).join(QLatin1Char(',')));
            if (map != nullptr)
                QCOMPARE(&enabled, map); // always the map itself
            map = &enabled;
        });
        QObject::connect(&handler, &Handler::signalSnmpdConfVersionSettings, &handler,
                         [this](const SnmpVersionSettings &s) {
                             emitted << qs("version(%1%2%3)").arg(s.version1).arg(s.version2c).arg(s.version3);
                         });
        QObject::connect(&handler, &Handler::signalSnmpdConfUseCustomConfFile, &handler,
                         [this](bool use) { emitted << (use ? qs("custom(1)") : qs("custom(0)")); });
    }

    /// A change of one leaf below the subscribed group, and what it emits.
    QString settingsLeaf(const QString &ref, const QString &op, const QString &path, const QString &text)
    {
        return change(ref, op, path, leafXml(path, text));
    }
    QString flag(const QString &trap, const QString &op, const QString &text)
    {
        return settingsLeaf(qs("trap_settings"), op, flagPath(trap), text);
    }
    QString change(const QString &ref, const QString &op, const QString &path, const QString &data)
    {
        emitted.clear();
        notify(ref.toLatin1(), op.toLatin1(), path, data, groupPath(ref));
        if (!log.lines().isEmpty())
            emitted << log.takeLines();
        return emitted.join(QLatin1Char(' '));
    }

    QStringList emitted;
    Traps *map = nullptr; ///< the last map
};

/// A step is "EVENT -> SIGNALS". Events: "leaf OP LEAF TEXT" and "flag OP TEXT NAME OF THE TRAP" change a leaf, "xml
/// REFERENCE OP DATA" is a notification of the whole group; "list" in DATA stands around traps with an address.
struct Script {
    const char *name;
    const char *steps;
};

// clang-format off
const Script scripts[] = {
    {"whole groups, and the end of some leaves", R"(
        xml mib2_settings create <mib_2_settings><sys_contact>C</sys_contact><sys_name>N</sys_name><sys_location>L</sys_location></mib_2_settings> -> mib2(N|L|C)
        xml access_control create <access_control><community>public</community><access>Read</access><nms_ip>192.0.2.9</nms_ip><nms_ipv6>2001:db8::9</nms_ipv6><snmp_port>161</snmp_port></access_control> -> access(public|Read|192.0.2.9|2001:db8::9|161)
        xml access_control delete <access_control><community>public</community><access>Read</access></access_control> -> access(||192.0.2.9|2001:db8::9|161)
        xml access_control delete  -> access(||192.0.2.9|2001:db8::9|161)
    )"},
    {"one leaf keeps the others", R"(
        xml mib2_settings create <mib_2_settings><sys_name>N</sys_name><sys_location>L</sys_location></mib_2_settings> -> mib2(N|L|)
        leaf replace sys_contact C -> mib2(N|L|C)
    )"},
    {"version flags start false and keep their values", R"(
        xml version_control create <version_control/> -> version(000)
        leaf replace version_3 true -> version(001)
        leaf replace version_1 true -> version(101)
        xml version_control delete <version_control/> -> version(101)
        leaf replace version_1 TRUE -> version(001)
    )"},
    {"the map itself goes out, behind the addresses", R"(
        xml trap_settings replace <trap_settings/> -> trap(|) enabled()
        xml trap_settings replace list<trap><name>Fuse Broken</name><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled(Fuse Broken)
        xml trap_settings patch <trap_settings/> -> trap(192.0.2.1|) enabled(Fuse Broken)
    )"},
    {"one flag leaves the others", R"(
        flag replace true Overtemperature -> trap(|) enabled(Overtemperature)
        flag replace true LET Fault -> trap(|) enabled(LET Fault,Overtemperature)
        flag replace false LET Fault -> trap(|) enabled(Overtemperature)
        leaf replace trap_address 192.0.2.7 -> trap(192.0.2.7|) enabled(Overtemperature)
        flag replace true Fuse Broken -> trap(192.0.2.7|) enabled(Fuse Broken,Overtemperature)
        flag delete true Fuse Broken -> trap(192.0.2.7|) enabled(Overtemperature)
        gone Overtemperature -> trap(192.0.2.7|) enabled()
    )"},
    {"the end of the whole group", R"(
        xml trap_settings create list<trap><name>Overtemperature</name><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled(Overtemperature)
        xml trap_settings delete list<trap><name>Overtemperature</name><enabled>true</enabled></trap> -> trap(|) enabled()
    )"},
    {"a create of one trap, and of its flag alone, which is false", R"(
        one create <trap><name>AC Power Fault</name><enabled>true</enabled></trap> -> trap(|) enabled(AC Power Fault)
        flag create true AC Power Fault -> trap(|) enabled()
    )"},
    {"a create keeps the traps that it does not name", R"(
        flag replace true RCO Fault -> trap(|) enabled(RCO Fault)
        xml trap_settings create list<trap><name>LET Fault</name><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled(LET Fault,RCO Fault)
    )"},
    {"a list that breaks in the middle keeps what was read, and no leaf is looked up in it", R"(
        flag replace true RCI Fault -> trap(|) enabled(RCI Fault)
        xml trap_settings create <trap_settings><trap_address>192.0.2.1</trap_address><traps><trap><name>LET Fault</name><enabled>true</enabled></trap><trap><name>RCO Fault</name><enabled>true</wrong></trap></traps></trap_settings> -> trap(|) enabled(LET Fault,RCI Fault)
    )"},
    {"the list of a replace is read leaf by leaf, the first one of a name", R"(
        xml trap_settings replace list<trap><text/><name>LET Fault</name><enabled>true</enabled></trap><trap><name>LET Fault</name><enabled>false</enabled></trap><trap><name_en>RCO Fault</name_en><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled(LET Fault)
    )"},
    {"names outside the map are ignored", R"(
        xml trap_settings create list<trap><name>Coffee Machine Fault</name><enabled>true</enabled></trap><trap><name/><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled()
        xml trap_settings replace list<trap><name>Coffee Machine Fault</name><enabled>true</enabled></trap><trap><name>LET Fault</name></trap> -> trap(192.0.2.1|) enabled()
    )"},
};

/// How the list of a "create" is read, on a map in which "Fuse Broken" was enabled before, and whether it is then.
const struct { const char *name; const char *traps; bool enabled; } lists[] = {
    {"enabled directly after name", "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>", true},
    {"more leaves behind", "<trap><name>Fuse Broken</name><enabled>true</enabled><text>x</text></trap>", true},
    {"text false", "<trap><name>Fuse Broken</name><enabled>false</enabled></trap>", false},
    {"text True", "<trap><name>Fuse Broken</name><enabled>True</enabled></trap>", false},
    {"text with a blank", "<trap><name>Fuse Broken</name><enabled> true</enabled></trap>", false},
    {"no enabled: as it was", "<trap><name>Fuse Broken</name></trap>", true},
    {"another leaf between", "<trap><name>Fuse Broken</name><text/><enabled>true</enabled></trap>", false},
    {"another leaf first", "<trap><text/><name>Fuse Broken</name><enabled>true</enabled></trap>", false},
    {"enabled first", "<trap><enabled>true</enabled><name>Fuse Broken</name></trap>", false},
    {"white space before name", "<trap> <name>Fuse Broken</name><enabled>true</enabled></trap>", false},
    {"white space before enabled", "<trap><name>Fuse Broken</name>\n<enabled>true</enabled></trap>", false},
    {"comment before enabled", "<trap><name>Fuse Broken</name><!-- --><enabled>true</enabled></trap>", false},
    {"white space between traps", "\n<trap><name>RCI Fault</name><enabled>false</enabled></trap>\n"
                                  "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>\n", true},
    {"enabled in other case", "<trap><name>Fuse Broken</name><Enabled>true</Enabled></trap>", true},
    {"last one of a name holds", "<trap><name>Fuse Broken</name><enabled>true</enabled></trap>"
                                 "<trap><name>Fuse Broken</name><enabled>false</enabled></trap>", false},
    {"name element that begins with name", "<trap><name_en>Fuse Broken</name_en><enabled>false</enabled></trap>", false},
    {"name element that does not", "<trap><title>Fuse Broken</title><enabled>false</enabled></trap>", true},
    {"trap in other case", "<Trap><name>Fuse Broken</name><enabled>false</enabled></Trap>", true},
    {"name in other case", "<trap><name>fuse broken</name><enabled>false</enabled></trap>", true},
    {"name with a blank behind", "<trap><name>Fuse Broken </name><enabled>false</enabled></trap>", true},
    {"an element inside a name ends the reading",
     "<trap><name>RCI Fault<b/></name></trap><trap><name>Fuse Broken</name><enabled>true</enabled></trap>", false},
    {"empty trap", "<trap/>", true},
    {"empty list", "", true},
};

/// A flag that is there: what it becomes as a version flag or custom flag, and as the flag of a trap.
const struct { const char *name; const char *op; const char *text; bool settingsFlag; bool trapFlag; } flagTexts[] = {
    {"replace true", "replace", "true", true, true},
    {"create true", "create", "true", true, false}, // intended: only the list of a create enables a trap
    {"replace false", "replace", "false", false, false},
    {"create false", "create", "false", false, false},
    {"True", "replace", "True", false, false},
    {"TRUE", "replace", "TRUE", false, false},
    {"leading blank", "replace", " true", false, false},
    {"trailing blank", "replace", "true ", false, false},
    {"blanks", "replace", "  ", false, false},
    {"1", "replace", "1", false, false},
    {"empty", "replace", "", false, false},
    {"delete", "delete", "true", false, false},
    {"any other operation", "patch", "true", false, false},
    {"operation in other case", "Replace", "true", false, false},
    {"no operation", "", "true", false, false},
};
// clang-format on

QStringList trapNames()
{
    QStringList names;
    for (const catalogue::Row &trap : catalogue::rows("traps"))
        names << trap.text("switch");
    return names;
}

} // namespace

// On each version flag, the custom flag, each trap's flag, false and true before.
// Intended: each leaf of a "create" first makes its flag false; only the list, read in its own strict way, enables.

class TestSnmpSettings : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void recordsAreKnownUnderTheirOwnNames()
    {
        registerSnmpSettingsTypes();
        registerSnmpSettingsTypes(); // a second time is harmless
        QCOMPARE(QMetaType::type("SnmpMib2Settings"), qMetaTypeId<SnmpMib2Settings>());
        QCOMPARE(QMetaType::type("SnmpAccessSettings"), qMetaTypeId<SnmpAccessSettings>());
        QCOMPARE(QMetaType::type("SnmpTrapSettings"), qMetaTypeId<SnmpTrapSettings>());
        QCOMPARE(QMetaType::type("SnmpVersionSettings"), qMetaTypeId<SnmpVersionSettings>());
    }

    void textLeaf_data()
    {
        QTest::addColumn<QString>("ref");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("field");
        QTest::addColumn<int>("fields");
        for (const catalogue::Row &row : catalogue::rows("settings")) {
            if (row.text("reference") == qs("version_control"))
                continue;
            QStringList fields;
            for (const catalogue::Row &other : catalogue::rows("settings", "reference", row.text("reference")))
                fields << other.text("field");
            QTest::newRow(row.latin1("field"))
                << row.text("reference") << row.text("leaf") << fields.indexOf(row.text("field")) << fields.size();
        }
    }

    void textLeaf()
    {
        QFETCH(QString, ref);
        QFETCH(QString, path);
        QFETCH(int, field);
        QFETCH(int, fields);

        SettingsBench bench;
        const QString name =
            bench.change(ref, qs("replace"), groupPath(ref), QString()).section(QLatin1Char('('), 0, 0);
        const auto expected = [&](const QString &value) {
            QStringList texts;
            for (int i = 0; i < fields; ++i)
                texts << (i == field ? value : QString());
            const QString behind = ref == qs("trap_settings") ? qs(" enabled()") : QString();
            return qs("%1(%2)%3").arg(name, texts.join(QLatin1Char('|')), behind);
        };
        for (const QString &op : {qs("create"), qs("replace")}) {
            for (const char *text : {"public", " public ", "my  community", "a<b>&\"c", "M\xc3\xbcnchen \xe4\xb8\xad"})
                QCOMPARE(bench.settingsLeaf(ref, op, path, qs(text)), expected(qs(text)));
            for (const char *blank : {"   ", " \t\n ", ""}) {
                bench.settingsLeaf(ref, op, path, qs("before"));
                QCOMPARE(bench.settingsLeaf(ref, op, path, qs(blank)), expected(QString()));
            }
        }
        bench.settingsLeaf(ref, qs("replace"), path, qs("kept"));
        for (const char *op : {"patch", "Delete", "Create", ""})
            QCOMPARE(bench.settingsLeaf(ref, qs(op), path, qs("ignored")), expected(qs("kept")));
        QCOMPARE(bench.settingsLeaf(ref, qs("delete"), path, qs("kept")), expected(QString()));
    }

    void flagText_data()
    {
        QTest::addColumn<int>("place");
        for (int place = 0; place < int(std::size(flagTexts)); ++place)
            QTest::newRow(flagTexts[place].name) << place;
    }

    void flagText()
    {
        QFETCH(int, place);
        const auto &[name, op, text, settingsFlag, trapFlag] = flagTexts[place];

        const char *const leaves[] = {"version_control/version_1", "version_control/version_2c",
                                      "version_control/version_3"};
        for (int leaf = 0; leaf < 3; ++leaf)
            for (const char *before : {"false", "true"}) {
                SettingsBench bench;
                for (const char *each : leaves)
                    bench.settingsLeaf(qs("version_control"), qs("create"), settings + qs(each), qs(before));
                QString expected = qs(before) == qs("true") ? qs("111") : qs("000");
                expected[leaf] = settingsFlag ? QLatin1Char('1') : QLatin1Char('0');
                QCOMPARE(bench.settingsLeaf(qs("version_control"), qs(op), settings + qs(leaves[leaf]), qs(text)),
                         qs("version(%1)").arg(expected));
            }
        SettingsBench custom;
        for (int time = 0; time < 2; ++time) // and again when nothing changed
            QCOMPARE(custom.settingsLeaf(qs("custom_config"), qs(op), settings + qs("custom_config"), qs(text)),
                     settingsFlag ? qs("custom(1)") : qs("custom(0)"));
        for (const QString &trap : trapNames())
            for (const bool before : {false, true}) {
                SettingsBench bench;
                if (before)
                    bench.flag(trap, qs("replace"), qs("true"));
                QCOMPARE(bench.flag(trap, qs(op), qs(text)),
                         qs("trap(|) enabled(%1)").arg(trapFlag ? trap : QString()));
            }
    }

    void groupWithoutAKnownLeafIsStillHandedOn_data()
    {
        QTest::addColumn<QString>("ref");
        QTest::addColumn<QString>("emitted");
        QTest::newRow("mib2_settings") << qs("mib2_settings") << qs("mib2(||)");
        QTest::newRow("access_control") << qs("access_control") << qs("access(||||)");
        QTest::newRow("trap_settings") << qs("trap_settings") << qs("trap(|) enabled()");
        QTest::newRow("version_control") << qs("version_control") << qs("version(000)");
        QTest::newRow("custom_config") << qs("custom_config") << QString(); // only when its leaf is there
    }

    void groupWithoutAKnownLeafIsStillHandedOn()
    {
        QFETCH(QString, ref);
        QFETCH(QString, emitted);

        SettingsBench bench;
        for (const char *op : {"create", "replace", "delete", "patch", ""})
            for (const char *data : {"<another_group><leaf>true</leaf></another_group>", "", "no xml at all",
                                     "<mib_2_settings><sys_name>x", "<a></b>"})
                QCOMPARE(bench.change(ref, qs(op), settings + qs("another_group"), qs(data)), emitted);
    }

    void script_data()
    {
        QTest::addColumn<QString>("steps");
        for (const Script &script : scripts)
            QTest::newRow(script.name) << qs(script.steps);
    }

    void script()
    {
        QFETCH(QString, steps);

        SettingsBench bench;
        for (const QString &line : steps.split(QLatin1Char('\n'))) {
            const int arrow = line.indexOf(qs(" ->"));
            if (arrow < 0)
                continue;
            const QStringList words = line.left(arrow).trimmed().split(QLatin1Char(' '));
            const auto rest = [&](int from) { return words.mid(from).join(QLatin1Char(' ')); };
            QString emitted;
            if (words[0] == qs("xml")) {
                QString data = rest(3);
                if (data.startsWith(qs("list")))
                    data = listXml(data.mid(4));
                emitted = bench.change(words[1], words[2], groupPath(words[1]), data);
            } else if (words[0] == qs("flag")) {
                emitted = bench.flag(rest(3), words[1], words[2]);
            } else if (words[0] == qs("gone")) {
                emitted = bench.change(qs("trap_settings"), qs("delete"), flagPath(rest(1)), QString());
            } else if (words[0] == qs("one")) {
                emitted =
                    bench.change(qs("trap_settings"), words[1], flagPath(qs("AC Power Fault")).chopped(8), rest(2));
            } else {
                for (const catalogue::Row &row : catalogue::rows("settings"))
                    if (row.text("leaf").endsWith(QLatin1Char('/') + words[2]))
                        emitted = bench.settingsLeaf(row.text("reference"), words[1], row.text("leaf"), rest(3));
            }
            QVERIFY2(emitted == line.mid(arrow + 3).trimmed(), qPrintable(line.trimmed() + qs(", but ") + emitted));
        }
    }

    void mapHasTwentyKeysWhateverItIsTold()
    {
        SettingsBench bench;
        QStringList sorted = trapNames();
        sorted.sort();
        bench.change(qs("trap_settings"), qs("replace"), groupPath(qs("trap_settings")), qs("<trap_settings/>"));
        QCOMPARE(bench.map->keys(), sorted);
        for (const char *op : {"create", "replace", "delete"}) {
            bench.change(qs("trap_settings"), qs(op), groupPath(qs("trap_settings")),
                         listXml(qs("<trap><name>Coffee Machine Fault</name><enabled>true</enabled></trap>")));
            QCOMPARE(bench.map->keys(), sorted);
        }
    }

    void createOfEveryName()
    {
        for (const QString &name : trapNames()) {
            SettingsBench bench;
            QString list;
            for (const QString &each : trapNames())
                list += qs("<trap><name>%1</name><enabled>%2</enabled></trap>")
                            .arg(each, each == name ? qs("true") : qs("false"));
            QCOMPARE(bench.change(qs("trap_settings"), qs("create"), groupPath(qs("trap_settings")), listXml(list)),
                     qs("trap(192.0.2.1|) enabled(%1)").arg(name));
        }
    }

    void listOfACreate_data()
    {
        QTest::addColumn<int>("place");
        for (int place = 0; place < int(std::size(lists)); ++place)
            QTest::newRow(lists[place].name) << place;
    }

    void listOfACreate()
    {
        QFETCH(int, place);

        SettingsBench bench;
        bench.flag(qs("Fuse Broken"), qs("replace"), qs("true"));
        QCOMPARE(bench.change(qs("trap_settings"), qs("create"), groupPath(qs("trap_settings")),
                              listXml(qs(lists[place].traps))),
                 lists[place].enabled ? qs("trap(192.0.2.1|) enabled(Fuse Broken)") : qs("trap(192.0.2.1|) enabled()"));
        QCOMPARE(bench.map->size(), 20);
    }

    void firstPassOfACreateSetsFalse()
    {
        SettingsBench bench;
        const QString spaced = listXml(qs("<trap>\n<name>Overtemperature</name>\n<enabled>true</enabled>\n</trap>"));
        const QString group = groupPath(qs("trap_settings"));
        QCOMPARE(bench.change(qs("trap_settings"), qs("replace"), group, spaced),
                 qs("trap(192.0.2.1|) enabled(Overtemperature)"));
        QCOMPARE(bench.change(qs("trap_settings"), qs("create"), group, spaced), qs("trap(192.0.2.1|) enabled()"));
    }
};

const TestEntry entry("tst_snmpsettings", runTest<TestSnmpSettings>);
#include "tst_snmpsettings.moc"
