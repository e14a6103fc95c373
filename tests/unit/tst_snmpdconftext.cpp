// The text of snmpd.conf for each kind of settings.
#include "support/testprogram.h"

#include "snmpdconf/snmpdconftext.h"

#include <QTest>

#include <random>

Q_DECLARE_METATYPE(SnmpdConfSettings)

namespace {

SnmpdConfSettings readSettings()
{
    SnmpdConfSettings settings;
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

} // namespace

namespace {

using Random = std::mt19937;

bool oneIn(Random &random, unsigned count)
{
    return random() % count == 0;
}

/// Line ends, NUL, quotes, hashes, directives, characters of every width, long texts, or nothing.
QString randomText(Random &random)
{
    static const QStringList pieces = {
        QStringLiteral("a"),
        QStringLiteral("ops"),
        QStringLiteral(" "),
        QStringLiteral("\t"),
        QStringLiteral("\""),
        QStringLiteral("'"),
        QStringLiteral("#"),
        QStringLiteral("\\"),
        QStringLiteral("%1"),
        QStringLiteral("%2"),
        QStringLiteral("\n"),
        QStringLiteral("\r"),
        QStringLiteral("\r\n"),
        QString(QChar(0)),
        QString(QChar(0x85)),
        QString(QChar(0x2028)),
        QString(QChar(0xd800)),
        QString::fromUtf8("\xc3\xa4"),
        QString::fromUtf8("\xe2\x82\xac"),
        QString::fromUtf8("\xf0\x9f\x98\x80"),
        QStringLiteral("\nextend e /bin/sh"),
        QStringLiteral("\nrwcommunity all"),
        QString(2000, QLatin1Char('x')),
    };
    QString text;
    for (auto count = random() % 6; count > 0; --count)
        text += pieces[static_cast<int>(random() % static_cast<unsigned>(pieces.size()))];
    return text;
}

/// Whether anything of the value is left in front of its first line end or NUL.
bool givesALine(const QString &value)
{
    return !value.isEmpty() && !QStringLiteral("\n\r").contains(value[0]) && !value[0].isNull();
}

} // namespace

class TestSnmpdConfText : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void wholeFile_data()
    {
        QTest::addColumn<SnmpdConfSettings>("settings");
        QTest::addColumn<QByteArray>("text");

        SnmpdConfSettings settings = readSettings();
        QTest::newRow("read access, nothing else") << settings << "master agentx\n" + readAccessLines;

        settings.mib2 = {QStringLiteral("amp-1"), QStringLiteral("cellar"), QStringLiteral("ops")};
        settings.trap = {QStringLiteral("192.0.2.7"), QStringLiteral("192.0.2.8")};
        QTest::newRow("contact before location, inform before trap") << settings
                                                                     << "master agentx\n"
                                                                        "sysName amp-1\n"
                                                                        "sysContact ops\n"
                                                                        "sysLocation cellar\n"
                                                                        "informsink 192.0.2.8\n"
                                                                        "trap2sink 192.0.2.7\n" +
                                                                            readAccessLines;
        settings.access.access = QStringLiteral("Disabled");
        QTest::newRow("disabled access, port 161")
            << settings
            << QByteArray("master agentx\n"
                          "sysName amp-1\n"
                          "sysContact ops\n"
                          "sysLocation cellar\n"
                          "informsink 192.0.2.8\n"
                          "trap2sink 192.0.2.7\n"
                          "#com2sec\n"
                          "#com2sec6\n"
                          "#group MyROGroup v1         mynetwork\n"
                          "#group MyROGroup v2c         mynetwork\n"
                          "#view all    included .1\n"
                          "#access MyROGroup \"\"      any       noauth    prefix  all    none   none\n"
                          "#agentAddress udp6:161,udp:161\n");

        settings = readSettings();
        settings.mib2.sysContact = QStringLiteral("ops");
        QTest::newRow("empty sysName: the contact follows at once")
            << settings << "master agentx\nsysContact ops\n" + readAccessLines;

        settings = readSettings();
        settings.access.nmsIp.clear();
        QTest::newRow("empty nmsIp: two blanks before the community")
            << settings
            << "master agentx\n" +
                   QByteArray(readAccessLines).replace("mynetwork 192.0.2.1 public", "mynetwork  public");
    }

    void wholeFile()
    {
        QFETCH(SnmpdConfSettings, settings);
        const SnmpdConfText conf = snmpdConfText(settings);
        QTEST(conf.text, "text");
        QCOMPARE(conf.cutSettings, QStringList());
    }

    void otherAccessTextGivesAnEmptyFile_data()
    {
        QTest::addColumn<QString>("access");
        for (const char *access : {"", "Write", "read", "READ", "Read ", " Read", "disabled", "Disabled\n"})
            QTest::newRow(qPrintable(QStringLiteral("'%1'").arg(QLatin1String(access)))) << QString::fromLatin1(access);
    }

    void otherAccessTextGivesAnEmptyFile()
    {
        QFETCH(QString, access);
        SnmpdConfSettings settings = readSettings();
        settings.mib2.sysName = QStringLiteral("amp\n1");
        settings.access.access = access;
        QCOMPARE(snmpdConfText(settings).text, QByteArray());
        QCOMPARE(snmpdConfText(settings).cutSettings, QStringList());
    }

    void groupLinesByVersion_data()
    {
        QTest::addColumn<bool>("version1");
        QTest::addColumn<bool>("version2c");
        QTest::addColumn<QByteArray>("lines");
        QTest::newRow("none") << false << false
                              << QByteArray(
                                     "#group MyROGroup v1         mynetwork\n#group MyROGroup v2c         mynetwork\n");
        QTest::newRow("v1 only")
            << true << false
            << QByteArray("group MyROGroup v1         mynetwork\n#group MyROGroup v2c         mynetwork\n");
        QTest::newRow("v2c only")
            << false << true
            << QByteArray("#group MyROGroup v1         mynetwork\ngroup MyROGroup v2c         mynetwork\n");
        QTest::newRow("both") << true << true
                              << QByteArray(
                                     "group MyROGroup v1         mynetwork\ngroup MyROGroup v2c         mynetwork\n");
    }

    void groupLinesByVersion()
    {
        QFETCH(bool, version1);
        QFETCH(bool, version2c);
        QFETCH(QByteArray, lines);
        SnmpdConfSettings settings = readSettings();
        settings.version = {version1, version2c, false};
        const QByteArray text = snmpdConfText(settings).text;
        QVERIFY2(text.contains("public\n" + lines + "view"), text.constData());
    }

    void version3IsNeverWritten()
    {
        SnmpdConfSettings settings = readSettings();
        const QByteArray without = snmpdConfText(settings).text;
        settings.version.version3 = true;
        QCOMPARE(snmpdConfText(settings).text, without);
    }

    void valuesAreWrittenAsReceived_data()
    {
        QTest::addColumn<QString>("community");
        QTest::newRow("surrounding blanks") << QStringLiteral(" public ");
        QTest::newRow("a percent sign and a digit stay") << QStringLiteral("%1%2%3");
        QTest::newRow("quotes and hashes") << QStringLiteral("\"pub#lic\"");
        QTest::newRow("a tab") << QStringLiteral("pub\tlic");
        QTest::newRow("a trailing backslash") << QStringLiteral("public\\");
    }

    void valuesAreWrittenAsReceived()
    {
        QFETCH(QString, community);
        SnmpdConfSettings settings = readSettings();
        settings.access.nmsIp = QStringLiteral("%2");
        settings.access.community = community;
        const QByteArray text = snmpdConfText(settings).text;
        QVERIFY2(text.contains("\ncom2sec mynetwork %2 " + community.toUtf8() + "\ncom2sec6 "), text.constData());
        QVERIFY2(text.contains("\ncom2sec6 mynetwork 2001:db8::1 " + community.toUtf8() + "\ngroup "),
                 text.constData());
    }

    void textsAreUtf8()
    {
        SnmpdConfSettings settings = readSettings();
        settings.mib2.sysName = QString::fromUtf8("K\xc3\xb6ln \xe2\x82\xac");
        const QByteArray text = snmpdConfText(settings).text;
        QVERIFY2(text.startsWith("master agentx\nsysName K\xc3\xb6ln \xe2\x82\xac\ncom2sec "), text.constData());
    }

    void settingIsCut_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QByteArray>("line"); // empty: no such line at all
        const QString forged = QStringLiteral("\nextend x /bin/sh");
        const auto add = [&](const char *setting, const QByteArray &line) {
            QTest::addRow("%s", setting) << QString::fromLatin1(setting) << QStringLiteral("good") + forged << line;
        };
        add("sysName", "sysName good");
        add("sysContact", "sysContact good");
        add("sysLocation", "sysLocation good");
        add("informAddress", "informsink good");
        add("trapAddress", "trap2sink good");
        add("community", "com2sec mynetwork 192.0.2.1 good");
        add("nmsIp", "com2sec mynetwork good public");
        add("nmsIpv6", "com2sec6 mynetwork good public");
        add("snmpPort", "agentAddress udp6:good,udp:good");

        const QString contact = QStringLiteral("sysContact");
        QTest::newRow("carriage return") << contact << QStringLiteral("ops\rextend x /bin/sh")
                                         << QByteArray("sysContact ops");
        QTest::newRow("NUL") << contact << QStringLiteral("ops") + QChar(0) + QStringLiteral("extend x /bin/sh")
                             << QByteArray("sysContact ops");
        QTest::newRow("the first of several ends")
            << contact << QStringLiteral("o\r\nps\n") << QByteArray("sysContact o");
        QTest::newRow("a trailing line feed") << contact << QStringLiteral("ops\n") << QByteArray("sysContact ops");
        QTest::newRow("nothing left: no line") << contact << forged << QByteArray();
    }

    void settingIsCut()
    {
        QFETCH(QString, setting);
        QFETCH(QString, value);
        QFETCH(QByteArray, line);
        SnmpdConfSettings settings = readSettings();
        const QHash<QString, QString *> fields = {
            {QStringLiteral("sysName"), &settings.mib2.sysName},
            {QStringLiteral("sysContact"), &settings.mib2.sysContact},
            {QStringLiteral("sysLocation"), &settings.mib2.sysLocation},
            {QStringLiteral("informAddress"), &settings.trap.informAddress},
            {QStringLiteral("trapAddress"), &settings.trap.trapAddress},
            {QStringLiteral("community"), &settings.access.community},
            {QStringLiteral("nmsIp"), &settings.access.nmsIp},
            {QStringLiteral("nmsIpv6"), &settings.access.nmsIpv6},
            {QStringLiteral("snmpPort"), &settings.access.snmpPort},
        };
        *fields.value(setting) = value;

        const SnmpdConfText conf = snmpdConfText(settings);
        QCOMPARE(conf.cutSettings, QStringList{setting});
        QVERIFY2(!conf.text.contains("extend") && !conf.text.contains('\r') && !conf.text.contains('\0'),
                 conf.text.constData());
        QByteArrayList lines = conf.text.split('\n');
        QCOMPARE(lines.takeLast(), QByteArray()); // the file ends with a line end
        if (line.isEmpty())
            QVERIFY(!conf.text.contains(setting.toLatin1()));
        else
            QVERIFY2(lines.contains(line), conf.text.constData());
        const bool ownLine = !line.isEmpty() && (line.startsWith("sys") || line.contains("sink"));
        QCOMPARE(lines.size(), ownLine ? 9 : 8); // master, the setting's own line, seven access lines
    }

    void settingThatIsNotWrittenIsNotReported()
    {
        SnmpdConfSettings settings = readSettings();
        settings.access.access = QStringLiteral("Disabled");
        settings.access.community = QStringLiteral("pub\nlic");
        QCOMPARE(snmpdConfText(settings).cutSettings, QStringList());
    }

    void settingUsedTwiceIsReportedOnce()
    {
        SnmpdConfSettings settings = readSettings();
        settings.access.snmpPort = QStringLiteral("161\n162");
        settings.access.community = QStringLiteral("pub\nlic");
        settings.mib2.sysName = QStringLiteral("a\nb");
        const QStringList cut = {QStringLiteral("sysName"), QStringLiteral("community"), QStringLiteral("snmpPort")};
        QCOMPARE(snmpdConfText(settings).cutSettings, cut);
        QVERIFY(snmpdConfText(settings).text.endsWith("agentAddress udp6:161,udp:161\n"));
    }

    void tenThousandRandomSettingsGiveExactlyTheirLines()
    {
        Random random(5); // NOLINT(cert-msc51-cpp): the same on every run
        int whole = 0;
        for (int round = 0; round < 10000; ++round) {
            SnmpdConfSettings settings;
            for (QString *text : {&settings.access.community, &settings.access.nmsIp, &settings.access.nmsIpv6,
                                  &settings.access.snmpPort, &settings.mib2.sysName, &settings.mib2.sysLocation,
                                  &settings.mib2.sysContact, &settings.trap.trapAddress, &settings.trap.informAddress})
                *text = randomText(random);
            settings.access.access = oneIn(random, 8)   ? randomText(random)
                                     : oneIn(random, 3) ? QStringLiteral("Disabled")
                                                        : QStringLiteral("Read");
            settings.version = {oneIn(random, 2), oneIn(random, 2), oneIn(random, 2)};

            const QByteArray text = snmpdConfText(settings).text;
            const bool read = settings.access.access == QLatin1String("Read");
            if (!read && settings.access.access != QLatin1String("Disabled")) {
                QCOMPARE(text, QByteArray());
                continue;
            }
            ++whole;
            QByteArrayList directives = {"master"};
            const auto add = [&directives](const char *directive, const QString &value) {
                if (givesALine(value))
                    directives.append(directive);
            };
            add("sysName", settings.mib2.sysName);
            add("sysContact", settings.mib2.sysContact);
            add("sysLocation", settings.mib2.sysLocation);
            add("informsink", settings.trap.informAddress);
            add("trap2sink", settings.trap.trapAddress);
            const QByteArray all = read ? "" : "#";
            const QByteArray v1 = read && settings.version.version1 ? "" : "#";
            const QByteArray v2c = read && settings.version.version2c ? "" : "#";
            directives << all + "com2sec" << all + "com2sec6" << v1 + "group" << v2c + "group" << all + "view"
                       << all + "access" << all + "agentAddress";

            QVERIFY2(text.endsWith('\n') && !text.contains('\0') && !text.contains('\r'), text.constData());
            QByteArrayList found;
            for (const QByteArray &line : text.chopped(1).split('\n'))
                found.append(line.split(' ').constFirst());
            QCOMPARE(found, directives);
        }
        QVERIFY(whole > 8000);
    }
};

const TestEntry entry("tst_snmpdconftext", runTest<TestSnmpdConfText>);

#include "tst_snmpdconftext.moc"
