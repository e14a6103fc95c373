// The SNMP settings: texts, version flags, custom configuration, addresses and the map of enabled traps.
#include "support/catalogue.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include <memory>

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

QStringList trapNames()
{
    QStringList names;
    for (const catalogue::Row &trap : catalogue::rows("traps"))
        names << trap.text("switch");
    return names;
}

/// A bench that keeps what the settings signals carry, as "mib2(N|L|C)", "version(010)", "enabled(RCI Fault,RCO
/// Fault)".
class SettingsBench : public TalBench {
public:
    SettingsBench() : TalBench(6420)
    {
        const auto on = [this](auto signal, auto slot) { QObject::connect(&handler, signal, &handler, slot); };
        const auto keep = [this](const char *name, const QStringList &texts) {
            emitted << qs("%1(%2)").arg(qs(name), texts.join(QLatin1Char('|')));
        };
        on(&TalHandler::signalSnmpdConfMib2Settings, [=](const SnmpMib2Settings &s) {
            keep("mib2", {s.sysName, s.sysLocation, s.sysContact});
        });
        on(&TalHandler::signalSnmpdConfAccessSettings, [=](const SnmpAccessSettings &s) {
            keep("access", {s.community, s.access, s.nmsIp, s.nmsIpv6, s.snmpPort});
        });
        on(&TalHandler::signalSnmpdConfTrapSettings, [=](const SnmpTrapSettings &s) {
            keep("trap", {s.trapAddress, s.informAddress});
        });
        on(&TalHandler::signalSnmpdConfVersionSettings, [=](const SnmpVersionSettings &s) {
            keep("version", {qs("%1%2%3").arg(s.version1).arg(s.version2c).arg(s.version3)});
        });
        on(&TalHandler::signalSnmpdConfUseCustomConfFile, [=](bool use) { keep("custom", {QString::number(use)}); });
        on(&TalHandler::signalUpdateEnabledSnmpTraps, [=, this](Traps &enabled) {
            keep("enabled", {QStringList(enabled.keys(true)).join(QLatin1Char(','))});
            if (map != nullptr)
                QCOMPARE(&enabled, map); // always the map itself
            map = &enabled;
            QStringList names = trapNames();
            names.sort();
            QCOMPARE(map->keys(), names); // and always whole
        });
    }

    /// A change below the subscribed group, and what it emits.
    QString change(const QString &ref, const QString &op, const QString &path, const QString &data)
    {
        emitted.clear();
        notify(ref.toLatin1(), op.toLatin1(), path, data, groupPath(ref));
        return (emitted + log.takeLines()).join(QLatin1Char(' '));
    }
    QString leaf(const QString &ref, const QString &op, const QString &path, const QString &text)
    {
        return change(ref, op, path, leafXml(path, text));
    }
    QString flag(const QString &trap, const QString &op, const QString &text)
    {
        return leaf(qs("trap_settings"), op, flagPath(trap), text);
    }
    /// The whole group with the traps, and an address that is always the same.
    QString list(const char *op, const QString &traps)
    {
        return change(
            qs("trap_settings"), qs(op), groupPath(qs("trap_settings")),
            qs("<trap_settings><trap_address>192.0.2.1</trap_address><traps>%1</traps></trap_settings>").arg(traps));
    }

    QStringList emitted;
    Traps *map = nullptr; ///< the last map
};

/// A line without blanks before it begins a script, the others are its steps "EVENT -> SIGNALS". Events: "leaf OP LEAF
/// TEXT" and "flag OP TEXT NAME OF THE TRAP" change a leaf, "gone NAME" deletes a trap's flag, "xml REFERENCE OP DATA"
/// is a notification of the whole group, "list OP DATA" that of the traps, "one OP DATA" that of one trap. In DATA
/// "[NAME=TEXT]" is a trap with its flag.
const char scripts[] = R"(
whole groups, and the end of some leaves
    xml mib2_settings create <mib_2_settings><sys_contact>C</sys_contact><sys_name>N</sys_name><sys_location>L</sys_location></mib_2_settings> -> mib2(N|L|C)
    xml access_control create <access_control><community>public</community><access>Read</access><nms_ip>192.0.2.9</nms_ip><nms_ipv6>::9</nms_ipv6><snmp_port>161</snmp_port></access_control> -> access(public|Read|192.0.2.9|::9|161)
    xml access_control delete <access_control><community>public</community><access>Read</access></access_control> -> access(||192.0.2.9|::9|161)
    xml access_control delete  -> access(||192.0.2.9|::9|161)
one leaf keeps the others
    xml mib2_settings create <mib_2_settings><sys_name>N</sys_name><sys_location>L</sys_location></mib_2_settings> -> mib2(N|L|)
    leaf replace sys_contact C -> mib2(N|L|C)
version flags start false and keep their values
    xml version_control create <version_control/> -> version(000)
    leaf replace version_3 true -> version(001)
    leaf replace version_1 true -> version(101)
    xml version_control delete <version_control/> -> version(101)
    leaf replace version_1 TRUE -> version(001)
the addresses come before the map itself
    xml trap_settings replace <trap_settings/> -> trap(|) enabled()
    list replace [Fuse Broken=true] -> trap(192.0.2.1|) enabled(Fuse Broken)
    xml trap_settings patch <trap_settings/> -> trap(192.0.2.1|) enabled(Fuse Broken)
one flag leaves the others
    flag replace true Overtemperature -> trap(|) enabled(Overtemperature)
    flag replace true LET Fault -> trap(|) enabled(LET Fault,Overtemperature)
    flag replace false LET Fault -> trap(|) enabled(Overtemperature)
    leaf replace trap_address 192.0.2.7 -> trap(192.0.2.7|) enabled(Overtemperature)
    flag replace true Fuse Broken -> trap(192.0.2.7|) enabled(Fuse Broken,Overtemperature)
    flag delete true Fuse Broken -> trap(192.0.2.7|) enabled(Overtemperature)
    gone Overtemperature -> trap(192.0.2.7|) enabled()
the end of the whole group
    list create [Overtemperature=true] -> trap(192.0.2.1|) enabled(Overtemperature)
    list delete [Overtemperature=true] -> trap(|) enabled()
a create of one trap, and of its flag alone, which is false
    one create [AC Power Fault=true] -> trap(|) enabled(AC Power Fault)
    flag create true AC Power Fault -> trap(|) enabled()
a create keeps the traps that it does not name
    flag replace true RCO Fault -> trap(|) enabled(RCO Fault)
    list create [LET Fault=true] -> trap(192.0.2.1|) enabled(LET Fault,RCO Fault)
a list that breaks in the middle keeps what was read, and no leaf is looked up in it
    flag replace true RCI Fault -> trap(|) enabled(RCI Fault)
    list create [LET Fault=true]<trap><name>RCO Fault</name><enabled>true</wrong></trap> -> trap(|) enabled(LET Fault,RCI Fault)
the list of a replace is read leaf by leaf, the first one of a name
    list replace <trap><text/><name>LET Fault</name><enabled>true</enabled></trap>[LET Fault=false]<trap><name_en>RCO Fault</name_en><enabled>true</enabled></trap> -> trap(192.0.2.1|) enabled(LET Fault)
names outside the map are ignored
    list create [Coffee Machine Fault=true][=true] -> trap(192.0.2.1|) enabled()
    list replace [Coffee Machine Fault=true]<trap><name>LET Fault</name></trap> -> trap(192.0.2.1|) enabled()
the first pass of a create sets false
    list replace <trap>\n<name>Overtemperature</name>\n<enabled>true</enabled>\n</trap> -> trap(192.0.2.1|) enabled(Overtemperature)
    list create <trap>\n<name>Overtemperature</name>\n<enabled>true</enabled>\n</trap> -> trap(192.0.2.1|) enabled()
)";

// clang-format off
/// How the list of a "create" is read, on a map in which "Fuse Broken" was enabled before, and whether it is then.
const struct { const char *name; const char *traps; bool enabled; } lists[] = {
    {"enabled directly after name", "[Fuse Broken=true]", true},
    {"more leaves behind", "<trap><name>Fuse Broken</name><enabled>true</enabled><text>x</text></trap>", true},
    {"text false", "[Fuse Broken=false]", false},
    {"text True", "[Fuse Broken=True]", false},
    {"text with a blank", "[Fuse Broken= true]", false},
    {"no enabled: as it was", "<trap><name>Fuse Broken</name></trap>", true},
    {"another leaf between", "<trap><name>Fuse Broken</name><text/><enabled>true</enabled></trap>", false},
    {"another leaf first", "<trap><text/><name>Fuse Broken</name><enabled>true</enabled></trap>", false},
    {"enabled first", "<trap><enabled>true</enabled><name>Fuse Broken</name></trap>", false},
    {"white space before name", "<trap> <name>Fuse Broken</name><enabled>true</enabled></trap>", false},
    {"white space before enabled", "<trap><name>Fuse Broken</name>\n<enabled>true</enabled></trap>", false},
    {"comment before enabled", "<trap><name>Fuse Broken</name><!-- --><enabled>true</enabled></trap>", false},
    {"white space between traps", "\n[RCI Fault=false]\n[Fuse Broken=true]\n", true},
    {"enabled in other case", "<trap><name>Fuse Broken</name><Enabled>true</Enabled></trap>", true},
    {"last one of a name holds", "[Fuse Broken=true][Fuse Broken=false]", false},
    {"element that begins with name", "<trap><name_en>Fuse Broken</name_en><enabled>false</enabled></trap>", false},
    {"element that does not", "<trap><title>Fuse Broken</title><enabled>false</enabled></trap>", true},
    {"trap in other case", "<Trap><name>Fuse Broken</name><enabled>false</enabled></Trap>", true},
    {"name in other case", "[fuse broken=false]", true},
    {"name with a blank behind", "[Fuse Broken =false]", true},
    {"an element inside a name ends the reading", "<trap><name>RCI Fault<b/></name></trap>[Fuse Broken=true]", false},
    {"empty trap", "<trap/>", true},
    {"empty list", "", true},
};

/// A flag that is there: what it becomes as a version flag or custom flag, and as the flag of a trap.
const struct { const char *op; const char *text; bool settingsFlag; bool trapFlag; } flagTexts[] = {
    {"replace", "true", true, true},
    {"create", "true", true, false}, // intended: only the list of a create enables a trap
    {"replace", "false", false, false}, {"create", "false", false, false}, {"delete", "true", false, false},
    {"patch", "true", false, false},    {"Replace", "true", false, false}, {"", "true", false, false},
    {"replace", "True", false, false},  {"replace", "TRUE", false, false}, {"replace", " true", false, false},
    {"replace", "true ", false, false}, {"replace", "  ", false, false},   {"replace", "1", false, false},
    {"replace", "", false, false},
};
// clang-format on

QString withTraps(QString data)
{
    static const QRegularExpression trap(qs("\\[([^=]*)=([^\\]]*)\\]"));
    return data.replace(trap, qs("<trap><name>\\1</name><enabled>\\2</enabled></trap>"));
}
} // namespace

class TestSnmpSettings : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void recordsAreKnownUnderTheirOwnNames()
    {
        for (int time = 0; time < 2; ++time) // a second time is harmless
            registerSnmpSettingsTypes();
        QCOMPARE(QMetaType::type("SnmpMib2Settings"), qMetaTypeId<SnmpMib2Settings>());
        QCOMPARE(QMetaType::type("SnmpAccessSettings"), qMetaTypeId<SnmpAccessSettings>());
        QCOMPARE(QMetaType::type("SnmpTrapSettings"), qMetaTypeId<SnmpTrapSettings>());
        QCOMPARE(QMetaType::type("SnmpVersionSettings"), qMetaTypeId<SnmpVersionSettings>());
    }

    void textLeaf()
    {
        for (const char *group : {"mib2_settings", "access_control", "trap_settings"}) {
            const QString ref = qs(group);
            const QVector<catalogue::Row> leaves = catalogue::rows("settings", "reference", ref);
            QVERIFY(!leaves.isEmpty());
            for (int place = 0; place < leaves.size(); ++place) {
                const AtRow at(leaves[place].latin1("field"));
                const QString path = leaves[place].text("leaf");
                SettingsBench bench;
                const QString empty = bench.change(ref, qs("replace"), groupPath(ref), QString());
                const auto expected = [&](const QString &value) {
                    QStringList texts = empty.split(QLatin1Char('|'));
                    texts[place].insert(place == 0 ? texts[0].indexOf(QLatin1Char('(')) + 1 : 0, value);
                    return texts.join(QLatin1Char('|'));
                };
                for (const QString &op : {qs("create"), qs("replace")}) {
                    for (const char *text :
                         {"public", " public ", "my  community", "a<b>&\"c", "M\xc3\xbcnchen \xe4\xb8\xad"})
                        QCOMPARE(bench.leaf(ref, op, path, qs(text)), expected(qs(text)));
                    for (const char *blank : {"   ", " \t\n ", ""}) {
                        bench.leaf(ref, op, path, qs("before"));
                        QCOMPARE(bench.leaf(ref, op, path, qs(blank)), empty);
                    }
                }
                bench.leaf(ref, qs("replace"), path, qs("kept"));
                for (const char *op : {"patch", "Delete", "Create", ""})
                    QCOMPARE(bench.leaf(ref, qs(op), path, qs("ignored")), expected(qs("kept")));
                QCOMPARE(bench.leaf(ref, qs("delete"), path, qs("kept")), empty);
            }
        }
    }

    /// On each version flag, the custom flag and each trap's flag, false and true before.
    void flagText()
    {
        const QVector<catalogue::Row> versions = catalogue::rows("settings", "reference", qs("version_control"));
        QCOMPARE(versions.size(), 3);
        for (const auto &[op, text, settingsFlag, trapFlag] : flagTexts) {
            const AtRow at(QByteArray(op) + ' ' + text);
            for (const char *before : {"false", "true"})
                for (int leaf = 0; leaf < 3; ++leaf) {
                    SettingsBench bench;
                    for (const catalogue::Row &each : versions)
                        bench.leaf(qs("version_control"), qs("create"), each.text("leaf"), qs(before));
                    QString expected = qs(before) == qs("true") ? qs("111") : qs("000");
                    expected[leaf] = settingsFlag ? QLatin1Char('1') : QLatin1Char('0');
                    QCOMPARE(bench.leaf(qs("version_control"), qs(op), versions[leaf].text("leaf"), qs(text)),
                             qs("version(%1)").arg(expected));
                }
            SettingsBench custom;
            for (int time = 0; time < 2; ++time) // and again when nothing changed
                QCOMPARE(custom.leaf(qs("custom_config"), qs(op), settings + qs("custom_config"), qs(text)),
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
    }

    void groupWithoutAKnownLeafIsStillHandedOn()
    {
        static constexpr const char *rows[][2] = {
            {"mib2_settings", "mib2(||)"},
            {"access_control", "access(||||)"},
            {"trap_settings", "trap(|) enabled()"},
            {"version_control", "version(000)"},
            {"custom_config", ""}, // only with its leaf
        };
        for (const auto &[ref, emitted] : rows) {
            const AtRow at(ref);
            SettingsBench bench;
            for (const char *op : {"create", "replace", "delete", "patch", ""})
                for (const char *data : {"<another_group><leaf>true</leaf></another_group>", "", "no xml at all",
                                         "<mib_2_settings><sys_name>x", "<a></b>"})
                    QCOMPARE(bench.change(qs(ref), qs(op), settings + qs("another_group"), qs(data)), qs(emitted));
        }
    }

    void script()
    {
        QString script;
        std::unique_ptr<SettingsBench> bench;
        for (const QString &line : qs(scripts).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            if (!line.startsWith(QLatin1Char(' '))) {
                script = line;
                bench.reset(); // before the next one: their logs are nested
                bench = std::make_unique<SettingsBench>();
                continue;
            }
            const QString emitted = run(*bench, line.section(qs(" -> "), 0, 0).mid(4).replace(qs("\\n"), qs("\n")));
            QVERIFY2(emitted == line.section(qs(" -> "), 1), qPrintable(script + line + qs(", but ") + emitted));
        }
    }

    void listOfACreate()
    {
        for (const auto &[name, traps, enabled] : lists) {
            const AtRow at(name);
            SettingsBench bench;
            bench.flag(qs("Fuse Broken"), qs("replace"), qs("true"));
            QCOMPARE(bench.list("create", withTraps(qs(traps))),
                     enabled ? qs("trap(192.0.2.1|) enabled(Fuse Broken)") : qs("trap(192.0.2.1|) enabled()"));
        }
    }

private:
    static QString run(SettingsBench &bench, const QString &event)
    {
        const auto word = [&](int place) { return event.section(QLatin1Char(' '), place, place); };
        const auto rest = [&](int place) { return withTraps(event.section(QLatin1Char(' '), place)); };
        if (word(0) == qs("xml"))
            return bench.change(word(1), word(2), groupPath(word(1)), rest(3));
        if (word(0) == qs("list"))
            return bench.list(word(1).toLatin1(), rest(2));
        if (word(0) == qs("flag"))
            return bench.flag(rest(3), word(1), word(2));
        if (word(0) == qs("gone"))
            return bench.change(qs("trap_settings"), qs("delete"), flagPath(rest(1)), QString());
        if (word(0) == qs("one"))
            return bench.change(qs("trap_settings"), word(1), flagPath(qs("AC Power Fault")).chopped(8), rest(2));
        for (const catalogue::Row &row : catalogue::rows("settings"))
            if (row.text("leaf").endsWith(QLatin1Char('/') + word(2)))
                return bench.leaf(row.text("reference"), word(1), row.text("leaf"), rest(3));
        return qs("no such leaf");
    }
};

const TestEntry entry("tst_snmpsettings", runTest<TestSnmpSettings>);
#include "tst_snmpsettings.moc"
