// The required answers of the sub-agent: those of a complete walk, and for each name of a PDU the answer to that name
// alone.
#pragma once

#include "agentx/master.h"
#include "agentx/pdu.h"
#include "agentx/subagent.h"

#include <map>
#include <set>
#include <vector>

class Oracle {
public:
    /// Walks the whole sub-agent.
    Oracle(SubAgent &agent, Master &master);

    /// The names of the walk, ascending.
    const std::vector<Name> &served() const { return m_served; }

    /// Checks and removes the master's recorded requests.
    void check();

    /// Values may have changed: names are requested again.
    void forget() { m_alone.clear(); }

private:
    struct Question {
        PduType type;
        bool include;
        Name name;

        auto operator<=>(const Question &) const = default;
    };

    void askAlone(const std::vector<Asked> &asked);
    const Pdu &alone(PduType type, const Name &name, bool include = false) const;
    Varbind next(const Name &name, bool include) const;

    void check(const Asked &asked) const;
    bool mayFail(const Pdu &get) const;
    void checkGet(const Asked &asked) const;
    void checkGetNext(const Asked &asked) const;
    void checkGetBulk(const Asked &asked) const;
    void checkTestSet(const Asked &asked) const;

    SubAgent &m_agent;
    Master &m_master;
    std::vector<Name> m_served;
    std::map<Question, Pdu> m_alone;
    std::uint32_t m_packet = 0x70000000;
};
