// The actions of one input on the sub-agent: each is a byte followed by its parameters.
#pragma once

#include "agentx/input.h"
#include "agentx/master.h"
#include "agentx/names.h"
#include "agentx/oracle.h"
#include "agentx/pdu.h"
#include "agentx/subagent.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The state that lives as long as the process, including the numbers in use.
struct Bench {
    Master &master;
    SubAgent &agent;
    Oracle &oracle;
    std::uint32_t packet = firstUniquePacket;
    std::uint32_t transaction = 1;
};

class Script {
public:
    Script(Bench &bench, std::string_view input);

    /// Runs all actions, then resets the sub-agent for the next input.
    void run();

private:
    void act();
    void askGet(PduType type);
    void askBulk();
    void askMany();
    void set(PduType type);
    void sendBrokenLength();
    void sendAnyPdu();
    void sendResponse();
    void sendTraps();
    void planReplies();
    void pass(std::uint32_t seconds);
    void hangUp();

    Header header(PduType type);
    PduWriter begin(const Header &header);
    PduWriter begin(PduType type) { return begin(header(type)); }
    void deliver(PduWriter &pdu);
    void finishChunk();
    void check();
    void checkTraps();
    void cleanUpSets();
    void settle();

    Bench &m_bench;
    Input m_input;
    Names m_names;
    std::string m_chunk;
    std::uint32_t m_form = 0;
    std::uint32_t m_sets = 0;
    bool m_manyAsked = false;
    std::vector<std::string> m_traps; ///< descriptions of the traps that have to arrive
    std::uint32_t m_trapSession = 0;
};
