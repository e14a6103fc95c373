// The text of snmpd.conf for each kind of settings. That every text has exactly its lines is also what a fuzzer checks.
#include "support/testprogram.h"

#include "snmpdconf/snmpdconftext.h"

namespace {
using Settings = SnmpdConfSettings;

Settings readSettings()
{
    Settings settings;
    settings.access = {QStringLiteral("public"), QStringLiteral("Read"), QStringLiteral("192.0.2.1"),
                       QStringLiteral("2001:db8::1"), QStringLiteral("161")};
    settings.version = {true, true, false};
    return settings;
}

const QByteArray readAccessLines = "com2sec mynetwork 192.0.2.1 public\n"
                                   "com2sec6 mynetwork 2001:db8::1 public\n"
                                   "group MyROGroup v1         mynetwork\n"
                                   "group MyROGroup v2c         mynetwork\n"
                                   "view all    included .1\n"
                                   "access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
                                   "agentAddress udp6:161,udp:161\n";
const QByteArray disabledAccessLines = "#com2sec\n"
                                       "#com2sec6\n"
                                       "#group MyROGroup v1         mynetwork\n"
                                       "#group MyROGroup v2c         mynetwork\n"
                                       "#view all    included .1\n"
                                       "#access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
                                       "#agentAddress udp6:161,udp:161\n";
} // namespace

class TestSnmpdConfText : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void wholeFile()
    {
        Settings settings = readSettings();
        expectText(settings, "master agentx\n" + readAccessLines);
        settings.mib2.sysContact = QStringLiteral("ops");
        expectText(settings, "master agentx\nsysContact ops\n" + readAccessLines); // no line without a value

        settings.mib2 = {QString::fromUtf8("K\xc3\xb6ln \xe2\x82\xac"), QStringLiteral("cellar"),
                         QStringLiteral("ops")};
        settings.trap = {QStringLiteral("192.0.2.7"), QStringLiteral("192.0.2.8")};
        const QByteArray names = "master agentx\n"
                                 "sysName K\xc3\xb6ln \xe2\x82\xac\n"
                                 "sysContact ops\n"
                                 "sysLocation cellar\n"
                                 "informsink 192.0.2.8\n"
                                 "trap2sink 192.0.2.7\n";
        expectText(settings, names + readAccessLines);
        settings.access.access = QStringLiteral("Disabled");
        expectText(settings, names + disabledAccessLines);
    }

    void otherAccessTextGivesAnEmptyFile()
    {
        for (const char *access : {"", "Write", "read", "READ", "Read ", " Read", "disabled", "Disabled\n"}) {
            const AtRow at(access);
            Settings settings = readSettings();
            settings.mib2.sysName = QStringLiteral("amp\n1");
            settings.access.access = QLatin1String(access);
            expectText(settings, {});
        }
    }

    void groupLinesByVersion()
    {
        for (const bool version1 : {false, true})
            for (const bool version2c : {false, true})
                for (const bool version3 : {false, true}) {
                    Settings settings = readSettings();
                    settings.version = {version1, version2c, version3};
                    QByteArray lines = readAccessLines;
                    if (!version1)
                        lines.replace("group MyROGroup v1 ", "#group MyROGroup v1 ");
                    if (!version2c)
                        lines.replace("group MyROGroup v2c ", "#group MyROGroup v2c ");
                    expectText(settings, "master agentx\n" + lines);
                }
    }

    void valuesAreWrittenAsReceived()
    {
        for (const char *text : {"", " public ", "%1%2%3", "\"pub#lic\"", "pub\tlic", "public\\"}) {
            const AtRow at(text);
            Settings settings = readSettings();
            settings.access.nmsIp = settings.access.community = QLatin1String(text);
            QByteArray lines = readAccessLines;
            lines.replace("public", text).replace("192.0.2.1", text);
            expectText(settings, "master agentx\n" + lines);
        }
    }

    void settingIsCut()
    {
        Settings settings;
        const std::tuple<const char *, QString &, const char *> rows[] = {
            {"sysName", settings.mib2.sysName, "sysName good"},
            {"sysContact", settings.mib2.sysContact, "sysContact good"},
            {"sysLocation", settings.mib2.sysLocation, "sysLocation good"},
            {"informAddress", settings.trap.informAddress, "informsink good"},
            {"trapAddress", settings.trap.trapAddress, "trap2sink good"},
            {"community", settings.access.community, "com2sec mynetwork 192.0.2.1 good"},
            {"nmsIp", settings.access.nmsIp, "com2sec mynetwork good public"},
            {"nmsIpv6", settings.access.nmsIpv6, "com2sec6 mynetwork good public"},
            {"snmpPort", settings.access.snmpPort, "agentAddress udp6:good,udp:good"},
        };
        for (const auto &[name, setting, line] : rows)
            for (const QByteArray &end : {QByteArray("\nextend x"), QByteArray("\rextend x"),
                                          QByteArray("\0extend x", 9), QByteArray("\n"), QByteArray("\r\nextend x\n")})
                for (const QByteArray &good : {QByteArray("good"), QByteArray()}) {
                    const AtRow at(name);
                    settings = readSettings();
                    setting = QString::fromLatin1(good);
                    const QByteArray whole = snmpdConfText(settings).text;
                    QCOMPARE(whole.split('\n').contains(line), !good.isEmpty());
                    setting = QString::fromLatin1(good) + QString::fromLatin1(end.constData(), end.size());
                    expectText(settings, whole, {QLatin1String(name)});
                }
    }

    void eachWrittenSettingIsReportedOnce()
    {
        Settings settings = readSettings();
        settings.access.snmpPort = QStringLiteral("161\n162");
        settings.access.community = QStringLiteral("public\nlic");
        settings.mib2.sysName = QStringLiteral("a\nb");
        expectText(settings, "master agentx\nsysName a\n" + readAccessLines,
                   {QStringLiteral("sysName"), QStringLiteral("community"), QStringLiteral("snmpPort")});
        settings.access.access = QStringLiteral("Disabled");
        expectText(settings, "master agentx\nsysName a\n" + disabledAccessLines,
                   {QStringLiteral("sysName"), QStringLiteral("snmpPort")});
    }

private:
    static void expectText(const Settings &settings, const QByteArray &text, const QStringList &cutSettings = {})
    {
        const SnmpdConfText conf = snmpdConfText(settings);
        QCOMPARE(conf.text, text);
        QCOMPARE(conf.cutSettings, cutSettings);
    }
};

const TestEntry entry("tst_snmpdconftext", runTest<TestSnmpdConfText>);
#include "tst_snmpdconftext.moc"
