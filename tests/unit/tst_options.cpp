// The command line: what each option does to the settings or to the process.
#include "app/options.h"

#include "support/childprocess.h"
#include "support/testprogram.h"

#include <vector>

namespace {
constexpr char usage[] = "\nUsage: kvsnmp options\n"
                         "\nOptions:\n"
                         "  -h  --help         Display this usage information.\n"
                         "  -t  --testmode     Run in Audio testmode, Not implemented!\n"
                         "  -d  --daemon       Dont run as an daemon\n"
                         "\n";

/// The settings come back as the child's exit status, a sum of these.
constexpr int readOn = 10;
constexpr int asDaemon = 1;
constexpr int talDebug = 2;
constexpr int aborted = -1;
} // namespace

class TestOptions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void commandLine()
    {
        static constexpr struct {
            const char *line;
            int status;
            const char *out;
            const char *err; // its end
        } rows[] = {
            {"kvsnmp", readOn + asDaemon, "", ""},
            {"kvsnmp -d", readOn, "", ""},
            {"kvsnmp --daemon", readOn, "", ""},
            {"kvsnmp -z", readOn + asDaemon + talDebug, "", ""},
            {"kvsnmp --taldebug", readOn + asDaemon + talDebug, "", ""},
            {"kvsnmp -dz", readOn + talDebug, "", ""},
            {"kvsnmp word -d", readOn, "", ""},
            {"kvsnmp -h", 0, usage, ""},
            {"kvsnmp --help", 0, usage, ""},
            {"kvsnmp -x", 1, "", usage},
            {"kvsnmp --unknown", 1, "", usage},
            {"kvsnmp --daemon=yes", 1, "", usage},
            {"kvsnmp -t", aborted, "", ""}, // accepted, but not implemented
            {"kvsnmp -v", aborted, "", ""},
            {"kvsnmp --testmode", aborted, "", ""},
            {"kvsnmp --NULL", aborted, "", ""},
        };
        for (const auto &row : rows) {
            const AtRow at(row.line);
            const ChildResult child = inChild([&row] {
                QByteArrayList words = QByteArray(row.line).split(' ');
                std::vector<char *> arguments;
                for (QByteArray &word : words)
                    arguments.push_back(word.data());
                arguments.push_back(nullptr);
                const Options options = parseOptions(words.size(), arguments.data());
                return readOn + (options.daemon ? asDaemon : 0) + (options.talDebug ? talDebug : 0);
            });
            QVERIFY(row.status == aborted ? child.endedBy(SIGABRT) : child.exitedWith(row.status));
            QCOMPARE(child.out, row.out);
            QVERIFY2(child.err.endsWith(row.err), child.err.constData());
            QCOMPARE(child.err.isEmpty(), row.err[0] == '\0');
        }
    }
};

const TestEntry entry("tst_options", runTest<TestOptions>);
#include "tst_options.moc"
