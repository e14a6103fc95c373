// Object identifiers from an input.
#include "agentx/names.h"

#include <algorithm>

namespace {
const Name enterprise{1, 3, 6, 1, 4, 1, 52717};
} // namespace

std::uint32_t Names::arc()
{
    constexpr std::uint32_t edges[] = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 256, 65536, 52717, 52718};
    const std::uint32_t byte = m_input.number();
    return byte >= 0xF8 ? edges[byte - 0xF8] : byte % 32;
}

/// E and up to seven arcs, or a part of E.3.T.O.1.C.I: T, C and I are from the input, O is the place of tables.
Name Names::smallName()
{
    Name name = enterprise;
    const std::uint32_t shape = m_input.number();
    const std::uint32_t arcs = shape % 8;
    if ((shape & 8U) == 0 && arcs >= 2) {
        name.insert(name.end(), {3, arc(), 1 + (shape >> 4U) % 4, 1});
        for (std::uint32_t i = 2; i < std::min(arcs, 5U); ++i)
            name.push_back(arc());
        return name;
    }
    for (std::uint32_t i = 0; i < arcs; ++i)
        name.push_back(arc());
    return name;
}

Name Names::name()
{
    constexpr std::size_t longest = 140; // more than the library accepts
    const std::uint32_t kind = m_input.number();
    Name name = m_last;
    switch (kind % 8) {
    case 0:
    case 1:
        name = smallName();
        break;
    case 2: // next to the last one, often in its table
        name.resize(std::min<std::size_t>(name.size(), 8 + m_input.below(6)));
        for (std::uint32_t arcs = kind / 8 % 4; arcs > 0; --arcs)
            name.push_back(arc());
        break;
    case 3:
        name = anyServed();
        break;
    case 4: // truncated, perhaps followed by other arcs
        name = anyServed();
        name.resize(name.size() - std::min<std::size_t>(name.size(), m_input.below(8)));
        if (kind >= 128)
            name.push_back(arc());
        break;
    case 5:
        name.back() += kind / 8 - 16;
        break;
    case 6:
        name.push_back(arc());
        break;
    case 7:
        name.clear();
        for (std::size_t arcs = m_input.below(longest); arcs > 0 && !m_input.isEmpty(); --arcs)
            name.push_back(m_input.number(4));
        break;
    }
    if (name.empty())
        name = nullName;
    name.resize(std::min(name.size(), longest));
    m_last = name;
    return name;
}

Range Names::range()
{
    Range range;
    range.start = name();
    const std::uint32_t end = m_input.number();
    range.include = end >= 192;
    if (end % 8 == 7) {
        range.end = name();
    } else if (end % 8 == 6) { // the end of the subtree
        range.end = range.start;
        ++range.end.back();
    }
    return range;
}

void Names::addVarbind(PduWriter &pdu)
{
    // clang-format off
    constexpr std::uint16_t types[] = {
        syntax::integer,      syntax::octetString,    syntax::null,         syntax::objectIdentifier,
        syntax::ipAddress,    syntax::counter,        syntax::gauge,        syntax::timeTicks,
        syntax::opaque,       syntax::counter64,      syntax::unsigned32,   syntax::noSuchObject,
        syntax::noSuchInstance, syntax::endOfMibView, 3,                    0xFFFF, // the last two do not exist
    };
    // clang-format on
    const std::uint16_t type = types[m_input.below(std::size(types))];
    pdu.number(type, 2);
    pdu.number(0, 2);
    pdu.name(name());
    switch (type) {
    case syntax::octetString:
    case syntax::ipAddress:
    case syntax::opaque:
        pdu.text(m_input.text());
        break;
    case syntax::objectIdentifier:
        pdu.name(name());
        break;
    case syntax::counter64:
        pdu.number(m_input.number(4));
        [[fallthrough]];
    case syntax::integer:
    case syntax::counter:
    case syntax::gauge:
    case syntax::timeTicks:
    case syntax::unsigned32:
        pdu.number(m_input.number(4));
        break;
    default:
        break;
    }
}
