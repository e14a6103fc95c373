// The commands of talctl.
#include "simulator/commands.h"

#include <iterator>

namespace simulator {

namespace {

constexpr auto service = Command::Place::Service;
constexpr auto client = Command::Place::Client;

// clang-format off
constexpr Command commands[] = {
    {"get", "PATH", 1, 1, service,
     "print the text of a leaf, or the XML of a node, one element a line\n"
     "If the path matches several nodes, prints a line for each: its path, a tab, its text or XML."},
    {"set", "PATH VALUE", 2, 2, service,
     "set the text of a leaf\n"
     "Refused if the leaf does not exist. An unchanged text is not sent to the clients."},
    {"create", "PATH XML", 2, 2, service,
     "create a node\n"
     "XML is the node, e.g. create \"/state/fans/fan[kid='fan3']\" '<fan><speed_sensor_rpm>0</speed_sensor_rpm></fan>'.\n"
     "List keys may be in the path, in the XML or in both. Refused if the node exists or its parent does not."},
    {"replace", "PATH XML", 2, 2, service,
     "replace a whole node\n"
     "Refused if it does not exist."},
    {"patch", "PATH XML", 2, 2, service,
     "merge XML into a node, list nodes by their keys\n"
     "Creates missing nodes and changes different ones; nodes that the XML does not name stay. Each changed node is sent\n"
     "separately."},
    {"delete", "PATH", 1, 1, service,
     "remove a node and everything below it\n"
     "Refused if it does not exist, or if the path matches more than one."},
    {"fault raise", "REPORTER REF ID LEVEL TEXT [--timestamp TIME] [--replace] [--any]", 5, 9, service,
     "raise a fault: create its system message\n"
     "ID is the message identifier, e.g. fan_not_running (\"\" for none). LEVEL: emerg, alert, crit, err, warning, notice,\n"
     "info, debug; with --any, any other text. TIME is the message's time text, by default the seconds since 1970. Refused\n"
     "if REPORTER already has a message REF, unless --replace is given."},
    {"fault clear", "REPORTER REF", 2, 2, service,
     "end a fault: remove its system message\n"
     "Refused if it does not exist."},
    {"fault list", "", 0, 0, service,
     "print the faults, one per line: reporter, ref, id, level, time, text, separated by tabs"},
    {"trap enable", "NAME", 1, 1, service,
     "enable a trap, e.g. trap enable 'LET Fault'"},
    {"trap disable", "NAME", 1, 1, service,
     "disable a trap"},
    {"trap list", "", 0, 0, service,
     "print the traps, one per line: name, a tab, true or false"},
    {"monitor gpo", "ID STATE [SYSTEMSTATE]", 2, 3, service,
     "the amplifier monitor announces a control output\n"
     "ID counts from 0. STATE: ok_cleared, ok_set, fail_cleared, fail_set; any text is sent unchanged. SYSTEMSTATE is the\n"
     "same as STATE by default."},
    {"monitor gpi", "ID STATE", 2, 2, service,
     "the amplifier monitor announces a control input\n"
     "ID counts from 0. STATE: ok_open, ok_closed, fail_shorted, fail_unconnected; any text is sent unchanged."},
    {"monitor amp", "CHANNEL STATUS [--any]", 2, 3, service,
     "the amplifier monitor announces an amplifier channel's status\n"
     "CHANNEL counts from 0. STATUS is 1 for out of order or 2 for in operation. At first each channel of the model is in\n"
     "operation; the last status is announced again to a daemon that starts. With --any also a channel that the model\n"
     "does not have."},
    {"monitor let", "CHANNEL LET PRESENCE [--any]", 3, 4, service,
     "the amplifier monitor announces the presence of a line end transponder\n"
     "The three numbers are sent in this order. CHANNEL counts from 0, LET from 1; PRESENCE is 1 or 2. With --any also\n"
     "those that the model does not have."},
    {"monitor power", "CH1 CH2", 2, 2, service,
     "the amplifier monitor announces the power consumption of both channels"},
    {"monitor status", "", 0, 0, service,
     "print up if the amplifier monitor is on the message bus, otherwise down"},
    {"gpio list", "", 0, 0, service,
     "print the GPIO lines, one per line: name, number, folder, direction, level, separated by tabs\n"
     "The number is the device's; the folder is gpioN, where N is another number for a line of an expander. Direction\n"
     "and level are read from the files; the level is 0, 1, unreadable, or missing for a line that is not exported."},
    {"gpio remove", "", 0, 0, service,
     "remove the whole GPIO tree"},
    {"gpio restore", "", 0, 0, service,
     "restore the whole GPIO tree, with its last lines and levels"},
    {"gpio export", "LINE", 1, 1, service,
     "create the folder of a line, like writing its number to the file export"},
    {"gpio unexport", "LINE", 1, 1, service,
     "remove the folder of a line"},
    {"gpio", "LINE 0|1|unreadable", 2, 2, service,
     "set the level of a GPIO line, or make it fail\n"
     "LINE is a name of gpio list, e.g. gpio3, relay1 or e_relay8, or the line's number. The value of an unreadable line\n"
     "is neither 0 nor 1 for any reader."},
    {"model", "", 0, 0, service,
     "print the number of the device's model"},
    {"clients", "", 0, 0, service,
     "print the data service's clients, one per line: number, subscriptions, unread bytes, separated by tabs"},
    {"clients drop", "", 0, 0, service,
     "close the connections of all clients"},
    {"subscriptions", "", 0, 0, service,
     "print the subscriptions in the order of their creation: client, ref, path, separated by tabs"},
    {"replay", "FILE [--speed FACTOR]", 1, 3, client,
     "run the commands of a file, each at its time\n"
     "A line is SECONDS COMMAND...: the seconds since the start, never less than on the line before, and a command as\n"
     "below, e.g. 2.5 set /state/fans/fan[kid='amp_power']/speed_sensor_rpm 900. Quote words with blanks; a # starts a\n"
     "comment. The whole file is read before the first command is sent; the first failure ends the replay. FILE may be -\n"
     "for standard input. Models and a colon before a command limit it to these models: 2.5 6420,6764: set ... A comment\n"
     "# Models: 6420 6764 limits the whole file. With --speed 10 it takes a tenth of the time."},
    {"scenario", "[NAME [--speed FACTOR]]", 0, 3, client,
     "replay a scenario that comes with the simulator\n"
     "Without a name prints the scenarios, one per line: name, a tab, what happens. The first lines of its file, in the\n"
     "folder share/kvsnmp-simulator/scenarios, describe it. With --speed 10 it takes a tenth of the time."},
    {"batch", "", 0, 0, client,
     "run the commands on standard input, one per line, over one connection\n"
     "Runs all lines and reports failures with their line numbers; the exit code is then 1. A line consists of words as in\n"
     "a replay, or is a JSON list of texts."},
};
// clang-format on

QString summaryOf(const Command &command)
{
    return QString::fromLatin1(command.help).section(QLatin1Char('\n'), 0, 0);
}

/// The command's words and arguments.
QString synopsisOf(const Command &command)
{
    return QStringLiteral("%1 %2").arg(QLatin1String(command.words), QLatin1String(command.arguments)).trimmed();
}

QString listEntry(const Command &command)
{
    return QStringLiteral("  %1\n      %2\n").arg(synopsisOf(command), summaryOf(command));
}

} // namespace

const Command *commandOf(const QStringList &words)
{
    const Command *found = nullptr;
    int length = 0;
    for (const Command &command : commands) { // the longest match: "gpio list" before "gpio"
        const QStringList own = QString::fromLatin1(command.words).split(QLatin1Char(' '));
        if (own.size() > length && words.mid(0, own.size()) == own) {
            found = &command;
            length = own.size();
        }
    }
    return found;
}

QStringList argumentsOf(const Command &command, const QStringList &words)
{
    return words.mid(QString::fromLatin1(command.words).count(QLatin1Char(' ')) + 1);
}

QString usageOf(const char *words)
{
    return QStringLiteral("usage: talctl %1")
        .arg(synopsisOf(*commandOf(QString::fromLatin1(words).split(QLatin1Char(' ')))));
}

QString usageError(const QStringList &words)
{
    const Command *command = commandOf(words);
    if (command == nullptr) {
        const QString group = groupHelpText(words.value(0));
        if (words.size() == 1 && !group.isEmpty())
            return group.trimmed();
        return QStringLiteral("no such command: %1 (talctl %2--help shows all)")
            .arg(words.mid(0, 2).join(QLatin1Char(' ')),
                 group.isEmpty() ? QString() : words.value(0) + QLatin1Char(' '));
    }
    const int count = argumentsOf(*command, words).size();
    if (count < command->least || count > command->most)
        return usageOf(command->words);
    return {};
}

QString helpText()
{
    QString text =
        QStringLiteral("usage: talctl [--control PATH] [--wait SECONDS] COMMAND [ARGUMENT...]\n"
                       "\n"
                       "Sends commands to a running talservice. A command returns when its changes have been delivered "
                       "to the data\n"
                       "service's clients, except slow ones.\n"
                       "\n"
                       "  --control PATH   control socket (default: TAL_CONTROL, else /var/run/talctl.sock)\n"
                       "  --wait SECONDS   wait this long for the service to start\n"
                       "  --help           this text; talctl COMMAND --help describes one command\n"
                       "  --version        print the version\n"
                       "\n"
                       "Commands:\n");
    for (const Command &command : commands)
        text += listEntry(command);
    text += QStringLiteral("\n"
                           "Exit codes: 0 success, 1 refused by the service, 2 wrong usage, 3 no service.\n");
    return text;
}

QString groupHelpText(const QString &word)
{
    QString text;
    for (const Command &command : commands)
        if (QString::fromLatin1(command.words).startsWith(word + QLatin1Char(' ')))
            text += listEntry(command);
    return text.isEmpty() ? text : QStringLiteral("usage: talctl %1 ...\n\n%2").arg(word, text);
}

QString helpText(const Command &command)
{
    return QStringLiteral("%1\n\n%2\n").arg(usageOf(command.words), QLatin1String(command.help));
}

} // namespace simulator
