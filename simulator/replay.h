// Replays: commands with their times.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace simulator {

struct TimedCommand {
    int line;       ///< in the file, from 1
    double seconds; ///< since the start of the replay
    QStringList words;
};

/// Reads a whole replay. Nothing, with the line number in `error`, if a line is wrong.
std::optional<std::vector<TimedCommand>> readReplay(const QString &text, QString &error);

} // namespace simulator
