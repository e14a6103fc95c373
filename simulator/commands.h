// The commands of talctl: their words, their arguments and their help. The service and talctl read the same table.
#pragma once

#include <QString>
#include <QStringList>

namespace simulator {

/// What a command came to; the numbers are talctl's exit codes.
struct Reply {
    enum Code { Done = 0, Refused = 1, Usage = 2, NoService = 3 };

    int code = Done;
    QString text; ///< output when done, the reason when not
};

struct Command {
    enum class Place { Service, Client };

    const char *words;     ///< "fault raise"
    const char *arguments; ///< as the help shows them
    int least;             ///< number of arguments
    int most;
    Place place;      ///< who carries it out
    const char *help; ///< first line: summary
};

/// The command that the words begin with; null when there is none.
const Command *commandOf(const QStringList &words);
/// The words behind the command's own.
QStringList argumentsOf(const Command &command, const QStringList &words);
/// The usage line of a command, named by its words.
QString usageOf(const char *words);
/// An empty text when the service can be asked, else what is wrong with the words.
QString usageError(const QStringList &words);

/// What `talctl --help` and `talctl COMMAND --help` print.
QString helpText();
QString helpText(const Command &command);
/// The commands that begin with this word and go on with another; nothing when there are none.
QString groupHelpText(const QString &word);

} // namespace simulator
