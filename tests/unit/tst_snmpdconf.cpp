// The text of snmpd.conf for each kind of settings; the file in place, where it cannot be deleted. A fuzzer, too,
// checks that every text has exactly its lines; tst_snmpdconfhandler tests how the file is made anew.
#include "support/files.h"
#include "support/ordinaryuser.h"
#include "support/testprogram.h"

#include "snmpdconf/configfile.h"
#include "snmpdconf/snmpdconftext.h"

#include <unistd.h>

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

using Outcome = ConfigFileResult::Outcome;
constexpr uid_t nobody = AsOrdinaryUser::nobody;
constexpr uid_t another = 12345;

struct Place {
    Place() { QDir(dir.path()).mkdir(QStringLiteral("snmp")); }

    ConfigFileResult write(uid_t owner = nobody) const
    {
        const Undeletable file(QFile::decodeName(path), owner);
        const AsOrdinaryUser user;
        return writeConfigFile(QFile::decodeName(path), "# new\n");
    }

    QTemporaryDir dir;
    QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("snmp/snmpd.conf")));
    QByteArray other = QFile::encodeName(dir.filePath(QStringLiteral("other")));
};
} // namespace

class TestSnmpdConf : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void wholeText()
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
        settings.access.snmpPort = QStringLiteral("1611");
        expectText(settings, names + QByteArray(disabledAccessLines).replace(":161", ":1611"));
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

    void regularFileInPlace()
    {
        static constexpr char older[] = "# older, and longer than the new one\n";
        // clang-format off
        static constexpr struct {
            const char *name; uid_t owner; mode_t mode;
            Outcome outcome; const char *complaint; const char *content; mode_t modeAfter;
        } rows[] = {
            {"shortened and closed to others", nobody, 0644, Outcome::InPlace,
             "snmpd.conf is written in place, it cannot be deleted: Permission denied", "# new\n", 0600},
            {"not writable: no complaint", nobody, 0444, Outcome::NotOpened, "", older, 0444},
            {"of another user", another, 0666, Outcome::InPlace,
             "snmpd.conf is written in place, it cannot be deleted: Permission denied; user 12345 owns it, mode 0666",
             "# new\n", 0666},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            if (row.owner == another && geteuid() != 0)
                QSKIP("only root can make a file of another user");
            const Place place;
            writeFile(place.path, older);
            QCOMPARE(chmod(place.path.constData(), row.mode), 0);
            const ino_t inode = statusOf(place.path).st_ino;
            const ConfigFileResult result = place.write(row.owner);
            QCOMPARE(result.outcome, row.outcome);
            QCOMPARE(result.complaint, row.complaint);
            QCOMPARE(readFile(place.path), row.content);
            QCOMPARE(statusOf(place.path).st_ino, inode);
            QCOMPARE(statusOf(place.path).st_mode, S_IFREG | row.modeAfter);
        }
    }

    void fileThatLeadsElsewhereIsLeftAlone()
    {
        static constexpr std::pair<const char *, int (*)(const char *path, const char *other)> rows[] = {
            {"symbolic link", [](const char *path, const char *other) { return symlink(other, path); }},
            {"hard link", [](const char *path, const char *other) { return link(other, path); }},
            {"pipe", [](const char *path, const char *) { return mkfifo(path, 0666); }},
        };
        for (const auto &[name, make] : rows) {
            const AtRow at(name);
            const Place place;
            writeFile(place.other, "somebody else's\n");
            QCOMPARE(chmod(place.other.constData(), 0666), 0);
            QCOMPARE(make(place.path.constData(), place.other.constData()), 0);
            const mode_t mode = statusOf(place.path).st_mode;
            const ConfigFileResult result = place.write();
            QCOMPARE(result.outcome, Outcome::LeftAlone);
            QCOMPARE(result.complaint, "snmpd.conf is left as it is, it cannot be deleted (Permission denied) and "
                                       "is not a regular file with one name");
            QCOMPARE(readFile(place.other), "somebody else's\n");
            QCOMPARE(statusOf(place.path).st_mode, mode);
        }
    }

private:
    static void expectText(const Settings &settings, const QByteArray &text, const QStringList &cutSettings = {})
    {
        const SnmpdConfText conf = snmpdConfText(settings);
        QCOMPARE(conf.text, text);
        QCOMPARE(conf.cutSettings, cutSettings);
    }
};

const TestEntry entry("tst_snmpdconf", runTest<TestSnmpdConf>);
#include "tst_snmpdconf.moc"
