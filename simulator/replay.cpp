// Replays.
#include "simulator/replay.h"

#include "simulator/commands.h"
#include "simulator/words.h"

#include <QRegularExpression>

namespace simulator {

namespace {

constexpr double maxSeconds = 1e9; // longer than any replay, and short enough for every clock

/// Removes the models before a command, as in "6420,6764: get /state". Empty without them.
QStringList takeModels(QStringList &words)
{
    static const QRegularExpression models(QStringLiteral("^[0-9]+(,[0-9]+)*:$"));
    if (words.isEmpty() || !models.match(words.first()).hasMatch())
        return {};
    return words.takeFirst().chopped(1).split(QLatin1Char(','));
}

/// The models in a comment; empty if it is another comment, or names all.
QStringList modelsInComment(const QString &line)
{
    const QString label = QStringLiteral("# Models: ");
    const QStringList models =
        line.startsWith(label) ? line.mid(label.size()).split(QLatin1Char(' '), Qt::SkipEmptyParts) : QStringList();
    return models.contains(QStringLiteral("all")) ? QStringList() : models;
}

/// The error in the words of one line, which begin with the time; empty without one.
QString lineError(const QStringList &words, double seconds, bool isNumber, double lastSeconds)
{
    if (!isNumber || !(seconds >= 0 && seconds <= maxSeconds)) // a NaN is neither
        return QStringLiteral("a line begins with the seconds since the start");
    if (seconds < lastSeconds)
        return QStringLiteral("earlier than the line before");
    if (words.isEmpty())
        return QStringLiteral("no command");
    const Command *command = commandOf(words);
    if (command != nullptr && command->place == Command::Place::Client)
        return QStringLiteral("%1 has no place in a replay").arg(words.first());
    return usageError(words);
}

} // namespace

std::optional<Replay> readReplay(const QString &text, QString &error)
{
    Replay replay;
    double lastSeconds = 0;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines[i].simplified().isEmpty() ? QString() : lines[i].trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            replay.models += modelsInComment(line);
            continue;
        }
        int blank = 0;
        while (blank < line.size() && !line[blank].isSpace())
            ++blank;
        bool isNumber = false;
        const double seconds = line.left(blank).toDouble(&isNumber);
        std::optional<QStringList> words = splitWords(line.mid(blank), error);
        const QStringList models = words ? takeModels(*words) : QStringList();
        if (words)
            error = lineError(*words, seconds, isNumber, lastSeconds);
        if (!error.isEmpty()) {
            error = QStringLiteral("line %1: %2").arg(i + 1).arg(error);
            return std::nullopt;
        }
        lastSeconds = seconds;
        replay.commands.push_back({i + 1, seconds, models, *words});
    }
    return replay;
}

} // namespace simulator
