// snmpd.conf in place, where it cannot be deleted. How it is made anew is in tst_snmpdconfhandler.
#include "snmpdconf/configfile.h"

#include "support/files.h"
#include "support/testprogram.h"
#include "support/undeletable.h"

#include <unistd.h>

namespace {
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

class TestConfigFile : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void regularFile()
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
};

const TestEntry entry("tst_configfile", runTest<TestConfigFile>);
#include "tst_configfile.moc"
