// The actions of an input.
#include "agentx/script.h"

#include "support.h"

#include <algorithm>
#include <deque>
#include <utility>

using namespace std::chrono_literals;

namespace {
constexpr int mostActions = 40;
constexpr std::uint32_t transactions = 4; // of the sets of one input
constexpr std::uint32_t longTrap = 60000; // from this length on a trap may be too long for the connection
constexpr std::chrono::seconds cacheLifetime = 61s;

// The byte before a PDU.
constexpr std::uint32_t littleEndian = 1;
constexpr std::uint32_t oddFlags = 2;
constexpr std::uint32_t oddSession = 4;
enum class Way : std::uint8_t { alone, ownWrite, withNext, cut }; // its upper two bits
} // namespace

Script::Script(Bench &bench, std::string_view input)
    : m_bench(bench), m_input(input), m_names(m_input, bench.oracle.served())
{}

void Script::run()
{
    for (int action = 0; action < mostActions && !m_input.isEmpty(); ++action)
        act();
    settle();
}

void Script::act()
{
    const std::uint32_t action = m_input.below(32);
    // clang-format off
    if (action < 10)       askGet(PduType::getNext);
    else if (action < 14)  askGet(PduType::get);
    else if (action < 17)  askBulk();
    else if (action == 17) askMany();
    else if (action < 20)  set(PduType::testSet);
    else if (action == 20) set(PduType::commitSet);
    else if (action == 21) set(PduType::undoSet);
    else if (action == 22) set(PduType::cleanupSet);
    else if (action == 23) sendAnyPdu();
    else if (action == 24) sendResponse();
    else if (action == 25) sendBrokenLength();
    else if (action == 26) m_chunk += m_input.text(); // any bytes
    else if (action == 27) sendTraps();
    else if (action == 28) planReplies();
    else if (action == 29) pass(m_input.below(100));
    else if (action == 30) hangUp();
    else                   m_bench.agent.store(m_input.number(), m_input.number(4));
    // clang-format on
}

void Script::askGet(PduType type)
{
    PduWriter pdu = begin(type);
    for (std::uint32_t names = 1 + m_input.below(8) * m_input.below(8); names > 0 && !m_input.isEmpty(); --names)
        pdu.range(m_names.range());
    deliver(pdu);
}

void Script::askBulk()
{
    PduWriter pdu = begin(PduType::getBulk);
    const std::uint32_t counts = m_input.number();
    pdu.number(counts % 8 == 7 ? m_input.number(2) : counts % 8, 2);
    pdu.number(counts / 8 == 31 ? m_input.number(2) : counts / 8, 2);
    for (std::uint32_t names = 1 + m_input.below(16); names > 0 && !m_input.isEmpty(); --names)
        pdu.range(m_names.range());
    deliver(pdu);
}

/// Enough names to make the answer, then the request, too long. Only once, because it takes most of an input's time.
void Script::askMany()
{
    if (std::exchange(m_manyAsked, true))
        return;
    PduWriter pdu = begin(m_input.below(2) == 0 ? PduType::getNext : PduType::get);
    std::vector<Range> ranges(1 + m_input.below(4));
    for (Range &range : ranges)
        range = m_names.range();
    for (std::size_t count = m_input.number(2) % 2000; count > 0; --count)
        pdu.range(ranges[count % ranges.size()]);
    deliver(pdu);
}

void Script::set(PduType type)
{
    Header head = header(type);
    head.transaction = m_bench.transaction + m_input.below(transactions);
    PduWriter pdu = begin(head);
    if (type == PduType::testSet) {
        ++m_sets;
        for (std::uint32_t count = m_input.below(8); count > 0 && !m_input.isEmpty(); --count)
            m_names.addVarbind(pdu);
    }
    deliver(pdu);
}

/// Any type with any payload.
void Script::sendAnyPdu()
{
    Header head = header(static_cast<PduType>(m_input.number()));
    head.transaction = m_bench.transaction;
    head.packet = m_input.number(2);
    PduWriter pdu(head);
    pdu.raw(m_input.text());
    m_sets += head.type == PduType::testSet ? 1 : 0;
    deliver(pdu);
}

/// An unexpected answer.
void Script::sendResponse()
{
    Header head = header(PduType::response);
    head.packet = m_input.number(2);
    PduWriter pdu = begin(head);
    pdu.number(m_input.number());
    pdu.number(m_input.number(), 2);
    pdu.number(m_input.number(), 2);
    for (std::uint32_t count = m_input.below(8); count > 0 && !m_input.isEmpty(); --count)
        m_names.addVarbind(pdu);
    deliver(pdu);
}

/// The following bytes belong to this PDU, or this one to the PDU before.
void Script::sendBrokenLength()
{
    PduWriter pdu = begin(PduType::getNext);
    pdu.range(m_names.range());
    m_chunk += pdu.finish(m_input.number(m_input.below(5)));
}

void Script::sendTraps()
{
    if (m_trapSession != m_bench.master.session())
        m_traps.clear();
    m_trapSession = m_bench.master.session();

    const std::uint32_t trap = m_input.below(22);
    const std::uint32_t times = m_input.number();
    const std::uint32_t length = times % 16 == 15 ? 300 : times % 16;
    const std::string text{m_input.text()};
    std::string description;
    for (std::uint32_t i = 0; i < length; ++i)
        description += text.c_str(); // up to a zero
    const std::string time{m_input.text()};
    const auto level = static_cast<std::int32_t>(m_input.number(4));
    for (std::uint32_t i = 0; i <= times / 16; ++i) {
        if (m_bench.agent.sendTrap(trap, description.c_str(), level, time.c_str()) && description.size() < longTrap)
            m_traps.push_back(description);
    }
}

/// The master's answers to the next PDUs, which may belong to a later session.
void Script::planReplies()
{
    std::deque<Reply> plan;
    for (std::uint32_t steps = m_input.below(8); steps > 0; --steps) {
        plan.insert(plan.end(), m_input.below(32), Reply::good);
        plan.push_back(static_cast<Reply>(m_input.below(replies)));
    }
    m_bench.master.setReplies(std::move(plan));
}

void Script::pass(std::uint32_t seconds)
{
    finishChunk();
    m_bench.agent.wait(std::chrono::seconds(seconds));
    check();
    m_bench.oracle.forget();
}

void Script::hangUp()
{
    finishChunk();
    m_bench.master.hangUp();
}

Header Script::header(PduType type)
{
    m_form = m_input.number();
    Header head{type, (m_form & littleEndian) != 0 ? std::uint8_t{0} : networkByteOrder, m_bench.master.session(), 0,
                ++m_bench.packet};
    if ((m_form & oddFlags) != 0)
        head.flags ^= static_cast<std::uint8_t>(m_input.number());
    if ((m_form & oddSession) != 0)
        head.session = m_input.number();
    return head;
}

PduWriter Script::begin(const Header &header)
{
    return PduWriter(header, (header.flags & nonDefaultContext) != 0 ? m_input.text() : std::string_view());
}

void Script::deliver(PduWriter &pdu)
{
    const std::string bytes = pdu.finish();
    const auto way = static_cast<Way>(m_form / 64 % 4);
    if (way == Way::cut) {
        const std::size_t place = m_input.number() % bytes.size();
        m_chunk += bytes.substr(0, place);
        finishChunk();
        m_chunk = bytes.substr(place);
        return;
    }
    m_chunk += bytes;
    if (way != Way::withNext)
        finishChunk();
    if (way == Way::alone)
        check();
}

void Script::finishChunk()
{
    m_bench.master.send(m_chunk);
    m_chunk.clear();
}

void Script::check()
{
    m_bench.agent.run();
    m_bench.oracle.check();
}

void Script::checkTraps()
{
    std::vector<std::string> arrived;
    for (const Pdu &notification : m_bench.master.takeNotifications()) {
        require(!notification.varbinds.empty(), "a notification has varbinds");
        if (notification.varbinds.back().value.size() < longTrap)
            arrived.push_back(notification.varbinds.back().value);
    }
    require(m_trapSession != m_bench.master.session() || m_trapSession == 0 || arrived == m_traps,
            "each trap that is taken arrives once while the session lasts");
}

/// Ends the sets of the input, because the library discards a set only at its end.
void Script::cleanUpSets()
{
    for (std::uint32_t i = 0; i < m_sets * transactions && m_bench.master.hasSession(); ++i) {
        const Header head{PduType::cleanupSet, networkByteOrder, m_bench.master.session(),
                          m_bench.transaction + i % transactions, ++m_bench.packet};
        m_bench.master.send(PduWriter(head).finish());
        check(); // one at a time
    }
    m_bench.transaction += transactions;
}

void Script::settle()
{
    finishChunk();
    check();
    checkTraps();
    m_bench.master.setReplies({});
    if (!m_bench.master.isInStep())
        m_bench.master.hangUp();
    cleanUpSets();
    m_bench.agent.wait(cacheLifetime);
    for (int attempt = 0; !m_bench.master.hasSession(); ++attempt) {
        require(attempt < 100, "a lost session is reopened");
        m_bench.agent.wait(1s);
    }
    check();
    m_bench.oracle.forget();
    m_bench.master.takeNotifications();
}
