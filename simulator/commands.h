// The commands of talctl: their words, their arguments and their help. The service and talctl read the same table.
#pragma once

#include <QString>
#include <QStringList>

namespace simulator {

/// The result of a command; the numbers are talctl's exit codes.
struct Reply {
    enum Code { Done = 0, Refused = 1, Usage = 2, NoService = 3 };

    int code = Done;
    QString text; ///< the output, or the reason of a failure
};

struct Command {
    enum class Place { Service, Client };

    const char *words;     ///< "fault raise"
    const char *arguments; ///< as in the help
    int least;             ///< number of arguments
    int most;
    Place place;      ///< the program that runs it
    const char *help; ///< first line: summary
};

/// The command at the start of the words; null without one.
const Command *commandOf(const QStringList &words);
/// The words after the command.
QStringList argumentsOf(const Command &command, const QStringList &words);
/// The usage line of a command, named by its words.
QString usageOf(const char *words);
/// An empty text if the words are valid, otherwise the error.
QString usageError(const QStringList &words);

/// The output of `talctl --help` and `talctl COMMAND --help`.
QString helpText();
QString helpText(const Command &command);
/// The commands with this first word and a second one; empty without any.
QString groupHelpText(const QString &word);

} // namespace simulator
