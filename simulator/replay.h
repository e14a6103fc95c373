// Replays: commands with the times at which they are carried out.
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

/// Reads a whole replay. Nothing when a line is wrong; `error` then names it by its number.
std::optional<std::vector<TimedCommand>> readReplay(const QString &text, QString &error);

} // namespace simulator
