// The whole agent with a master that sends anything: AgentX PDUs whole, split, joined and broken, over a
// socket. Each answer has to equal the answer to the same name alone (agentx/oracle.h). An input is a list of actions
// (agentx/script.h).
//
// KVSNMP_FUZZ_DEVICE selects the device, because the agent starts once in a process: a model number, by default "6420",
// followed by a "+" for a station with expanders. With KVSNMP_FUZZ_TRACE set the PDUs are printed to standard error.
#include "support.h"

#include "agentx/master.h"
#include "agentx/oracle.h"
#include "agentx/script.h"
#include "agentx/subagent.h"

#include <cstdlib>

namespace {
std::string_view device()
{
    const char *name = std::getenv("KVSNMP_FUZZ_DEVICE");
    return name != nullptr ? name : "6420";
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const PrivateFolder folder;
    static Master master(folder.file("master"));
    static SubAgent agent(device(), folder.path(), master);
    static Oracle oracle(agent, master);
    static Bench bench{master, agent, oracle};
    Script(bench, viewOf(data, size)).run();
    return 0;
}
