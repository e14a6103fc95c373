// talctl: sends commands to a running talservice.
#include "simulator/controlclient.h"
#include "simulator/replay.h"
#include "simulator/words.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <cmath>
#include <cstdio>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace simulator;

namespace {

void print(const QString &text)
{
    if (!text.isEmpty())
        std::printf("%s\n", qUtf8Printable(text));
}

int fail(int code, const QString &text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "talctl: %s\n", qUtf8Printable(text));
    return code;
}

int serviceWent()
{
    return fail(Reply::NoService, QStringLiteral("the service went away"));
}

/// Sends one command and prints the reply.
int runOne(ControlClient &client, const QStringList &words, const QString &failurePrefix = {})
{
    const std::optional<Reply> reply = client.send(words) ? client.receive() : std::nullopt;
    if (!reply)
        return serviceWent();
    if (reply->code != Reply::Done)
        return fail(reply->code, failurePrefix + reply->text);
    print(reply->text);
    return Reply::Done;
}

int runReplay(ControlClient &client, const Replay &replay, double speed)
{
    const std::optional<Reply> reply = client.send({QStringLiteral("model")}) ? client.receive() : std::nullopt;
    if (!reply)
        return serviceWent();
    const QString &model = reply->text;
    if (!replay.models.isEmpty() && !replay.models.contains(model))
        return fail(Reply::Refused,
                    QStringLiteral("not for model %1, only for: %2").arg(model, replay.models.join(QLatin1Char(' '))));
    QElapsedTimer timer;
    timer.start();
    for (const TimedCommand &command : replay.commands) {
        if (!command.models.isEmpty() && !command.models.contains(model))
            continue;
        const std::chrono::duration<double> wait(command.seconds / speed -
                                                 static_cast<double>(timer.nsecsElapsed()) * 1e-9);
        if (wait.count() > 0)
            std::this_thread::sleep_for(wait);
        if (const int code = runOne(client, command.words, QStringLiteral("line %1: ").arg(command.line)))
            return code;
        std::fflush(stdout);
    }
    return Reply::Done;
}

/// Commands from standard input, many in flight at a time.
class Batch {
public:
    explicit Batch(ControlClient &client) : m_client(client) {}

    int run()
    {
        constexpr int mostUnderWay = 1000;
        while (!m_ended || m_sent > m_answered) {
            pollfd descriptors[] = {{m_client.descriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
            const bool reads = !m_ended && m_sent - m_answered < mostUnderWay;
            if (::poll(descriptors, reads ? 2 : 1, -1) < 0)
                continue;
            if (descriptors[0].revents != 0 && !takeReplies())
                return serviceWent();
            if (reads && descriptors[1].revents != 0 && !sendLines())
                return serviceWent();
        }
        return m_failed > 0 ? static_cast<int>(Reply::Refused) : static_cast<int>(Reply::Done);
    }

private:
    bool takeReplies()
    {
        const bool read = m_client.read();
        while (const std::optional<Reply> reply = m_client.takeReceived())
            report(*reply);
        std::fflush(stdout);
        return read;
    }

    void report(const Reply &reply)
    {
        ++m_answered;
        m_failed += reply.code != Reply::Done ? 1 : 0;
        if (reply.code != Reply::Done)
            fail(reply.code, QStringLiteral("line %1: %2").arg(m_lineOf[m_answered - 1]).arg(reply.text));
        else
            print(reply.text);
    }

    bool sendLines()
    {
        char bytes[64 * 1024];
        const ssize_t size = ::read(STDIN_FILENO, bytes, sizeof bytes);
        m_ended = size <= 0;
        m_input.append(bytes, m_ended ? 0 : static_cast<int>(size));
        if (m_ended && !m_input.isEmpty())
            m_input.append('\n');
        int start = 0;
        for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n', start)) {
            if (!sendLine(m_input.mid(start, end - start)))
                return false;
            start = end + 1;
        }
        m_input.remove(0, start);
        return true;
    }

    bool sendLine(const QByteArray &line)
    {
        ++m_line;
        QString error;
        const std::optional<QStringList> words = splitWords(QString::fromUtf8(line), error);
        if (words && words->isEmpty())
            return true; // blank, or a comment
        m_lineOf.push_back(m_line);
        ++m_sent;
        return m_client.sendLine(line); // also a malformed one, so that the answers stay in order
    }

    ControlClient &m_client;
    bool m_ended = false;
    QByteArray m_input;
    int m_line = 0;
    std::vector<int> m_lineOf; // line numbers of the commands, in the order of sending
    std::size_t m_sent = 0;
    std::size_t m_answered = 0;
    int m_failed = 0;
};

struct Options {
    QString control;
    double waitSeconds = 0;
    bool help = false;
    bool version = false;
    QStringList words;
};

/// Reads the options before the command. False, with the reason in `error`, for a wrong one.
bool readOptions(const QStringList &arguments, Options &options, QString &error)
{
    const QCommandLineOption control(QStringLiteral("control"), {}, QStringLiteral("PATH"),
                                     qEnvironmentVariable("TAL_CONTROL", QStringLiteral("/var/run/talctl.sock")));
    const QCommandLineOption wait(QStringLiteral("wait"), {}, QStringLiteral("SECONDS"), QStringLiteral("0"));
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption version(QStringLiteral("version"));
    QCommandLineParser parser;
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    parser.addOptions({control, wait, help, version});
    if (!parser.parse(arguments)) {
        error = parser.errorText();
        if (error.endsWith(QLatin1Char('.')))
            error.chop(1);
        error += QStringLiteral(" (talctl --help shows all)");
        return false;
    }
    bool isNumber = false;
    options.control = parser.value(control);
    options.waitSeconds = parser.value(wait).toDouble(&isNumber);
    options.help = parser.isSet(help);
    options.version = parser.isSet(version);
    options.words = parser.positionalArguments();
    if (!isNumber || !std::isfinite(options.waitSeconds) || options.waitSeconds < 0) {
        error = QStringLiteral("--wait needs a number of seconds");
        return false;
    }
    return true;
}

/// True if help or the version was requested and printed.
bool printedAbout(const Options &options)
{
    if (options.version) {
        std::printf("talctl %s\n", KVSNMP_VERSION);
        return true;
    }
    const Command *command = commandOf(options.words);
    const QStringList rest = command != nullptr ? argumentsOf(*command, options.words) : options.words.mid(1);
    if (!options.help && rest.value(0) != QLatin1String("--help"))
        return false;
    const QString group = groupHelpText(options.words.value(0));
    QString text = helpText();
    if (command != nullptr)
        text = helpText(*command);
    else if (!options.words.isEmpty())
        text = group;
    std::fputs(qUtf8Printable(text), stdout);
    return !text.isEmpty();
}

/// Removes --speed from the words. Nothing, with the reason in `error`, if the rest is no usage of their command.
std::optional<double> takeSpeed(QStringList &words, QString &error)
{
    double speed = 1;
    bool isNumber = true;
    if (const int option = words.indexOf(QStringLiteral("--speed")); option > 0) {
        speed = words.value(option + 1).toDouble(&isNumber);
        words = words.mid(0, option) + words.mid(option + 2);
    }
    if (!isNumber || !(speed > 0) || !std::isfinite(speed))
        error = QStringLiteral("--speed needs a number above 0");
    else if (words.size() > 2 || (words.size() < 2 && words.first() != QLatin1String("scenario")))
        error = usageOf(words.first().toLatin1().constData());
    return error.isEmpty() ? std::optional(speed) : std::nullopt;
}

/// The scenarios in the folder beside this program's, ascending.
QFileInfoList scenarios()
{
    const QDir folder(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/kvsnmp-simulator/scenarios"));
    return folder.entryInfoList({QStringLiteral("*.tal")}, QDir::Files, QDir::Name);
}

/// Prints the names, and the first line of each file.
int listScenarios()
{
    const QFileInfoList list = scenarios();
    for (const QFileInfo &scenario : list) {
        QFile file(scenario.filePath());
        if (!file.open(QIODevice::ReadOnly))
            return fail(Reply::Refused, QStringLiteral("%1: %2").arg(file.fileName(), file.errorString()));
        print(scenario.baseName() + QLatin1Char('\t') + QString::fromUtf8(file.readLine()).mid(1).trimmed());
    }
    return Reply::Done;
}

/// The file of a scenario. Empty, with the reason in `error`, if there is none.
QString scenarioFile(const QString &name, QString &error)
{
    QStringList names;
    const QFileInfoList list = scenarios();
    for (const QFileInfo &scenario : list) {
        if (scenario.baseName() == name)
            return scenario.filePath();
        names += scenario.baseName();
    }
    error = QStringLiteral("no such scenario: %1 (possible: %2)").arg(name, names.join(QLatin1Char(' ')));
    return {};
}

bool readReplayFile(const QString &name, Replay &replay, QString &error)
{
    QFile file(name);
    const bool open =
        name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!open) {
        error = QStringLiteral("%1: %2").arg(name, file.errorString());
        return false;
    }
    std::optional<Replay> read = readReplay(QString::fromUtf8(file.readAll()), error);
    if (!read) {
        error =
            QStringLiteral("%1, %2").arg(name == QLatin1String("-") ? QStringLiteral("standard input") : name, error);
        return false;
    }
    replay = std::move(*read);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    Options options;
    QString error;
    if (!readOptions(QCoreApplication::arguments(), options, error))
        return fail(Reply::Usage, error);
    if (printedAbout(options))
        return Reply::Done;
    if (options.words.isEmpty())
        return fail(Reply::Usage, QStringLiteral("no command (talctl --help shows all)"));
    error = usageError(options.words);
    if (!error.isEmpty())
        return fail(Reply::Usage, error);

    const bool isScenario = options.words.first() == QLatin1String("scenario");
    const bool replays = isScenario || options.words.first() == QLatin1String("replay");
    const bool isBatch = options.words.first() == QLatin1String("batch");
    const std::optional<double> speed = replays ? takeSpeed(options.words, error) : 1;
    if (!speed)
        return fail(Reply::Usage, error);
    if (isScenario && options.words.size() == 1)
        return listScenarios();
    const QString file = isScenario ? scenarioFile(options.words[1], error) : options.words.value(1);
    Replay replay;
    if (replays && (!error.isEmpty() || !readReplayFile(file, replay, error)))
        return fail(Reply::Usage, error);

    ControlClient client;
    if (!client.connectTo(options.control, options.waitSeconds, error))
        return fail(Reply::NoService, error);
    if (isBatch)
        return Batch(client).run();
    return replays ? runReplay(client, replay, *speed) : runOne(client, options.words);
}
