// Runs talctl's commands on the parts of the simulated device.
#pragma once

#include "simulator/commands.h"
#include "simulator/datatree.h"

#include <span>

namespace simulator {

class GpioTree;
class Monitor;
class TalServer;

/// The parts of a service. `monitor` and `gpio` are null if it was started without them.
struct Device {
    DataTree &tree;
    TalServer &server;
    Monitor *monitor;
    GpioTree *gpio;
    QString model; ///< its number
};

/// A command's words, as in the table of commands, and its function, called with a valid number of arguments.
struct CommandAction {
    const char *words;
    Reply (*run)(Device &device, const QStringList &arguments);
};

std::span<const CommandAction> treeActions();    ///< get to delete, faults, traps
std::span<const CommandAction> monitorActions(); ///< the amplifier monitor
std::span<const CommandAction> gpioActions();
std::span<const CommandAction> clientActions(); ///< the data service's clients

/// The word of a command that lets it send what the model does not know.
constexpr QLatin1String anyOption("--any", 5); // a constant expression only with its length
/// The refusal of a word that is none of the possible ones.
Reply unknownWord(const QString &kind, const QString &word, const QStringList &possible);

/// Runs one command.
Reply runCommand(Device &device, const QStringList &words);

} // namespace simulator
