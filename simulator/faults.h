// Faults and traps in the tree: system messages and the enabled flags of the trap settings.
#pragma once

#include "simulator/datatree.h"

#include <string>
#include <vector>

namespace simulator {

struct Fault {
    std::string reporter;
    std::string ref;
    std::string id; ///< name of the element in msgdata; may be empty
    std::string level;
    std::string text;
    std::string timestamp;
};

/// Raises the fault; refused if one with that reporter and reference exists, unless `replace` is set.
Refusal raiseFault(DataTree &tree, const Fault &fault, bool replace);
Refusal clearFault(DataTree &tree, const std::string &reporter, const std::string &ref);
std::vector<Fault> faults(const DataTree &tree);

struct TrapSetting {
    std::string name;
    std::string enabled;
};

Refusal enableTrap(DataTree &tree, const std::string &name, bool enabled);
std::vector<TrapSetting> trapSettings(const DataTree &tree);

} // namespace simulator
