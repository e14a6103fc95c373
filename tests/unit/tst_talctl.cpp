// talctl as a program: words, replays, scenarios, exit codes.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "simulator/commands.h"
#include "simulator/replay.h"
#include "simulator/treefiles.h"
#include "simulator/treexml.h"
#include "simulator/words.h"

using namespace simulator;

namespace {
struct Result {
    int code;
    QString out;
    QString err;
};

Result runTalctl(const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(KVSNMP_TALCTL, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000))
        return {-1, {}, process.errorString()};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

struct Service {
    QTemporaryDir folder;
    QString socket = folder.filePath("tal.sock");
    QString control = folder.filePath("ctl.sock");
    QProcess process;

    Service()
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(KVSNMP_TALSERVICE,
                      {"--socket", socket, "--control", control, "--bus", "none", "--model", "6420"});
        process.waitForReadyRead(20000);
    }
    ~Service()
    {
        process.terminate();
        process.waitForFinished();
    }

    Result talctl(const QStringList &words, const QByteArray &input = {}) const
    {
        return runTalctl(QStringList{"--control", control} + words, input);
    }
};

constexpr char fanPath[] = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";

// clang-format off
/// A line, and its words, each with a | behind it, or its error.
constexpr struct { const char *line, *result; } lines[] = {
    {" \t ", ""}, {"# set x", ""}, {" get  /state\t# all", "get|/state|"}, {"set /x a#b", "set|/x|a#b|"},
    {"set /x '#b'", "set|/x|#b|"}, {"set /x it's \xC3\xA4", "set|/x|it's|\xC3\xA4|"},
    {R"(set /x 'a \n "b"')", R"(set|/x|a \n "b"|)"}, {R"(set /x "a\n\t\r\"\\'\q")", "set|/x|a\n\t\r\"\\'q|"},
    {R"(fault raise '' "")", "fault|raise|||"}, {R"( ["set", "/x", "a \"b\"\n'"] )", "set|/x|a \"b\"\n'|"},
    {"get /a/b[kid='x y']/c", "get|/a/b[kid='x y']/c|"}, {R"(get "/a/b[kid='x y']/c")", "get|/a/b[kid='x y']/c|"},
    {R"(set "x\")", "a quote is left open"}, {"get /a[kid='x /b", "a quote is left open"},
    {"set 'x'y", "no blank after a quoted word"}, {R"(["get")", "malformed JSON list"},
    {R"(["get", 1])", "not a list of texts"},
};

/// A replay that is refused, and the error; "time" stands for the error of a wrong time.
constexpr struct { const char *text, *error; } wrongReplays[] = {
    {"get /state", "line 1: time"}, {"\n-1 get /state", "line 2: time"}, {"nan get /x", "line 1: time"},
    {"1e300 get /x", "line 1: time"}, {"1 get /x\n0.5 get /x", "line 2: earlier than the line before"},
    {"1 # x", "line 1: no command"}, {"1 6420: set x", "line 1: usage: talctl set PATH VALUE"},
    {"1 6420,: get /x", "line 1: no such command: 6420,: get (talctl --help shows all)"},
    {"1 batch", "line 1: batch has no place in a replay"},
};

/// The arguments of talctl, its exit code, its output and, without "talctl: " before and the line end, its error.
constexpr struct { const char *words; int code; const char *out, *err; } calls[] = {
    {"set FAN 7",                            0, "",     ""},
    {"get FAN",                              0, "7\n",  ""},
    {"get /state/x",                         1, "",     "no such node: /state/x"},
    {"",                                     2, "",     "no command (talctl --help shows all)"},
    {"--x get",                              2, "",     "Unknown option 'x' (talctl --help shows all)"},
    {"get",                                  2, "",     "usage: talctl get PATH"},
    {"fault raise a 1 x odd t",              1, "",
     "no such level: odd (possible: emerg alert crit err warning notice info debug; --any sends any other)"},
    {"replay /nowhere --speed 0",            2, "",     "--speed needs a number above 0"},
};

// clang-format on
} // namespace

class TestTalctl : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void words()
    {
        for (const auto &row : lines) {
            const AtRow at(row.line);
            QString result;
            const std::optional<QStringList> split = splitWords(QString::fromUtf8(row.line), result);
            for (const QString &word : split.value_or(QStringList()))
                result += word + '|';
            QCOMPARE(result, QString::fromUtf8(row.result));
        }
    }

    void replayLines()
    {
        QString error;
        const auto replay =
            readReplay("# a day\n\n0 get /state\n 0.25\t6420,6764: set /x 'a b' # why\n# Models: 6420  6\n"
                       "1e1 [\"get\", \"/x\"]\n",
                       error);
        QVERIFY2(replay, qPrintable(error));
        QCOMPARE(replay->models, (QStringList{"6420", "6"}));
        const std::vector<TimedCommand> &commands = replay->commands;
        QCOMPARE(commands.size(), std::size_t{3});
        QCOMPARE(commands[0].models, QStringList());
        QCOMPARE(commands[1].line, 4);
        QCOMPARE(commands[1].seconds, 0.25);
        QCOMPARE(commands[1].models, (QStringList{"6420", "6764"}));
        QCOMPARE(commands[1].words, (QStringList{"set", "/x", "a b"}));
        QCOMPARE(commands[2].seconds, 10.0);
        QCOMPARE(commands[2].words, (QStringList{"get", "/x"}));
        QCOMPARE(readReplay("# Models: all\n0 get /x", error)->models, QStringList());
        for (const auto &row : wrongReplays) {
            const AtRow at(row.text);
            error.clear();
            QVERIFY(!readReplay(row.text, error));
            QCOMPARE(error.replace("a line begins with the seconds since the start", "time"), QString(row.error));
        }
    }

    void exitCodes()
    {
        const Service service;
        for (const auto &row : calls) {
            const AtRow at(row.words);
            const QStringList words = QString(row.words).replace("FAN", fanPath).split(' ', Qt::SkipEmptyParts);
            const Result result = service.talctl(words);
            QCOMPARE(result.err, *row.err == '\0' ? QString() : QString("talctl: %1\n").arg(row.err));
            QCOMPARE(result.out, QString(row.out));
            QCOMPARE(result.code, row.code);
        }
        for (const char *value : {"-5.0", "--control", "", " two words ", "\"\\n"}) {
            QCOMPARE(service.talctl({"set", fanPath, value}).err, QString());
            QCOMPARE(service.talctl({"get", fanPath}).out, *value != '\0' ? QString(value) + '\n' : QString());
        }
        const QString path = service.folder.filePath("none.sock");
        const Result noService = runTalctl({"--control", path, "get", "/state"});
        QCOMPARE(noService.code, 3);
        QCOMPARE(noService.err, QString("talctl: no service at %1: No such file or directory\n").arg(path));
    }

    void replay()
    {
        const Service service;
        const QByteArray fan = fanPath;
        QElapsedTimer timer;
        timer.start();
        const Result fast =
            service.talctl({"replay", "-", "--speed", "100"},
                           "# Models: 6420\n0 set " + fan + " 1\n0 6764: set " + fan + " 2\n60 6410,6420: get " + fan);
        QCOMPARE(fast.err, QString());
        QCOMPARE(fast.out, QString("1\n"));
        QVERIFY2(timer.elapsed() >= 600 && timer.elapsed() < 30000, qPrintable(QString::number(timer.elapsed())));

        const struct {
            const char *text, *err;
            int code;
        } failures[] = {
            {"0 delete /state/fans\n# Models: 6410 6764\n", "not for model 6420, only for: 6410 6764", 1},
            {"0 delete /state/fans\n0 frob\n", // read to its end before it begins
             "standard input, line 2: no such command: frob (talctl --help shows all)", 2},
            {"0 get /state/fans\n\n0 get /state/x\n0 delete /state/fans\n", "line 3: no such node: /state/x", 1},
        };
        for (const auto &[text, err, code] : failures) {
            const Result failed = service.talctl({"replay", "-"}, text);
            QCOMPARE(failed.err, QString("talctl: %1\n").arg(err));
            QCOMPARE(failed.code, code);
            QCOMPARE(service.talctl({"get", fanPath}).out, QString("1\n"));
        }
    }

    /// On each of its models: it changes what the tree has, leaves no fault, and every value as it was but the peaks.
    void scenariosEndAsTheyBegan()
    {
        QSet<QString> identifiers;
        for (const catalogue::Row &trap : catalogue::rows("traps"))
            for (const QString &identifier : trap.list("identifiers"))
                identifiers += identifier;
        const QRegularExpression peaks("<temp_peak>[^<]*");
        const auto textOf = [&](const DataTree &tree) {
            return QString::fromStdString(nodeXml(tree.select({{"state", {}}}).front())).remove(peaks);
        };
        for (const QFileInfo &info : QDir(KVSNMP_SCENARIOS).entryInfoList({"*.tal"})) {
            QFile file(info.filePath());
            QVERIFY(file.open(QIODevice::ReadOnly));
            QString error;
            const auto replay = readReplay(QString::fromUtf8(file.readAll()), error);
            QVERIFY2(replay && !replay->commands.empty(), qPrintable(error));
            for (const QString &model : replay->models.isEmpty() ? modelsIn(KVSNMP_TREES) : replay->models) {
                DataTree tree;
                QVERIFY(!loadModel(KVSNMP_TREES, model, tree));
                const QString before = textOf(tree);
                QSet<QString> active;
                for (const TimedCommand &command : replay->commands) {
                    const AtRow at(
                        qPrintable(QString("%1, %2, line %3").arg(info.baseName(), model).arg(command.line)));
                    if (!command.models.isEmpty() && !command.models.contains(model))
                        continue;
                    const QStringList &words = command.words;
                    if (words[0] == "set") {
                        QVERIFY(!tree.set(words[1].toStdString(), words[2].toStdString()));
                    } else if (words[1] == "raise") {
                        QVERIFY(identifiers.contains(words[4]));
                        active += words[2] + ' ' + words[3];
                    } else if (words[1] == "clear") {
                        QVERIFY(active.remove(words[2] + ' ' + words[3]));
                    } else if (words[1] == "let") {
                        const QString let = QString("/state/lines/line[kid='ch%1']/lets/let[kid='%2']")
                                                .arg(words[2].toInt() + 1)
                                                .arg(words[3]);
                        QVERIFY(tree.contains(let.toStdString()));
                    } else {
                        QCOMPARE(words[0], QString("monitor"));
                    }
                }
                const AtRow at(qPrintable(info.baseName() + ", " + model));
                QCOMPARE(textOf(tree), before);
                QVERIFY(active.isEmpty());
            }
        }
    }
};

const TestEntry entry("tst_talctl", runTest<TestTalctl>);
#include "tst_talctl.moc"
