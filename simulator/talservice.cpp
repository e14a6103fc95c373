// talservice: simulates the other side of a device's interfaces. It serves the data tree of one model, simulates the
// amplifier monitor and the GPIO lines, and runs talctl's commands.
#include "simulator/controlserver.h"
#include "simulator/gpiotree.h"
#include "simulator/messages.h"
#include "simulator/monitor.h"
#include "simulator/talserver.h"
#include "simulator/treefiles.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <memory>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace simulator;

namespace {

enum ExitCode { Ended = 0, CannotServe = 1, WrongUsage = 2 };

int fail(ExitCode code, const QString &text)
{
    say(text);
    return code;
}

/// SIGTERM, SIGINT and SIGHUP end the event loop, so that the sockets are removed.
void endOnSignals(QCoreApplication &application)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, &application);
    QObject::connect(notifier, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
}

/// Applies one PATH=VALUE; ignores the '=' of a predicate and brackets inside quotes.
Refusal applySetting(DataTree &tree, const QString &setting)
{
    bool inPredicate = false;
    QChar quote;
    for (int i = 0; i < setting.size(); ++i) {
        const QChar c = setting[i];
        if (!quote.isNull())
            quote = c == quote ? QChar() : quote;
        else if (inPredicate && (c == QLatin1Char('\'') || c == QLatin1Char('"')))
            quote = c;
        else if (c == QLatin1Char('[') || c == QLatin1Char(']'))
            inPredicate = c == QLatin1Char('[');
        else if (c == QLatin1Char('=') && !inPredicate)
            return tree.set(setting.left(i).toStdString(), setting.mid(i + 1).toStdString());
    }
    return "not PATH=VALUE";
}

/// The device drives a line that the tree configures as a control output.
void setOutputs(GpioTree &gpio, const DataTree &tree)
{
    for (const pugi::xml_node node : tree.select({{"state", {}}, {"config", {}}, {"gpios", {}}, {"gpio", {}}}))
        if (std::string_view(node.child_value("gpio_type")) == "gpo")
            gpio.setOutput(QString::fromUtf8(node.child_value("kid")));
}

struct Options {
    QString model;
    QString trees;
    QString socket;
    QString control;
    QString gpioRoot;
    QString gpioLines;
    QString bus;
    QStringList settings;
};

// clang-format off
constexpr char usageText[] =
    "usage: talservice --model N [OPTION...]\n"
    "\n"
    "Simulates the other side of a device's interfaces: the data service, the amplifier monitor on the message bus and\n"
    "the GPIO lines. talctl controls it. It prints one line that begins with \"talservice: ready\" when it is ready;\n"
    "everything else goes to standard error.\n"
    "\n"
    "  --model N           model number, e.g. 6420\n"
    "  --trees DIR         folder of the tree files (default: ../share/kvsnmp-simulator/trees from the program's folder)\n"
    "  --socket PATH       socket of the data service (default: TAL_SOCKET, else /var/run/tal.sock)\n"
    "  --control PATH      socket for talctl (default: TAL_CONTROL, else /var/run/talctl.sock)\n"
    "  --gpio-root DIR     create a GPIO tree in this folder (default: none)\n"
    "  --gpio-lines WHICH  lines of the GPIO tree at start: exported (default), or none, so that each only appears\n"
    "                      when its number is written to the file export\n"
    "  --bus BUS           message bus of the amplifier monitor: system (default), session or none\n"
    "  --set PATH=VALUE    change a leaf of the tree at the start; can be repeated\n"
    "  --help              this text\n"
    "  --version           print the version\n"
    "\n"
    "Exit codes: 0 ended by a signal, 1 cannot start, 2 wrong usage.\n";
// clang-format on

QString withHelpHint(QString error)
{
    if (error.endsWith(QLatin1Char('.')))
        error.chop(1);
    return error + QStringLiteral(" (talservice --help shows all)");
}

/// An empty text if the options are valid, otherwise the error.
QString readOptions(const QStringList &arguments, Options &options)
{
    const auto option = [](const char *name, const QString &defaultValue = {}) {
        return QCommandLineOption(QLatin1String(name), {}, QStringLiteral("VALUE"), defaultValue);
    };
    QCommandLineParser parser;
    parser.addOptions({
        option("model"),
        option("trees", defaultTreesFolder()),
        option("socket", qEnvironmentVariable("TAL_SOCKET", QStringLiteral("/var/run/tal.sock"))),
        option("control", qEnvironmentVariable("TAL_CONTROL", QStringLiteral("/var/run/talctl.sock"))),
        option("gpio-root"),
        option("gpio-lines", QStringLiteral("exported")),
        option("bus", QStringLiteral("system")),
        option("set"),
    });
    if (!parser.parse(arguments))
        return withHelpHint(parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        return withHelpHint(QStringLiteral("no such argument: %1").arg(parser.positionalArguments().first()));

    options.model = parser.value(QStringLiteral("model"));
    options.trees = parser.value(QStringLiteral("trees"));
    options.socket = parser.value(QStringLiteral("socket"));
    options.control = parser.value(QStringLiteral("control"));
    options.gpioRoot = parser.value(QStringLiteral("gpio-root"));
    options.gpioLines = parser.value(QStringLiteral("gpio-lines"));
    options.bus = parser.value(QStringLiteral("bus"));
    options.settings = parser.values(QStringLiteral("set"));
    if (options.model.isEmpty())
        return QStringLiteral("--model is missing (there is a tree for: %1)")
            .arg(modelsIn(options.trees).join(QLatin1Char(' ')));
    if (!QStringList{QStringLiteral("exported"), QStringLiteral("none")}.contains(options.gpioLines))
        return QStringLiteral("--gpio-lines is exported or none");
    if (!QStringList{QStringLiteral("system"), QStringLiteral("session"), QStringLiteral("none")}.contains(options.bus))
        return QStringLiteral("--bus is system, session or none");
    return {};
}

} // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        std::fputs(usageText, stdout);
        return Ended;
    }
    if (arguments.contains(QStringLiteral("--version"))) {
        std::printf("talservice %s\n", KVSNMP_VERSION);
        return Ended;
    }

    Options options;
    QString error = readOptions(arguments, options);
    if (!error.isEmpty())
        return fail(WrongUsage, error);

    DataTree tree;
    if (const Refusal refusal = loadModel(options.trees, options.model, tree))
        return fail(WrongUsage, QString::fromStdString(*refusal));
    for (const QString &setting : options.settings)
        if (const Refusal refusal = applySetting(tree, setting))
            return fail(WrongUsage, QStringLiteral("--set %1: %2").arg(setting, QString::fromStdString(*refusal)));

    endOnSignals(application);
    std::unique_ptr<GpioTree> gpio;
    if (!options.gpioRoot.isEmpty()) {
        gpio = std::make_unique<GpioTree>(nullptr, options.gpioRoot, options.model.toUInt());
        setOutputs(*gpio, tree);
        if (!gpio->start(options.gpioLines == QLatin1String("exported"), error))
            return fail(CannotServe, error);
    }
    std::unique_ptr<Monitor> monitor;
    if (options.bus != QLatin1String("none")) {
        monitor = std::make_unique<Monitor>(nullptr, options.bus == QLatin1String("session") ? Monitor::Bus::Session
                                                                                             : Monitor::Bus::System);
        monitor->setChannels(ampChannelsOf(tree));
        monitor->start();
    }
    TalServer server(nullptr, tree);
    if (monitor)
        QObject::connect(&server, &TalServer::subscribed, monitor.get(), &Monitor::announceChannelsSoon);
    Device device{tree, server, monitor.get(), gpio.get(), options.model};
    ControlServer controlServer(nullptr, device);
    if (!server.listen(options.socket, error) || !controlServer.listen(options.control, error))
        return fail(CannotServe, error);

    std::printf("talservice: ready model %s socket %s control %s gpio %s bus %s\n", qUtf8Printable(options.model),
                qUtf8Printable(options.socket), qUtf8Printable(options.control),
                options.gpioRoot.isEmpty() ? "none" : qUtf8Printable(options.gpioRoot), qUtf8Printable(options.bus));
    return QCoreApplication::exec();
}
