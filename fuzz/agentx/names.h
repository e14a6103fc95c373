// Object identifiers from an input: mostly in and next to the tables, rarely elsewhere.
#pragma once

#include "agentx/input.h"
#include "agentx/pdu.h"

#include <cstdint>
#include <vector>

class Names {
public:
    /// `served` has to outlive this object.
    Names(Input &input, const std::vector<Name> &served) : m_input(input), m_served(served) {}

    Name name();
    Range range();
    void addVarbind(PduWriter &pdu);

private:
    std::uint32_t arc();
    Name smallName();
    Name anyServed() { return m_served[m_input.number(2) % m_served.size()]; }

    Input &m_input;
    const std::vector<Name> &m_served;
    Name m_last{1, 3, 6, 1, 4, 1, 52717};
};
