// The measurements of the load generator.
#include "measures.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <thread>

namespace {

constexpr std::chrono::seconds answerTimeout{2};
constexpr std::chrono::milliseconds lossTimeout{300}; // an answer to one of 256 managers takes some 20 ms
constexpr std::chrono::milliseconds probeInterval{5};
constexpr std::chrono::milliseconds silenceLength{150}; // longer than any answer of an idle device takes

double microseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

/// Seconds of the monotonic clock, like Python's time.monotonic().
double seconds(Clock::time_point moment)
{
    return std::chrono::duration<double>(moment.time_since_epoch()).count();
}

double percentile(const std::vector<double> &sorted, double share)
{
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(std::lround(share * last))];
}

bool hasValue(const snmp_pdu *pdu)
{
    if (!pdu || pdu->errstat != SNMP_ERR_NOERROR || !pdu->variables)
        return false;
    const u_char type = pdu->variables->type;
    return type != SNMP_NOSUCHOBJECT && type != SNMP_NOSUCHINSTANCE && type != SNMP_ENDOFMIBVIEW;
}

Managers openManagers(const std::string &address, std::size_t count, std::chrono::milliseconds timeout = answerTimeout)
{
    Managers managers;
    while (managers.size() < count)
        managers.push_back(std::make_unique<Manager>(address, timeout));
    return managers;
}

/// Sends a request and waits; false without an answer. `take` receives the answer.
bool askAndWait(const Managers &managers, const Request &request, const std::function<void(const snmp_pdu &)> &take)
{
    bool ended = false;
    bool answered = false;
    managers.front()->ask(request, [&](const snmp_pdu *pdu) {
        ended = true;
        answered = pdu != nullptr;
        if (pdu)
            take(*pdu);
    });
    serveManagers(managers, Clock::time_point::max(), [&] { return ended; });
    return answered;
}

/// One walk; returns the number of variables.
std::size_t walkOnce(const Managers &managers, const Oid &root, long repetitions)
{
    const int command = repetitions != 0 ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT;
    Request request{command, root, repetitions};
    std::size_t variables = 0;
    bool goesOn = true;
    const auto take = [&](const snmp_pdu &pdu) {
        goesOn = false;
        for (const variable_list *variable = pdu.variables; variable; variable = variable->next_variable) {
            const bool below =
                snmp_oidsubtree_compare(root.data(), root.size(), variable->name, variable->name_length) == 0;
            goesOn = below && variable->type != SNMP_ENDOFMIBVIEW;
            if (!goesOn)
                return;
            variables++;
            request.object.assign(variable->name, variable->name + variable->name_length);
        }
    };
    while (goesOn) {
        if (!askAndWait(managers, request, take))
            throw std::runtime_error("a walk was not answered");
    }
    return variables;
}

} // namespace

Figures latency(const std::string &address, const Oid &object, std::size_t count, std::chrono::milliseconds rest)
{
    const Managers managers = openManagers(address, 1);
    std::vector<double> times;
    double lost = 0;
    while (times.size() + static_cast<std::size_t>(lost) < count) {
        std::this_thread::sleep_for(rest);
        const Clock::time_point begin = Clock::now();
        bool good = false;
        askAndWait(managers, {SNMP_MSG_GET, object}, [&](const snmp_pdu &pdu) { good = hasValue(&pdu); });
        if (good)
            times.push_back(microseconds(Clock::now() - begin));
        else
            lost++;
    }
    if (times.empty())
        throw std::runtime_error("no GET was answered");
    std::ranges::sort(times);
    return {{"lost", lost},
            {"min_us", times.front()},
            {"p50_us", percentile(times, 0.50)},
            {"p99_us", percentile(times, 0.99)}};
}

Figures walk(const std::string &address, const Oid &root, std::size_t rounds, long repetitions)
{
    const Managers managers = openManagers(address, 1);
    std::size_t variables = 0;
    std::vector<double> times;
    while (times.size() < rounds) {
        const Clock::time_point begin = Clock::now();
        variables = walkOnce(managers, root, repetitions);
        if (variables == 0)
            throw std::runtime_error("a walk found nothing");
        times.push_back(microseconds(Clock::now() - begin) / static_cast<double>(variables));
    }
    std::ranges::sort(times);
    return {{"variables", static_cast<double>(variables)}, {"us_per_variable", percentile(times, 0.50)}};
}

Figures countedGets(const std::string &address, const Oid &object, std::size_t managers, std::size_t count)
{
    const Managers all = openManagers(address, managers, lossTimeout);
    const Clock::time_point begin = Clock::now();
    Clock::time_point last = begin; // the wait for a lost answer at the end is not part of the rate
    std::size_t asked = 0;
    std::size_t answered = 0;
    std::size_t lost = 0;
    std::function<void(Manager &)> askOn = [&](Manager &manager) {
        if (asked == count)
            return;
        asked++;
        manager.ask({SNMP_MSG_GET, object}, [&](const snmp_pdu *pdu) {
            (hasValue(pdu) ? answered : lost)++;
            if (hasValue(pdu))
                last = Clock::now();
            askOn(manager);
        });
    };
    std::ranges::for_each(all, [&](const auto &manager) { askOn(*manager); });
    serveManagers(all, Clock::time_point::max(), [&] { return answered + lost == count; });
    const double taken = microseconds(last - begin) / 1e6;
    return {{"per_second", answered != 0 ? static_cast<double>(answered) / taken : 0},
            {"lost", static_cast<double>(lost)}};
}

Figures silence(const std::string &address, const std::vector<Oid> &objects, bool fromStart,
                std::chrono::milliseconds limit)
{
    struct Probed {
        Clock::time_point before = Clock::now();
        Clock::time_point after{};
        bool back = false;
    };
    std::vector<Probed> probed(objects.size());
    const Managers managers = openManagers(address, 1);
    const Clock::time_point end = Clock::now() + limit;
    while (!std::ranges::all_of(probed, &Probed::back)) {
        if (Clock::now() >= end)
            throw std::runtime_error("not silent and answered again within the limit");
        for (std::size_t i = 0; i < objects.size(); i++) {
            managers.front()->ask({SNMP_MSG_GET, objects[i]}, [&probed, i, fromStart](const snmp_pdu *pdu) {
                Probed &object = probed[i];
                if (!hasValue(pdu) || object.back)
                    return;
                const Clock::time_point now = Clock::now();
                object.back = fromStart || now - object.before > silenceLength;
                (object.back ? object.after : object.before) = now;
            });
        }
        serveManagers(managers, Clock::now() + probeInterval, [] { return false; });
    }
    Figures figures;
    for (std::size_t i = 0; i < objects.size(); i++) {
        figures.emplace_back("before_" + std::to_string(i + 1), seconds(probed[i].before));
        figures.emplace_back("after_" + std::to_string(i + 1), seconds(probed[i].after));
    }
    return figures;
}
