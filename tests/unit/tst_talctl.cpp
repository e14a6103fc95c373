// talctl and talservice as programs: words, replays, batches, help, exit codes.
#include "support/testprogram.h"

#include "simulator/commands.h"
#include "simulator/replay.h"
#include "simulator/words.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
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

/// A talservice in a process of its own.
struct Service {
    QTemporaryDir folder;
    QProcess process;
    QString readyLine;

    QStringList sockets() const
    {
        return {"--socket", folder.filePath("tal.sock"), "--control", folder.filePath("ctl.sock")};
    }

    void start(const QStringList &more = {"--model", "6420"})
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(KVSNMP_TALSERVICE, sockets() + QStringList{"--bus", "none"} + more);
        while (!process.canReadLine())
            if (!process.waitForReadyRead(20000))
                return;
        readyLine = QString::fromUtf8(process.readLine()).trimmed();
    }

    Result talctl(const QStringList &words, const QByteArray &input = {}) const
    {
        return runProgram(KVSNMP_TALCTL, QStringList{"--control", folder.filePath("ctl.sock")} + words, input);
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

const QString fanPath = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";

} // namespace

class TestTalctl : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void words_data();
    void words();
    void wrongWords_data();
    void wrongWords();
    void replayLines();
    void wrongReplayLines_data();
    void wrongReplayLines();

    void exitCodes_data();
    void exitCodes();
    void helpForEachCommand();
    void noService();
    void serviceThatGoesAway();
    void waitsForTheService();
    void controlSocketFromTheEnvironment();
    void valuesMayLookLikeOptions();
    void replayKeepsItsTimes();
    void replayEndsAtTheFirstFailure();
    void replayIsReadBeforeItBegins();
    void batch();
    void batchAnswersAsItGoes();
    void batchOfManyFaults();

    void serviceTellsThatItIsReady();
    void serviceOptions_data();
    void serviceOptions();
    void serviceUsage_data();
    void serviceUsage();
    void serviceEndsCleanly_data();
    void serviceEndsCleanly();
    void serviceTakesOverAfterAKill();
};

void TestTalctl::words_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("words"); // joined by |
    // clang-format off
    const struct { const char *name; const char *line; const char *words; } rows[] = {
        {"nothing",                   "",                            nullptr},
        {"blanks",                    " \t ",                        nullptr},
        {"comment",                   "# set x",                     nullptr},
        {"words and a comment",       " get  /state\t# all",         "get|/state"},
        {"number sign in a word",     "set /x a#b",                  "set|/x|a#b"},
        {"number sign in quotes",     "set /x '#b'",                 "set|/x|#b"},
        {"apostrophes are literal",   R"(set /x 'a \n "b"')",        R"(set|/x|a \n "b")"},
        {"quotation marks escape",    R"(set /x "a\n\t\r\"\\'\q")", "set|/x|a\n\t\r\"\\'q"},
        {"empty words",               R"(fault raise '' "")",        "fault|raise||"},
        {"path with quotes",          "get /a/b[kid='x y']/c",       "get|/a/b[kid='x y']/c"},
        {"path with quotation marks", R"(get /a/b[kid="x y"]/c)",    R"(get|/a/b[kid="x y"]/c)"},
        {"quoted path",               R"(get "/a/b[kid='x y']/c")",  "get|/a/b[kid='x y']/c"},
        {"apostrophe in a word",      "set /x it's mine",            "set|/x|it's|mine"},
        {"JSON",                      R"( ["set", "/x", "a \"b\"\n'"] )", "set|/x|a \"b\"\n'"},
        {"beyond ASCII",              "set /x \xC3\xA4",             "set|/x|\xC3\xA4"},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::newRow(row.name) << QString::fromUtf8(row.line) << QString::fromUtf8(row.words);
}

void TestTalctl::words()
{
    QFETCH(const QString, line);
    QFETCH(const QString, words);
    QString error;
    const std::optional<QStringList> split = splitWords(line, error);
    QVERIFY2(split, qPrintable(error));
    QCOMPARE(*split, words.isNull() ? QStringList() : words.split('|'));
}

void TestTalctl::wrongWords_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("error");
    // clang-format off
    const struct { const char *name; const char *line; const char *error; } rows[] = {
        {"open apostrophe",              "set 'x",             "a quote is left open"},
        {"open quotation mark",          R"(set "x\")",        "a quote is left open"},
        {"open in a path",               "get /a[kid='x /b",   "a quote is left open"},
        {"no blank after a quoted word", "set 'x'y",           "no blank after a quoted word"},
        {"half a list",                  R"(["get")",          "malformed JSON list"},
        {"a list with a number",         R"(["get", 1])",      "not a list of texts"},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::newRow(row.name) << row.line << row.error;
}

void TestTalctl::wrongWords()
{
    QFETCH(const QString, line);
    QFETCH(const QString, error);
    QString found;
    QVERIFY(!splitWords(line, found));
    QCOMPARE(found, error);
}

void TestTalctl::replayLines()
{
    QString error;
    const auto commands =
        readReplay("# a day\n\n0 get /state\n 0.25\tset /x 'a b' # why\n1e1 [\"get\", \"/x\"]\n", error);
    QVERIFY2(commands, qPrintable(error));
    QCOMPARE(commands->size(), std::size_t{3});
    QCOMPARE((*commands)[1].line, 4);
    QCOMPARE((*commands)[1].seconds, 0.25);
    QCOMPARE((*commands)[1].words, (QStringList{"set", "/x", "a b"}));
    QCOMPARE((*commands)[2].seconds, 10.0);
    QCOMPARE((*commands)[2].words, (QStringList{"get", "/x"}));
}

void TestTalctl::wrongReplayLines_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    // clang-format off
    const struct { const char *name; const char *text; const char *error; } rows[] = {
        {"no time",                 "get /state",             "line 1: a line begins with the seconds since the start"},
        {"time below 0",            "\n-1 get /state",        "line 2: a line begins with the seconds since the start"},
        {"no number",               "0 get /x\n0,5 get /x",   "line 2: a line begins with the seconds since the start"},
        {"not a time",              "nan get /x",             "line 1: a line begins with the seconds since the start"},
        {"never",                   "inf get /x",             "line 1: a line begins with the seconds since the start"},
        {"hardly ever",             "1e300 get /x",           "line 1: a line begins with the seconds since the start"},
        {"earlier",                 "1 get /x\n0.5 get /x",   "line 2: earlier than the line before"},
        {"no command",              "1",                      "line 1: no command"},
        {"a comment for a command", "1 # x",                  "line 1: no command"},
        {"unknown command",         "1 frob",                 "line 1: no such command: frob (talctl --help shows all)"},
        {"wrong usage",             "1 set x",                "line 1: usage: talctl set PATH VALUE"},
        {"open quote",              "1 set /x 'y",            "line 1: a quote is left open"},
        {"a replay in a replay",    "1 replay x",             "line 1: replay has no place in a replay"},
        {"a batch in a replay",     "1 batch",                "line 1: batch has no place in a replay"},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::newRow(row.name) << row.text << row.error;
}

void TestTalctl::wrongReplayLines()
{
    QFETCH(const QString, text);
    QFETCH(const QString, error);
    QString found;
    QVERIFY(!readReplay(text, found));
    QCOMPARE(found, error);
}

void TestTalctl::exitCodes_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("out");
    QTest::addColumn<QString>("err");
    // clang-format off
    const struct { const char *name; const char *words; int code; const char *out; const char *err; } rows[] = {
        {"done",                  "set FAN 7",                             0, "",     ""},
        {"output",                "get /state/class_d_amp_status/status",  0, "ok\n", ""},
        {"refused",               "get /state/x",                          1, "",     "talctl: no such node: /state/x\n"},
        {"no command",            "",                                      2, "",     "talctl: no command (talctl --help shows all)\n"},
        {"unknown command",       "x",                                     2, "",     "talctl: no such command: x (talctl --help shows all)\n"},
        {"unknown option",        "--x get",                               2, "",     "talctl: no such option: --x (talctl --help shows all)\n"},
        {"option without value",  "--wait",                                2, "",     "talctl: --wait needs a value\n"},
        {"wait for no time",      "--wait x get",                          2, "",     "talctl: --wait needs a number of seconds\n"},
        {"wait that never ends",  "--wait nan get /state",                 2, "",     "talctl: --wait needs a number of seconds\n"},
        {"wait of the past",      "--wait -1 get /state",                  2, "",     "talctl: --wait needs a number of seconds\n"},
        {"wrong usage",           "get",                                   2, "",     "talctl: usage: talctl get PATH\n"},
        {"wrong usage of batch",  "batch x",                               2, "",     "talctl: usage: talctl batch [--answers]\n"},
        {"wrong number",          "monitor amp x 1",                       2, "",     "talctl: not a number: x\n"},
        {"no replay file",        "replay /nowhere",                       2, "",     "talctl: /nowhere: No such file or directory\n"},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::newRow(row.name) << row.words << row.code << row.out << row.err;
}

void TestTalctl::exitCodes()
{
    QFETCH(QString, words);
    QFETCH(const int, code);
    QFETCH(const QString, out);
    QFETCH(const QString, err);
    Service service;
    service.start();
    const Result result = service.talctl(words.replace("FAN", fanPath).split(' ', Qt::SkipEmptyParts));
    QCOMPARE(result.err, err);
    QCOMPARE(result.out, out);
    QCOMPARE(result.code, code);
}

void TestTalctl::helpForEachCommand()
{
    const Result help = runProgram(KVSNMP_TALCTL, {"--help"});
    QCOMPARE(help.code, 0);
    QVERIFY(help.out.startsWith("usage: talctl [--control PATH] [--wait SECONDS] COMMAND [ARGUMENT...]\n"));
    const QStringList commands{"get",          "set",           "create",         "replace",     "patch",
                               "delete",       "fault raise",   "fault clear",    "fault list",  "trap enable",
                               "trap disable", "trap list",     "monitor gpo",    "monitor gpi", "monitor amp",
                               "monitor let",  "monitor power", "monitor status", "gpio list",   "gpio remove",
                               "gpio restore", "gpio export",   "gpio unexport",  "gpio",        "clients",
                               "clients drop", "subscriptions", "replay",         "batch"};
    for (const QString &command : commands) {
        QVERIFY2(help.out.contains("\n  " + command), qPrintable(command));
        const Result own = runProgram(KVSNMP_TALCTL, command.split(' ') + QStringList{"--help"});
        QCOMPARE(own.code, 0);
        QVERIFY2(own.out.startsWith("usage: talctl " + command) && own.out.count('\n') > 2, qPrintable(own.out));
    }
    const Result group = runProgram(KVSNMP_TALCTL, {"fault", "--help"});
    QCOMPARE(group.code, 0);
    QVERIFY2(group.out.startsWith("usage: talctl fault ...\n\n  fault raise REPORTER"), qPrintable(group.out));
    QVERIFY(group.out.contains("\n  fault clear ") && !group.out.contains("trap"));
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"x", "--help"}).code, 2);
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", "/x", "--help"}).out, help.out);
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"--version"}).out, QString("talctl %1\n").arg(KVSNMP_VERSION));
}

void TestTalctl::noService()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("none.sock");
    const Result result = runProgram(KVSNMP_TALCTL, {"--control", path, "get", "/state"});
    QCOMPARE(result.code, 3);
    QCOMPARE(result.err, QString("talctl: no service at %1: No such file or directory\n").arg(path));
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", path, "batch"}, "get /state\n").code, 3);
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", "/" + QString(200, 'x'), "get", "/state"}).code, 3);
    QCOMPARE(runProgram(KVSNMP_TALCTL, {"--control", path, "get"}).code, 2); // wrong usage is told without a service
}

void TestTalctl::serviceThatGoesAway()
{
    Service service;
    service.start();
    QProcess batch;
    batch.start(KVSNMP_TALCTL, {"--control", service.folder.filePath("ctl.sock"), "batch", "--answers"});
    batch.write("get /state/sys_messages\n");
    QVERIFY(batch.waitForReadyRead(20000));
    service.end(SIGKILL);
    batch.write("get /state\n");
    QVERIFY(batch.waitForFinished(20000));
    QCOMPARE(batch.exitCode(), 3);
    QCOMPARE(batch.readAllStandardError(), QByteArray("talctl: the service went away\n"));
}

void TestTalctl::waitsForTheService()
{
    Service service;
    QProcess talctl;
    talctl.start(KVSNMP_TALCTL,
                 {"--control", service.folder.filePath("ctl.sock"), "--wait", "20", "get", "/state/fans"});
    QVERIFY(talctl.waitForStarted());
    service.start();
    QVERIFY(talctl.waitForFinished(20000));
    QCOMPARE(talctl.exitCode(), 0);
    const Result late = runProgram(KVSNMP_TALCTL, {"--control", "/nowhere/x", "--wait", "0.2", "get", "/state"});
    QCOMPARE(late.code, 3);
}

void TestTalctl::controlSocketFromTheEnvironment()
{
    Service service;
    service.start();
    QProcess talctl;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TAL_CONTROL", service.folder.filePath("ctl.sock"));
    talctl.setProcessEnvironment(environment);
    talctl.start(KVSNMP_TALCTL, {"get", fanPath});
    QVERIFY(talctl.waitForFinished(20000));
    QCOMPARE(talctl.readAllStandardOutput(), QByteArray("1450\n"));
}

void TestTalctl::valuesMayLookLikeOptions()
{
    Service service;
    service.start();
    for (const char *value : {"-5.0", "--control", "", " two words ", "<xml/>", "it's", "\"\\n"}) {
        const Result set = service.talctl({"set", fanPath, value});
        QVERIFY2(set.code == 0, qPrintable(set.err));
        QCOMPARE(service.talctl({"get", fanPath}).out, *value != '\0' ? QString(value) + '\n' : QString());
    }
}

void TestTalctl::replayKeepsItsTimes()
{
    Service service;
    service.start();
    QElapsedTimer timer;
    timer.start();
    const QByteArray text = "0 set " + fanPath.toUtf8() + " 1 # at once\n0.3 set " + fanPath.toUtf8() + " 2\n0.6 get " +
                            fanPath.toUtf8() + "\n";
    const Result result = service.talctl({"replay", "-"}, text);
    QCOMPARE(result.err, QString());
    QCOMPARE(result.out, QString("2\n"));
    QVERIFY2(timer.elapsed() >= 600, qPrintable(QString::number(timer.elapsed())));

    QFile file(service.folder.filePath("a.replay"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("0 get /state/class_d_amp_status\n") > 0);
    file.close();
    QCOMPARE(service.talctl({"replay", file.fileName()}).out,
             QString("<class_d_amp_status><status>ok</status></class_d_amp_status>\n"));
}

void TestTalctl::replayEndsAtTheFirstFailure()
{
    Service service;
    service.start();
    const Result result = service.talctl(
        {"replay", "-"}, "0 delete /state/fans\n\n0 get /state/fans\n0 delete /state/class_d_amp_status\n");
    QCOMPARE(result.code, 1);
    QCOMPARE(result.err, QString("talctl: line 3: no such node: /state/fans\n"));
    QCOMPARE(service.talctl({"get", "/state/class_d_amp_status/status"}).out, QString("ok\n"));
}

void TestTalctl::replayIsReadBeforeItBegins()
{
    Service service;
    service.start();
    const Result result = service.talctl({"replay", "-"}, "0 delete /state/fans\n0 frob\n");
    QCOMPARE(result.code, 2);
    QCOMPARE(result.err, QString("talctl: standard input, line 2: no such command: frob (talctl --help shows all)\n"));
    QCOMPARE(service.talctl({"get", fanPath}).code, 0);
}

void TestTalctl::batch()
{
    Service service;
    service.start();
    const Result good = service.talctl({"batch"}, "# one\nset " + fanPath.toUtf8() + " 5\n\nget " + fanPath.toUtf8());
    QCOMPARE(good.err, QString());
    QCOMPARE(good.out, QString("5\n"));
    QCOMPARE(good.code, 0);
    const Result bad = service.talctl({"batch"}, "set /state/x 1\nset 'x\nfrob\nget " + fanPath.toUtf8() + "\n");
    QCOMPARE(bad.code, 1);
    QCOMPARE(bad.out, QString("5\n"));
    QCOMPARE(bad.err, QString("talctl: line 1: no such node: /state/x\ntalctl: line 2: a quote is left open\n"
                              "talctl: line 3: no such command: frob (talctl --help shows all)\n"));
    QCOMPARE(service.talctl({"batch"}).code, 0);
}

void TestTalctl::batchAnswersAsItGoes()
{
    Service service;
    service.start();
    QProcess batch;
    batch.start(KVSNMP_TALCTL, {"--control", service.folder.filePath("ctl.sock"), "batch", "--answers"});
    const auto answer = [&](const QByteArray &line) {
        batch.write(line + '\n');
        while (!batch.canReadLine())
            if (!batch.waitForReadyRead(20000))
                return QByteArray("(nothing)");
        return batch.readLine();
    };
    QCOMPARE(answer("get " + fanPath.toUtf8()), QByteArray("{\"code\":0,\"text\":\"1450\"}\n"));
    QCOMPARE(answer("[\"set\",\"/state/x\",\"1\"]"), QByteArray("{\"code\":1,\"text\":\"no such node: /state/x\"}\n"));
    QCOMPARE(answer("fault list"), QByteArray("{\"code\":0,\"text\":\"\"}\n"));
    batch.closeWriteChannel();
    QVERIFY(batch.waitForFinished(20000));
    QCOMPARE(batch.exitCode(), 0);
}

void TestTalctl::batchOfManyFaults()
{
    constexpr int count = 5000;
    Service service;
    service.start();
    QByteArray raise;
    QByteArray clear;
    for (int i = 0; i < count; ++i) {
        raise +=
            "fault raise amp " + QByteArray::number(i) + " fan_not_running crit 'fan " + QByteArray::number(i) + "'\n";
        clear += "fault clear amp " + QByteArray::number(i) + '\n';
    }
    QCOMPARE(service.talctl({"batch"}, raise).code, 0);
    QCOMPARE(service.talctl({"fault", "list"}).out.count('\n'), count);
    QCOMPARE(service.talctl({"batch"}, clear).code, 0);
    QCOMPARE(service.talctl({"fault", "list"}).out, QString());
}

void TestTalctl::serviceTellsThatItIsReady()
{
    Service service;
    const QString gpio = service.folder.filePath("gpio");
    service.start({"--model", "6214", "--gpio-root", gpio});
    QCOMPARE(service.readyLine,
             QString("talservice: ready model 6214 socket %1 control %2 gpio %3 bus none")
                 .arg(service.folder.filePath("tal.sock"), service.folder.filePath("ctl.sock"), gpio));
    QVERIFY(QFile::exists(gpio + "/gpio168/value"));
}

void TestTalctl::serviceOptions_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("out");
    const QString relay = "/state/config/gpos/gpo[kid='relay1']/delay";
    const QString port = "/state/config/snmp_settings/access_control/snmp_port";
    QTest::newRow("a setting") << QStringList{"--set", port + "=1161"} << QStringList{"get", port} << "1161\n";
    QTest::newRow("a setting with a predicate")
        << QStringList{"--set", relay + "=a=b"} << QStringList{"get", relay} << "a=b\n";
    const QString sysName = "/state/config/snmp_settings/mib_2_settings/sys_name";
    QTest::newRow("a bracket and an equals sign in the value")
        << QStringList{"--set", sysName + "=a]['=b"} << QStringList{"get", sysName} << "a]['=b\n";
    QTest::newRow("two settings") << QStringList{"--set", port + "=1", "--set", relay + "=2"}
                                  << QStringList{"get", port} << "1\n";
    QTest::newRow("an empty setting") << QStringList{"--set", relay + "="} << QStringList{"get", relay} << "";
    QTest::newRow("output lines drive") << QStringList{} << QStringList{"gpio", "gpio4", "1"} << "";
    QTest::newRow("trees elsewhere") << QStringList{"--trees", KVSNMP_TREES} << QStringList{"monitor", "status"}
                                     << "down\n";
}

void TestTalctl::serviceOptions()
{
    QFETCH(const QStringList, options);
    QFETCH(const QStringList, words);
    QFETCH(const QString, out);
    Service service;
    service.start(QStringList{"--model", "6211", "--gpio-root", service.folder.filePath("gpio")} + options);
    const Result result = service.talctl(words);
    QCOMPARE(result.err, QString());
    QCOMPARE(result.out, out);
    QVERIFY(service.talctl({"gpio", "list"}).out.contains("gpio4\t171\tgpio171\tout\t"));
}

void TestTalctl::serviceUsage_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("err");
    // clang-format off
    const struct { const char *name; const char *arguments; int code; const char *err; } rows[] = {
        {"no model",             "",                                                2, "talservice: --model is missing (there is a tree for: 6211 6214"},
        {"unknown model",        "--model 1",                                       2, "talservice: no tree for model 1, there is one for:"},
        {"no trees",             "--model 6420 --trees /x",                         2, "talservice: no tree files in /x"},
        {"unknown option",       "--x",                                             2, "talservice: Unknown option 'x'"},
        {"stray word",           "--model 6420 x",                                  2, "talservice: no such argument: x"},
        {"unknown bus",          "--model 6420 --bus x",                            2, "talservice: --bus is"},
        {"unknown lines",        "--model 6420 --gpio-lines x",                     2, "talservice: --gpio-lines is"},
        {"queue of nothing",     "--model 6420 --max-queue 0",                      2, "talservice: --max-queue is"},
        {"setting without path", "--model 6420 --set x",                            2, "talservice: --set x: not PATH=VALUE"},
        {"setting of nothing",   "--model 6420 --set /state/x=1",                   2, "talservice: --set /state/x=1: no such node: /state/x"},
        {"setting with a bracket in a key", "--model 6420 --set /state/fans/fan[kid='a]=b']/x=1", 2,
         "talservice: --set /state/fans/fan[kid='a]=b']/x=1: no such node: /state/fans/fan[kid='a]=b']/x\n"},
        {"no socket",            "--model 6420 --bus none --socket /nowhere/x",     1, "talservice: /nowhere/x: its folder is not there"},
        {"no GPIO tree",         "--model 6211 --bus none --gpio-root /proc/x",     1, "talservice: cannot make the folder /proc/x"},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::newRow(row.name) << row.arguments << row.code << row.err;
}

void TestTalctl::serviceUsage()
{
    QFETCH(const QString, arguments);
    QFETCH(const int, code);
    QFETCH(const QString, err);
    const Result result = runProgram(KVSNMP_TALSERVICE, arguments.split(' ', Qt::SkipEmptyParts));
    QVERIFY2(result.err.startsWith(err), qPrintable(result.err));
    QCOMPARE(result.code, code);
    QCOMPARE(result.out, QString());
    QVERIFY(runProgram(KVSNMP_TALSERVICE, {"--help"}).out.startsWith("usage: talservice --model N [OPTION...]\n"));
}

void TestTalctl::serviceEndsCleanly_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGHUP") << SIGHUP;
}

void TestTalctl::serviceEndsCleanly()
{
    QFETCH(const int, signal);
    Service service;
    service.start();
    QCOMPARE(service.end(signal), 0);
    QVERIFY(!QFile::exists(service.folder.filePath("tal.sock")));
    QVERIFY(!QFile::exists(service.folder.filePath("ctl.sock")));
}

void TestTalctl::serviceTakesOverAfterAKill()
{
    Service service;
    service.start();
    const Result second =
        runProgram(KVSNMP_TALSERVICE, service.sockets() + QStringList{"--bus", "none", "--model", "6420"});
    QCOMPARE(second.code, 1);
    QVERIFY(second.err.endsWith("is served by another program\n"));
    service.end(SIGKILL);
    QVERIFY(QFile::exists(service.folder.filePath("tal.sock")));
    service.start();
    QVERIFY(service.readyLine.startsWith("talservice: ready"));
    QCOMPARE(service.talctl({"get", fanPath}).out, QString("1450\n"));
}

const TestEntry entry("tst_talctl", runTest<TestTalctl>);
#include "tst_talctl.moc"
