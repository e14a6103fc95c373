// AgentX PDUs, written and read.
#include "agentx/pdu.h"

#include <algorithm>

namespace {
constexpr std::size_t internetArcs = 5; // 1.3.6.1.p travels as the prefix p
constexpr std::size_t longestName = 128;

std::uint32_t numberOf(std::string_view bytes, bool networkOrder)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t place = networkOrder ? i : bytes.size() - 1 - i;
        value = value << 8U | static_cast<std::uint8_t>(bytes[place]);
    }
    return value;
}

/// Reads forward; missing bytes make it bad, permanently.
class Reader {
public:
    Reader(std::string_view bytes, bool networkOrder) : m_rest(bytes), m_networkOrder(networkOrder) {}

    bool isGood() const { return m_good; }
    bool isAtEnd() const { return m_rest.empty(); }

    std::string_view take(std::size_t length)
    {
        if (length > m_rest.size())
            m_good = false;
        const std::string_view taken = m_rest.substr(0, length);
        m_rest.remove_prefix(taken.size());
        return taken;
    }

    std::uint32_t number(std::size_t bytes = 4) { return numberOf(take(bytes), m_networkOrder); }
    std::uint16_t half() { return static_cast<std::uint16_t>(number(2)); }

    std::string text()
    {
        const std::size_t length = number();
        const std::string bytes{take(length)};
        take((4 - length % 4) % 4);
        return bytes;
    }

    Name name(bool *include = nullptr)
    {
        const auto arcs = number(1);
        const auto prefix = number(1);
        const bool included = number(1) != 0;
        if (include != nullptr)
            *include = included;
        number(1);
        Name name;
        if (prefix != 0)
            name = {1, 3, 6, 1, prefix};
        for (std::uint32_t i = 0; i < arcs && m_good; ++i)
            name.push_back(number());
        if (name.size() > longestName)
            m_good = false;
        return name.empty() ? nullName : name;
    }

    Range range()
    {
        Range range;
        range.start = name(&range.include);
        range.end = name();
        return range;
    }

    Varbind varbind();

private:
    std::string_view m_rest;
    bool m_networkOrder;
    bool m_good = true;
};

constexpr const char *typeNames[] = {
    "PDU 0",    "Open",    "Close",         "Register",        "Unregister",   "Get",
    "GetNext",  "GetBulk", "TestSet",       "CommitSet",       "UndoSet",      "CleanupSet",
    "Notify",   "Ping",    "IndexAllocate", "IndexDeallocate", "AddAgentCaps", "RemoveAgentCaps",
    "Response",
};

std::string textOfName(const Name &name)
{
    std::string text;
    for (const std::uint32_t arc : name)
        text += '.' + std::to_string(arc);
    return text;
}

std::string inNetworkOrder(std::uint32_t value)
{
    return {static_cast<char>(value >> 24U), static_cast<char>(value >> 16U), static_cast<char>(value >> 8U),
            static_cast<char>(value)};
}

Varbind Reader::varbind()
{
    Varbind varbind;
    varbind.type = half();
    half();
    varbind.name = name();
    switch (varbind.type) {
    case syntax::integer:
    case syntax::counter:
    case syntax::gauge:
    case syntax::timeTicks:
    case syntax::unsigned32:
        varbind.value = inNetworkOrder(number());
        break;
    case syntax::counter64: {
        const std::string first = inNetworkOrder(number());
        const std::string second = inNetworkOrder(number());
        varbind.value = m_networkOrder ? first + second : second + first;
        break;
    }
    case syntax::octetString:
    case syntax::ipAddress:
    case syntax::opaque:
        varbind.value = text();
        break;
    case syntax::objectIdentifier:
        for (const std::uint32_t arc : name())
            varbind.value += inNetworkOrder(arc);
        break;
    case syntax::null:
    case syntax::noSuchObject:
    case syntax::noSuchInstance:
    case syntax::endOfMibView:
        break;
    default:
        m_good = false;
    }
    return varbind;
}

void readPayload(Reader &reader, Pdu &pdu)
{
    switch (pdu.header.type) {
    case PduType::getBulk:
        pdu.nonRepeaters = reader.half();
        pdu.maxRepetitions = reader.half();
        [[fallthrough]];
    case PduType::get:
    case PduType::getNext:
        while (reader.isGood() && !reader.isAtEnd())
            pdu.ranges.push_back(reader.range());
        break;
    case PduType::response:
        reader.number(); // sysUpTime
        pdu.error = reader.half();
        pdu.index = reader.half();
        [[fallthrough]];
    case PduType::notify:
    case PduType::testSet:
        while (reader.isGood() && !reader.isAtEnd())
            pdu.varbinds.push_back(reader.varbind());
        break;
    default:
        break;
    }
}
} // namespace

PduWriter::PduWriter(const Header &header, std::string_view context)
    : m_networkOrder((header.flags & networkByteOrder) != 0)
{
    m_bytes = {1, static_cast<char>(header.type), static_cast<char>(header.flags), 0};
    number(header.session);
    number(header.transaction);
    number(header.packet);
    number(0); // the length, see finish()
    if ((header.flags & nonDefaultContext) != 0)
        text(context);
}

std::string PduWriter::numberBytes(std::uint32_t value, std::size_t bytes) const
{
    std::string text;
    for (std::size_t i = 0; i < bytes; ++i)
        text.push_back(static_cast<char>(value >> (8 * i)));
    if (m_networkOrder)
        std::reverse(text.begin(), text.end());
    return text;
}

void PduWriter::number(std::uint32_t value, std::size_t bytes)
{
    m_bytes += numberBytes(value, bytes);
}

void PduWriter::name(const Name &name, bool include)
{
    const bool isNull = name == nullName;
    const bool isInternet = name.size() >= internetArcs && name[0] == 1 && name[1] == 3 && name[2] == 6 &&
                            name[3] == 1 && name[4] >= 1 && name[4] <= 255;
    const std::size_t from = isNull ? name.size() : isInternet ? internetArcs : 0;
    m_bytes.push_back(static_cast<char>(name.size() - from));
    m_bytes.push_back(static_cast<char>(isInternet ? name[internetArcs - 1] : 0));
    m_bytes.push_back(include ? 1 : 0);
    m_bytes.push_back(0);
    for (std::size_t i = from; i < name.size(); ++i)
        number(name[i]);
}

void PduWriter::text(std::string_view bytes)
{
    number(static_cast<std::uint32_t>(bytes.size()));
    m_bytes.append(bytes);
    m_bytes.append((4 - bytes.size() % 4) % 4, '\0');
}

void PduWriter::range(const Range &range)
{
    name(range.start, range.include);
    name(range.end);
}

std::string PduWriter::finish(std::optional<std::uint32_t> length)
{
    m_bytes.replace(16, 4, numberBytes(length.value_or(static_cast<std::uint32_t>(m_bytes.size() - headerSize)), 4));
    return m_bytes;
}

std::uint32_t payloadLength(std::string_view frame)
{
    return numberOf(frame.substr(16, 4), (static_cast<std::uint8_t>(frame[2]) & networkByteOrder) != 0);
}

Header parseHeader(std::string_view frame)
{
    Header header;
    header.type = static_cast<PduType>(frame[1]);
    header.flags = static_cast<std::uint8_t>(frame[2]);
    Reader reader(frame.substr(4, headerSize - 4), (header.flags & networkByteOrder) != 0);
    header.session = reader.number();
    header.transaction = reader.number();
    header.packet = reader.number();
    return header;
}

std::optional<std::string> contextOf(std::string_view frame)
{
    const Header header = parseHeader(frame);
    if ((header.flags & nonDefaultContext) == 0)
        return {};
    return Reader(frame.substr(headerSize), (header.flags & networkByteOrder) != 0).text();
}

std::optional<Pdu> parsePdu(std::string_view frame)
{
    if (frame.size() < headerSize || payloadLength(frame) != frame.size() - headerSize)
        return {};
    Pdu pdu;
    pdu.header = parseHeader(frame);
    Reader reader(frame.substr(headerSize), (pdu.header.flags & networkByteOrder) != 0);
    if ((pdu.header.flags & nonDefaultContext) != 0)
        pdu.context = reader.text();
    readPayload(reader, pdu);
    return reader.isGood() ? std::optional(pdu) : std::nullopt;
}

std::string describe(const Pdu &pdu)
{
    const auto type = static_cast<std::size_t>(pdu.header.type);
    std::string text = type < std::size(typeNames) ? typeNames[type] : "PDU " + std::to_string(type);
    text += " packet " + std::to_string(pdu.header.packet) + " flags " + std::to_string(pdu.header.flags);
    if (!pdu.context.empty())
        text += " context " + pdu.context;
    if (pdu.error != 0)
        text += " error " + std::to_string(pdu.error) + " at " + std::to_string(pdu.index);
    if (pdu.header.type == PduType::getBulk)
        text += " " + std::to_string(pdu.nonRepeaters) + "+" + std::to_string(pdu.maxRepetitions);
    for (const auto &[start, end, include] : pdu.ranges)
        text += (include ? " [" : " (") + textOfName(start) + (end != nullName ? " to " + textOfName(end) : "") + ")";
    for (const Varbind &varbind : pdu.varbinds)
        text += " " + textOfName(varbind.name) + " type " + std::to_string(varbind.type);
    return text;
}
