// Carries out talctl's commands on the parts of the simulated device.
#pragma once

#include "simulator/commands.h"
#include "simulator/datatree.h"

#include <span>

namespace simulator {

class GpioTree;
class Monitor;
class TalServer;

/// What a service consists of. `monitor` and `gpio` are null when it was started without them.
struct Device {
    DataTree &tree;
    TalServer &server;
    Monitor *monitor;
    GpioTree *gpio;
};

/// A command's words, as in the table of commands, and what carries it out; the number of arguments has been checked.
struct CommandAction {
    const char *words;
    Reply (*run)(Device &device, const QStringList &arguments);
};

std::span<const CommandAction> treeActions();    ///< get to delete, faults, traps
std::span<const CommandAction> monitorActions(); ///< the amplifier monitor
std::span<const CommandAction> gpioActions();
std::span<const CommandAction> clientActions(); ///< the data service's clients

/// Carries out one command.
Reply runCommand(Device &device, const QStringList &words);

} // namespace simulator
