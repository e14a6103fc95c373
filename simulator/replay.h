// Replays: commands with their times. A scenario is a replay that comes with the simulator.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace simulator {

struct TimedCommand {
    int line;           ///< in the file, from 1
    double seconds;     ///< since the start of the replay
    QStringList models; ///< that run it; empty: all
    QStringList words;
};

struct Replay {
    QStringList models; ///< that can run it, from the comment "# Models:"; empty: all
    std::vector<TimedCommand> commands;
};

/// Reads a whole replay. Nothing, with the line number in `error`, if a line is wrong.
std::optional<Replay> readReplay(const QString &text, QString &error);

} // namespace simulator
