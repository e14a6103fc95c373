// talctl and talservice as programs: words, replays, batches, help, exit codes.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "simulator/commands.h"
#include "simulator/replay.h"
#include "simulator/treefiles.h"
#include "simulator/treexml.h"
#include "simulator/words.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <csignal>

using namespace simulator;

namespace {

struct Result {
    int code;
    QString out;
    QString err;
};

Result runProgram(const char *program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000))
        return {-1, {}, process.errorString()};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

/// A talservice in a process.
struct Service {
    QTemporaryDir folder;
    QString socket = folder.filePath("tal.sock");
    QString control = folder.filePath("ctl.sock");
    QProcess process;
    QString readyLine;

    explicit Service(const QStringList &more = {}) { start(more); }

    void start(const QStringList &more = {})
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(KVSNMP_TALSERVICE, arguments() + more);
        while (!process.canReadLine())
            if (!process.waitForReadyRead(20000))
                return;
        readyLine = QString::fromUtf8(process.readLine()).trimmed();
    }

    QStringList arguments() const
    {
        return {"--socket", socket, "--control", control, "--bus", "none", "--model", "6420"};
    }

    Result talctl(const QStringList &words, const QByteArray &input = {}) const
    {
        return runProgram(KVSNMP_TALCTL, QStringList{"--control", control} + words, input);
    }

    int end(int signal)
    {
        ::kill(static_cast<pid_t>(process.processId()), signal);
        if (!process.waitForFinished(20000))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    }

    ~Service()
    {
        if (process.state() != QProcess::NotRunning)
            end(SIGKILL);
    }
};

constexpr char fanPath[] = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";

// clang-format off
/// A line, and its words, each with a | behind it, or its error.
constexpr struct { const char *line, *result; } lines[] = {
    {"", ""}, {" \t ", ""}, {"# set x", ""}, {" get  /state\t# all", "get|/state|"}, {"set /x a#b", "set|/x|a#b|"},
    {"set /x '#b'", "set|/x|#b|"}, {"set /x it's mine", "set|/x|it's|mine|"}, {"set /x \xC3\xA4", "set|/x|\xC3\xA4|"},
    {R"(set /x 'a \n "b"')", R"(set|/x|a \n "b"|)"}, {R"(set /x "a\n\t\r\"\\'\q")", "set|/x|a\n\t\r\"\\'q|"},
    {R"(fault raise '' "")", "fault|raise|||"}, {R"( ["set", "/x", "a \"b\"\n'"] )", "set|/x|a \"b\"\n'|"},
    {"get /a/b[kid='x y']/c", "get|/a/b[kid='x y']/c|"}, {R"(get /a/b[kid="x y"]/c)", R"(get|/a/b[kid="x y"]/c|)"},
    {R"(get "/a/b[kid='x y']/c")", "get|/a/b[kid='x y']/c|"},
    {"set 'x", "a quote is left open"}, {R"(set "x\")", "a quote is left open"},
    {"get /a[kid='x /b", "a quote is left open"}, {"set 'x'y", "no blank after a quoted word"},
    {R"(["get")", "malformed JSON list"}, {R"(["get", 1])", "not a list of texts"},
};

/// A replay that is refused, and the error; "time" stands for the error of a wrong time.
constexpr struct { const char *text, *error; } wrongReplays[] = {
    {"get /state", "line 1: time"}, {"\n-1 get /state", "line 2: time"}, {"0 get /x\n0,5 get /x", "line 2: time"},
    {"nan get /x", "line 1: time"}, {"inf get /x", "line 1: time"}, {"1e300 get /x", "line 1: time"},
    {"1 get /x\n0.5 get /x", "line 2: earlier than the line before"},
    {"1", "line 1: no command"}, {"1 # x", "line 1: no command"},
    {"1 frob", "line 1: no such command: frob (talctl --help shows all)"},
    {"1 set x", "line 1: usage: talctl set PATH VALUE"}, {"1 set /x 'y", "line 1: a quote is left open"},
    {"1 6420:", "line 1: no command"}, {"1 6420: set x", "line 1: usage: talctl set PATH VALUE"},
    {"1 6420,: get /x", "line 1: no such command: 6420,: get (talctl --help shows all)"},
    {"1 scenario x", "line 1: scenario has no place in a replay"},
    {"1 replay x", "line 1: replay has no place in a replay"}, {"1 batch", "line 1: batch has no place in a replay"},
};

/// The arguments of talctl, its exit code, its output and, without "talctl: " before and the line end, its error.
constexpr struct { const char *words; int code; const char *out, *err; } calls[] = {
    {"set FAN 7",                            0, "",     ""},
    {"get /state/class_d_amp_status/status", 0, "ok\n", ""},
    {"get /state/x",                         1, "",     "no such node: /state/x"},
    {"",                                     2, "",     "no command (talctl --help shows all)"},
    {"x",                                    2, "",     "no such command: x (talctl --help shows all)"},
    {"--x get",                              2, "",     "Unknown option 'x' (talctl --help shows all)"},
    {"--wait",                               2, "",     "Missing value after '--wait' (talctl --help shows all)"},
    {"--wait=0.1 get /state/fans/x",         1, "",     "no such node: /state/fans/x"},
    {"--wait x get",                         2, "",     "--wait needs a number of seconds"},
    {"--wait nan get /state",                2, "",     "--wait needs a number of seconds"},
    {"--wait -1 get /state",                 2, "",     "--wait needs a number of seconds"},
    {"get",                                  2, "",     "usage: talctl get PATH"},
    {"batch x",                              2, "",     "usage: talctl batch [--answers]"},
    {"trap x",                               2, "",     "no such command: trap x (talctl trap --help shows all)"},
    {"trap",                                 2, "",
     "usage: talctl trap ...\n\n"
     "  trap enable NAME\n      enable a trap, e.g. trap enable 'LET Fault'\n"
     "  trap disable NAME\n      disable a trap\n"
     "  trap list\n      print the traps, one per line: name, a tab, true or false"},
    {"monitor amp x 1",                      2, "",     "not a number: x"},
    {"monitor amp 0 1 x",                    2, "",     "usage: talctl monitor amp CHANNEL STATUS [--any]"},
    {"monitor let 0 1 2 x",                  2, "",     "usage: talctl monitor let CHANNEL LET PRESENCE [--any]"},
    {"fault raise a 1 x odd t",              1, "",
     "no such level: odd (possible: emerg alert crit err warning notice info debug; --any sends any other)"},
    {"fault raise a 1 x odd t --any",        0, "",     ""},
    {"fault raise a 2 x debug t",            0, "",     ""},
    {"replay /nowhere",                      2, "",     "/nowhere: No such file or directory"},
    {"replay --speed 2",                     2, "",     "usage: talctl replay FILE [--speed FACTOR]"},
    {"replay /nowhere --speed 0",            2, "",     "--speed needs a number above 0"},
    {"replay /nowhere --speed inf",          2, "",     "--speed needs a number above 0"},
    {"replay /nowhere --speed",              2, "",     "--speed needs a number above 0"},
    {"scenario x",                           2, "",
     "no such scenario: x (possible: fan-fails fault-flood healthy-day let-lost line-shorted mains-lost "
     "network-port-lost output-stage-shutdown)"},
    {"scenario fault-flood x",               2, "",     "usage: talctl scenario [NAME [--speed FACTOR]]"},
    {"scenario fault-flood --speed 1000",    0, "",     ""},
    {"model",                                0, "6420\n", ""},
};

/// The arguments of a talservice that does not start, its exit code and the beginning of its error after
/// "talservice: ".
constexpr struct { const char *arguments; int code; const char *err; } refusedStarts[] = {
    {"",                                            2, "--model is missing (there is a tree for: 6211 6214"},
    {"--model 1",                                   2, "no tree for model 1, there is one for:"},
    {"--model 6420 --trees /x",                     2, "no tree files in /x"},
    {"--x",                                         2, "Unknown option 'x' (talservice --help shows all)\n"},
    {"--model",                                     2, "Missing value after '--model' (talservice --help shows all)\n"},
    {"--model 6420 x",                              2, "no such argument: x (talservice --help shows all)\n"},
    {"--model 6420 --bus x",                        2, "--bus is"},
    {"--model 6420 --gpio-lines x",                 2, "--gpio-lines is"},
    {"--model 6420 --max-queue 0",                  2, "--max-queue is"},
    {"--model 6420 --set x",                        2, "--set x: not PATH=VALUE"},
    {"--model 6420 --set /state/x=1",               2, "--set /state/x=1: no such node: /state/x"},
    {"--model 6420 --set /state/fans/fan[kid='a]=b']/x=1", 2,
     "--set /state/fans/fan[kid='a]=b']/x=1: no such node: /state/fans/fan[kid='a]=b']/x\n"},
    {"--model 6420 --bus none --socket /nowhere/x", 1, "/nowhere/x: its folder is not there"},
    {"--model 6211 --bus none --gpio-root /proc/x", 1, "cannot make the folder /proc/x"},
};

/// A leaf, and its text by a setting of talservice.
constexpr struct { const char *path, *text; } settings[] = {
    {"/state/config/snmp_settings/access_control/snmp_port",    "1161"},
    {"/state/config/gpos/gpo[kid='relay1']/delay",              "a=b"},
    {"/state/config/snmp_settings/mib_2_settings/sys_name",     "a]['=b"},
    {"/state/config/snmp_settings/mib_2_settings/sys_location", ""},
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
        for (const char *value : {"-5.0", "--control", "", " two words ", "<xml/>", "it's", "\"\\n"}) {
            QCOMPARE(service.talctl({"set", fanPath, value}).err, QString());
            QCOMPARE(service.talctl({"get", fanPath}).out, *value != '\0' ? QString(value) + '\n' : QString());
        }
    }

    void helpForEachCommand()
    {
        const Result help = runProgram(KVSNMP_TALCTL, {"--help"});
        QCOMPARE(help.code, 0);
        QVERIFY(help.out.startsWith("usage: talctl [--control PATH] [--wait SECONDS] COMMAND [ARGUMENT...]\n"));
        const QString commands = "get,set,create,replace,patch,delete,fault raise,fault clear,fault list,trap enable,"
                                 "trap disable,trap list,monitor gpo,monitor gpi,monitor amp,monitor let,monitor power,"
                                 "monitor status,gpio list,gpio remove,gpio restore,gpio export,gpio unexport,gpio,"
                                 "model,clients,clients drop,subscriptions,replay,scenario,batch";
        for (const QString &command : commands.split(',')) {
            QVERIFY2(help.out.contains("\n  " + command), qPrintable(command));
            const Result single = runProgram(KVSNMP_TALCTL, command.split(' ') + QStringList{"--help"});
            QCOMPARE(single.code, 0);
            QVERIFY2(single.out.startsWith("usage: talctl " + command) && single.out.count('\n') > 2,
                     qPrintable(single.out));
        }
        const Result group = runProgram(KVSNMP_TALCTL, {"fault", "--help"});
        QCOMPARE(group.code, 0);
        QVERIFY2(group.out.startsWith("usage: talctl fault ...\n\n  fault raise REPORTER"), qPrintable(group.out));
        QVERIFY(group.out.contains("\n  fault clear ") && !group.out.contains("trap"));
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"x", "--help"}).code, 2);
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", "/x", "--help"}).out, help.out);
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--version"}).out, QString("talctl %1\n").arg(KVSNMP_VERSION));
        QVERIFY(runProgram(KVSNMP_TALSERVICE, {"--help"}).out.startsWith("usage: talservice --model N [OPTION...]\n"));
    }

    void noService()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath("none.sock");
        const Result result = runProgram(KVSNMP_TALCTL, {"--control", path, "get", "/state"});
        QCOMPARE(result.code, 3);
        QCOMPARE(result.err, QString("talctl: no service at %1: No such file or directory\n").arg(path));
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", path, "batch"}, "get /state\n").code, 3);
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", path, "--wait", "0.2", "get", "/state"}).code, 3);
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", "/" + QString(200, 'x'), "get", "/state"}).code, 3);
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", path, "get"}).code, 2); // needs no service
    }

    void waitsForTheService()
    {
        Service service;
        QCOMPARE(service.end(SIGTERM), 0);
        QProcess talctl;
        talctl.start(KVSNMP_TALCTL, {"--control", service.control, "--wait", "20", "get", "/state/fans"});
        QVERIFY(talctl.waitForStarted());
        service.start();
        QVERIFY(talctl.waitForFinished(20000));
        QCOMPARE(talctl.exitCode(), 0);
        qputenv("TAL_CONTROL", service.control.toUtf8());
        QCOMPARE(runProgram(KVSNMP_TALCTL, {"get", fanPath}).out, QString("1450\n"));
        qunsetenv("TAL_CONTROL");
    }

    void replay()
    {
        const Service service;
        const QByteArray fan = fanPath;
        QElapsedTimer timer;
        timer.start();
        const Result timed = service.talctl({"replay", "-"}, "0 set " + fan + " 1 # at once\n0.3 set " + fan +
                                                                 " 2\n0.6 get " + fan + "\n");
        QCOMPARE(timed.err, QString());
        QCOMPARE(timed.out, QString("2\n"));
        QVERIFY2(timer.elapsed() >= 600, qPrintable(QString::number(timer.elapsed())));

        QFile file(service.folder.filePath("a.replay"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("0 get /state/class_d_amp_status\n") > 0);
        file.close();
        QCOMPARE(service.talctl({"replay", file.fileName()}).out,
                 QString("<class_d_amp_status>\n  <status>ok</status>\n</class_d_amp_status>\n"));

        const Result unread = service.talctl({"replay", "-"}, "0 delete /state/fans\n0 frob\n");
        QCOMPARE(unread.code, 2); // read to its end before it begins
        QCOMPARE(unread.err,
                 QString("talctl: standard input, line 2: no such command: frob (talctl --help shows all)\n"));
        QCOMPARE(service.talctl({"get", fanPath}).code, 0);

        const Result failed = service.talctl(
            {"replay", "-"}, "0 delete /state/fans\n\n0 get /state/fans\n0 delete /state/class_d_amp_status\n");
        QCOMPARE(failed.code, 1); // ends at the first failure
        QCOMPARE(failed.err, QString("talctl: line 3: no such node: /state/fans\n"));
        QCOMPARE(service.talctl({"get", "/state/class_d_amp_status/status"}).out, QString("ok\n"));
    }

    void speedAndModels()
    {
        const Service service;
        const QByteArray fan = fanPath;
        QElapsedTimer timer;
        timer.start();
        const Result fast = service.talctl({"replay", "-", "--speed", "100"},
                                           "# Models: 6420\n0 6764: set " + fan + " 1\n60 6410,6420: get " + fan);
        QCOMPARE(fast.err, QString());
        QCOMPARE(fast.out, QString("1450\n"));
        QVERIFY2(timer.elapsed() >= 600 && timer.elapsed() < 30000, qPrintable(QString::number(timer.elapsed())));
        const Result other = service.talctl({"replay", "-"}, "0 set " + fan + " 1\n# Models: 6410 6764\n");
        QCOMPARE(other.err, QString("talctl: not for model 6420, only for: 6410 6764\n"));
        QCOMPARE(other.code, 1);
        QCOMPARE(service.talctl({"get", fan}).out, QString("1450\n"));
    }

    void scenarios()
    {
        const Result list = runProgram(KVSNMP_TALCTL, {"--control", "/nowhere", "scenario"}); // needs no service
        QCOMPARE(list.code, 0);
        QStringList names;
        for (const QString &line : list.out.split('\n', Qt::SkipEmptyParts)) {
            QVERIFY2(line.section('\t', 1).endsWith('.') && line.count('\t') == 1, qPrintable(line));
            names += line.section('\t', 0, 0) + ".tal";
        }
        QCOMPARE(names, QDir(KVSNMP_SCENARIOS).entryList({"*.tal"}));
        const Result refused = Service({"--model", "6214"}).talctl({"scenario", "line-shorted"});
        QCOMPARE(refused.err, QString("talctl: not for model 6214, only for: 6420 6425 6720 6764\n"));
        QCOMPARE(refused.code, 1);
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

    void batch()
    {
        const Service service;
        const QByteArray fan = fanPath;
        const Result good = service.talctl({"batch"}, "# one\nset " + fan + " 5\n\nget " + fan);
        QCOMPARE(good.err, QString());
        QCOMPARE(good.out, QString("5\n"));
        QCOMPARE(good.code, 0);
        const Result bad = service.talctl({"batch"}, "set /state/x 1\nset 'x\nfrob\nget " + fan + "\n");
        QCOMPARE(bad.code, 1);
        QCOMPARE(bad.out, QString("5\n"));
        QCOMPARE(bad.err, QString("talctl: line 1: no such node: /state/x\ntalctl: line 2: a quote is left open\n"
                                  "talctl: line 3: no such command: frob (talctl --help shows all)\n"));
        QCOMPARE(service.talctl({"batch"}).code, 0);

        constexpr int count = 5000;
        QByteArray raise;
        QByteArray clear;
        for (int i = 0; i < count; ++i) {
            const QByteArray number = QByteArray::number(i);
            raise += "fault raise amp " + number + " fan_not_running crit 'fan " + number + "'\n";
            clear += "fault clear amp " + number + '\n';
        }
        QCOMPARE(service.talctl({"batch"}, raise).code, 0);
        QCOMPARE(service.talctl({"fault", "list"}).out.count('\n'), count);
        QCOMPARE(service.talctl({"batch"}, clear).code, 0);
        QCOMPARE(service.talctl({"fault", "list"}).out, QString());
    }

    void batchAnswersAtOnce()
    {
        Service service;
        for (const bool serviceGoesAway : {false, true}) {
            QProcess batch;
            batch.start(KVSNMP_TALCTL, {"--control", service.control, "batch", "--answers"});
            const auto answer = [&](const QByteArray &line) {
                batch.write(line + '\n');
                while (!batch.canReadLine())
                    if (!batch.waitForReadyRead(20000))
                        return QByteArray("(nothing)");
                return batch.readLine();
            };
            QCOMPARE(answer(QByteArray("get ") + fanPath), QByteArray("{\"code\":0,\"text\":\"1450\"}\n"));
            QCOMPARE(answer("[\"set\",\"/state/x\",\"1\"]"),
                     QByteArray("{\"code\":1,\"text\":\"no such node: /state/x\"}\n"));
            QCOMPARE(answer("fault list"), QByteArray("{\"code\":0,\"text\":\"\"}\n"));
            if (serviceGoesAway) {
                service.end(SIGKILL);
                batch.write("get /state\n");
            } else {
                batch.closeWriteChannel();
            }
            QVERIFY(batch.waitForFinished(20000));
            QCOMPARE(batch.exitCode(), serviceGoesAway ? 3 : 0);
            QCOMPARE(batch.readAllStandardError(),
                     QByteArray(serviceGoesAway ? "talctl: the service went away\n" : ""));
        }
    }

    void serviceOptions()
    {
        const QTemporaryDir folder;
        const QString gpio = folder.filePath("gpio");
        QStringList options{"--model", "6211", "--trees", KVSNMP_TREES, "--gpio-root", gpio};
        for (const auto &[path, text] : settings)
            options += {"--set", QString(path) + '=' + text};
        const Service service(options);
        QCOMPARE(service.readyLine, QString("talservice: ready model 6211 socket %1 control %2 gpio %3 bus none")
                                        .arg(service.socket, service.control, gpio));
        for (const auto &[path, text] : settings)
            QCOMPARE(service.talctl({"get", path}).out, *text != '\0' ? QString(text) + '\n' : QString());
        QVERIFY(service.talctl({"gpio", "list"}).out.contains("gpio4\t171\tgpio171\tout\t")); // the tree's outputs
    }

    void serviceRefusesToStart()
    {
        for (const auto &row : refusedStarts) {
            const AtRow at(row.arguments);
            const Result result = runProgram(KVSNMP_TALSERVICE, QString(row.arguments).split(' ', Qt::SkipEmptyParts));
            QVERIFY2(result.err.startsWith(QString("talservice: ") + row.err), qPrintable(result.err));
            QCOMPARE(result.code, row.code);
            QCOMPARE(result.out, QString());
        }
    }

    void serviceEndsAndStartsAgain()
    {
        Service service;
        for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
            QCOMPARE(service.end(signal), 0);
            QVERIFY(!QFile::exists(service.socket));
            QVERIFY(!QFile::exists(service.control));
            service.start();
        }
        const Result second = runProgram(KVSNMP_TALSERVICE, service.arguments());
        QCOMPARE(second.code, 1);
        QVERIFY(second.err.endsWith("is served by another program\n"));
        service.end(SIGKILL);
        QVERIFY(QFile::exists(service.socket)); // left behind, and replaced
        service.readyLine.clear();
        service.start();
        QVERIFY(service.readyLine.startsWith("talservice: ready"));
        QCOMPARE(service.talctl({"get", fanPath}).out, QString("1450\n"));
    }
};

const TestEntry entry("tst_talctl", runTest<TestTalctl>);
#include "tst_talctl.moc"
