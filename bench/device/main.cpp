// snmpload: one measurement per run, its figures as lines of "name value".
#include "measures.h"

#include <cstdio>
#include <exception>
#include <map>
#include <span>
#include <stdexcept>

namespace {

constexpr char address[] = "127.0.0.1";

using Words = std::span<char *>;

std::size_t numberAt(Words words, std::size_t place)
{
    if (place >= words.size())
        throw std::invalid_argument("a number is missing");
    return std::stoul(words[place]);
}

Oid oidAt(Words words, std::size_t place)
{
    if (place >= words.size())
        throw std::invalid_argument("an OID is missing");
    return oidFrom(words[place]);
}

std::chrono::milliseconds millisecondsAt(Words words, std::size_t place)
{
    return std::chrono::milliseconds(numberAt(words, place));
}

Figures silenceOf(Words words, bool fromStart)
{
    std::vector<Oid> objects;
    for (std::size_t place = 1; place < words.size(); place++)
        objects.push_back(oidAt(words, place));
    return silence(address, objects, fromStart, millisecondsAt(words, 0));
}

struct Command {
    const char *usage;
    Figures (*run)(Words words);
};

// clang-format off
const std::map<std::string, Command> commands{
    {"latency", {"OID COUNT REST_MS", [](Words w) {
        return latency(address, oidAt(w, 0), numberAt(w, 1), millisecondsAt(w, 2)); }}},
    {"walk",    {"OID ROUNDS REPETITIONS (0: GETNEXT)", [](Words w) {
        return walk(address, oidAt(w, 0), numberAt(w, 1), static_cast<long>(numberAt(w, 2))); }}},
    {"count",   {"OID MANAGERS COUNT", [](Words w) {
        return countedGets(address, oidAt(w, 0), numberAt(w, 1), numberAt(w, 2)); }}},
    {"start",   {"LIMIT_MS OID...", [](Words w) { return silenceOf(w, true); }}},
    {"silence", {"LIMIT_MS OID...", [](Words w) { return silenceOf(w, false); }}},
};
// clang-format on

int usage()
{
    std::fputs("Asks the SNMP agent of this machine and prints how it went.\n", stderr);
    for (const auto &[name, command] : commands)
        std::fprintf(stderr, "  snmpload %s %s\n", name.c_str(), command.usage);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    const Words words(argv, static_cast<std::size_t>(argc));
    const auto command = words.size() > 1 ? commands.find(words[1]) : commands.end();
    if (command == commands.end())
        return usage();
    setenv("MIBS", "", 1); // only numeric OIDs are used
    init_snmp("snmpload");
    try {
        for (const auto &[name, value] : command->second.run(words.subspan(2)))
            std::printf("%s %.9g\n", name.c_str(), value);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "snmpload: %s\n", failure.what());
        return 1;
    }
    return 0;
}
