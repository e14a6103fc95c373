// Compares the answers with the walk and with single requests.
#include "agentx/oracle.h"

#include "support.h"

#include <algorithm>

namespace {
// A response with this many names may be too long for the connection.
constexpr std::size_t alwaysPasses = 300;

bool isOtherContext(const Pdu &request)
{
    return !request.context.empty() && request.context[0] != '\0'; // the library uses it as a C string
}

/// E.3.4 of a name in the voltage table.
Name groupOf(Name name)
{
    constexpr std::size_t length = 9;
    name.resize(std::min(name.size(), length));
    return name;
}

/// The walk's next name after this one, or this one if it is included.
const Name *successor(const std::vector<Name> &served, const Name &name, bool include)
{
    const auto place = include ? std::lower_bound(served.begin(), served.end(), name)
                               : std::upper_bound(served.begin(), served.end(), name);
    return place != served.end() ? &*place : nullptr;
}
} // namespace

Oracle::Oracle(SubAgent &agent, Master &master) : m_agent(agent), m_master(master)
{
    constexpr std::size_t farBeyondTheLast = 5000;
    for (Name name = nullName;;) {
        PduWriter request({PduType::getNext, networkByteOrder, master.session(), 0, ++m_packet});
        request.range({name});
        master.send(request.finish());
        agent.run();
        const std::vector<Asked> asked = master.takeAsked();
        require(asked.size() == 1 && asked[0].answer && asked[0].answer->varbinds.size() == 1,
                "each step of the walk is answered");
        const Varbind &varbind = asked[0].answer->varbinds[0];
        if (varbind.type == syntax::endOfMibView)
            break;
        require(varbind.name > name && m_served.size() < farBeyondTheLast, "the walk ascends and ends");
        name = varbind.name;
        m_served.push_back(name);
    }
    require(!m_served.empty(), "something is served");
}

void Oracle::check()
{
    const std::vector<Asked> asked = m_master.takeAsked();
    // A request cannot be sent between the halves of a PDU.
    const bool canAsk = m_master.hasSession() && m_master.isInStep();
    if (canAsk)
        askAlone(asked);
    for (const Asked &one : asked) {
        require(!one.must || one.answer, "each request that parses is answered");
        if (canAsk && one.must)
            check(one);
        if (one.answer && one.request.header.type == PduType::testSet)
            checkTestSet(one);
    }
}

void Oracle::askAlone(const std::vector<Asked> &asked)
{
    std::set<Question> questions;
    for (const Asked &one : asked) {
        if (!one.must || !one.answer || isOtherContext(one.request))
            continue;
        if (one.request.header.type == PduType::get) {
            for (const Range &range : one.request.ranges)
                questions.insert({PduType::get, false, range.start});
            continue;
        }
        for (const Range &range : one.request.ranges)
            questions.insert({PduType::getNext, range.include, range.start});
        if (one.request.header.type == PduType::getBulk) {
            for (const Varbind &varbind : one.answer->varbinds)
                questions.insert({PduType::getNext, false, varbind.name});
        }
    }

    std::string chunk;
    std::vector<Question> sent;
    for (const Question &question : questions) {
        if (m_alone.contains(question))
            continue;
        PduWriter request({question.type, networkByteOrder, m_master.session(), 0, ++m_packet});
        request.range({question.name, nullName, question.include});
        chunk += request.finish();
        sent.push_back(question);
    }
    m_master.send(chunk);
    m_agent.run();
    const std::vector<Asked> answered = m_master.takeAsked();
    require(answered.size() == sent.size(), "the session stays while single names are asked");
    for (std::size_t i = 0; i < sent.size(); ++i) {
        require(answered[i].answer.has_value(), "each name that is asked alone is answered");
        m_alone.emplace(sent[i], *answered[i].answer);
    }
}

const Pdu &Oracle::alone(PduType type, const Name &name, bool include) const
{
    const auto found = m_alone.find({type, include, name});
    require(found != m_alone.end(), "the target asks what it compares with");
    return found->second;
}

/// The varbind of a GetNext of this name alone; it has to be that of the walk.
Varbind Oracle::next(const Name &name, bool include) const
{
    const Pdu &answer = alone(PduType::getNext, name, include);
    require(answer.error == 0 && answer.varbinds.size() == 1, "a GetNext of one name is answered with one varbind");
    const Varbind &varbind = answer.varbinds[0];
    const Name *expected = successor(m_served, name, include);
    require((expected == nullptr) == (varbind.type == syntax::endOfMibView),
            "a GetNext of one name ends with the walk");
    require(varbind.name == (expected != nullptr ? *expected : name), "a GetNext of one name gets what the walk got");
    return varbind;
}

void Oracle::check(const Asked &asked) const
{
    switch (asked.request.header.type) {
    case PduType::get:
        checkGet(asked);
        break;
    case PduType::getNext:
        checkGetNext(asked);
        break;
    case PduType::getBulk:
        checkGetBulk(asked);
        break;
    default:
        break;
    }
}

/// A name that cannot be a cell of its table fails a Get with a valid name of that table as a whole: intended.
bool Oracle::mayFail(const Pdu &get) const
{
    const auto looksServed = [this](const Name &name) {
        return std::any_of(m_served.begin(), m_served.end(), [&name](const Name &served) {
            return served.size() == name.size() && groupOf(served) == groupOf(name);
        });
    };
    std::set<Name> withImpossible;
    std::set<Name> withPossible;
    for (const Range &range : get.ranges) {
        const Pdu &answer = alone(PduType::get, range.start);
        require(answer.error == 0 && answer.varbinds.size() == 1, "a Get of one name is answered with one varbind");
        const std::uint16_t type = answer.varbinds[0].type;
        if (type != syntax::noSuchObject)
            withPossible.insert(groupOf(range.start));
        // The length of the names in an empty table is unknown here.
        if (type == syntax::noSuchObject || (type == syntax::noSuchInstance && !looksServed(range.start)))
            withImpossible.insert(groupOf(range.start));
    }
    return std::any_of(withImpossible.begin(), withImpossible.end(),
                       [&](const Name &group) { return withPossible.contains(group); });
}

void Oracle::checkGet(const Asked &asked) const
{
    const std::vector<Range> &ranges = asked.request.ranges;
    const Pdu &answer = *asked.answer;
    if (answer.error != 0) {
        require(ranges.size() >= alwaysPasses || mayFail(asked.request), "a Get fails only where it is meant to");
        return;
    }
    require(answer.varbinds.size() == ranges.size(), "a Get is answered with as many varbinds as it has names");
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        require(answer.varbinds[i].name == ranges[i].start, "a Get is answered with its names");
        if (isOtherContext(asked.request)) {
            require(answer.varbinds[i].type == syntax::noSuchObject, "nothing is there in another context");
            continue;
        }
        const Pdu &single = alone(PduType::get, ranges[i].start);
        require(single.error == 0 && single.varbinds.size() == 1 && single.varbinds[0] == answer.varbinds[i],
                "a name in a Get gets what it gets alone");
    }
}

void Oracle::checkGetNext(const Asked &asked) const
{
    const std::vector<Range> &ranges = asked.request.ranges;
    const Pdu &answer = *asked.answer;
    if (answer.error != 0) {
        require(ranges.size() >= alwaysPasses, "a GetNext fails only when its answer is too long");
        return;
    }
    require(answer.varbinds.size() == ranges.size(), "a GetNext is answered with as many varbinds as it has names");
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        const auto &[start, end, include] = ranges[i];
        const Varbind &varbind = answer.varbinds[i];
        if (varbind.type == syntax::endOfMibView) {
            require(varbind.name == start, "endOfMibView comes with the start of its range");
        } else {
            require(include ? varbind.name >= start : varbind.name > start, "a GetNext is answered behind its name");
            require(end == nullName || varbind.name < end, "a GetNext is answered before the end of its range");
        }
        Varbind expected{syntax::endOfMibView, start, {}};
        if (!isOtherContext(asked.request)) {
            const Varbind single = next(start, include);
            if (end == nullName || single.name < end)
                expected = single;
        }
        require(varbind == expected, "a name in a GetNext gets what it gets alone");
    }
}

/// The library ignores the ends of the ranges of a GetBulk, and repeats less than requested.
void Oracle::checkGetBulk(const Asked &asked) const
{
    const std::vector<Range> &ranges = asked.request.ranges;
    const Pdu &answer = *asked.answer;
    if (answer.error != 0) {
        require(ranges.size() >= alwaysPasses, "a GetBulk fails only when its answer is too long");
        return;
    }
    const std::size_t once = std::min<std::size_t>(asked.request.nonRepeaters, ranges.size());
    const std::size_t repeaters = ranges.size() - once;
    const std::size_t repeated = answer.varbinds.size() - std::min(once, answer.varbinds.size());
    require(answer.varbinds.size() >= once && repeated <= repeaters * asked.request.maxRepetitions,
            "a GetBulk is answered with as many varbinds as it asks for");
    for (std::size_t i = 0; i < answer.varbinds.size(); ++i) {
        const Varbind &varbind = answer.varbinds[i];
        const bool isFirst = i < ranges.size();
        const Name &from = isFirst ? ranges[i].start : answer.varbinds[i - repeaters].name;
        const bool isBehindTheEnd = !isFirst && answer.varbinds[i - repeaters].type == syntax::endOfMibView;
        Varbind expected{syntax::endOfMibView, from, {}};
        if (!isOtherContext(asked.request) && !isBehindTheEnd)
            expected = next(from, isFirst && ranges[i].include);
        if (varbind.type == syntax::endOfMibView) // the library may use the name of another varbind
            expected.name = varbind.name;
        require(varbind == expected, "a name in a GetBulk gets what it gets alone");
    }
}

void Oracle::checkTestSet(const Asked &asked) const
{
    if (asked.request.header.packet < firstUniquePacket || isOtherContext(asked.request))
        return;
    for (const Varbind &varbind : asked.request.varbinds) {
        const bool isServed = std::binary_search(m_served.begin(), m_served.end(), varbind.name);
        require(!isServed || asked.answer->error != 0, "nothing can be set");
    }
}
