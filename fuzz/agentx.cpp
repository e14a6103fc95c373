// The whole agent against a master that sends anything: AgentX PDUs whole, split, joined and broken, over a
// socket. Each answer has to be what the same name gets alone (agentx/oracle.h); an input is a list of actions
// (agentx/script.h).
//
// KVSNMP_FUZZ_DEVICE names the device, as the agent starts once in a process: a model number, "6420" unless set, with a
// "+" behind it for a station with expanders. With KVSNMP_FUZZ_TRACE set the PDUs go to standard error.
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
