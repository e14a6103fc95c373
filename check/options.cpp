// The command line of kvsnmp-check.
#include "check/options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <span>
#include <string_view>

namespace {

constexpr double maxSeconds = 60;

// clang-format off
constexpr option longOptions[] = {
    {"json",    no_argument,       nullptr, 'j'},
    {"nagios",  no_argument,       nullptr, 'n'},
    {"timeout", required_argument, nullptr, 't'},
    {"help",    no_argument,       nullptr, 'h'},
    {"version", no_argument,       nullptr, 'V'},
    {nullptr,   0,                 nullptr, 0},
};
// clang-format on

constexpr char usage[] = "Usage: kvsnmp-check [--json | --nagios] [--timeout SECONDS]\n"
                         "\n"
                         "Finds out why a device does not answer over SNMP. Changes nothing. Requires root.\n"
                         "\n"
                         "  -j, --json             write one JSON object\n"
                         "  -n, --nagios           write one line, as a monitoring plugin\n"
                         "  -t, --timeout SECONDS  time limit of each answer (0.1 to 60, default 3)\n"
                         "  -h, --help             show this text\n"
                         "  -V, --version          show the version\n"
                         "\n"
                         "Exit status: 0 nothing has failed, 1 something has, 2 wrong usage, or not root.\n"
                         "With --nagios: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN (wrong usage, or not root).\n";

/// Milliseconds; nothing unless a number within the limits.
std::optional<int> timeoutOf(const char *text)
{
    char *end = nullptr;
    const double seconds = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(seconds >= 0.1 && seconds <= maxSeconds))
        return std::nullopt;
    return static_cast<int>(seconds * 1000);
}

CheckOptions ending(int status)
{
    CheckOptions options;
    options.exitStatus = status;
    return options;
}

CheckOptions wrong(const char *text, bool nagios)
{
    std::fprintf(stderr, "%s\n%s", text, usage);
    return ending(nagios ? nagiosUnknown : exitUsage);
}

/// Also after an option that is wrong.
bool asksForNagios(std::span<char *const> arguments)
{
    return std::any_of(arguments.begin(), arguments.end(), [](const char *argument) {
        return argument == std::string_view("--nagios") || argument == std::string_view("-n");
    });
}

} // namespace

bool wantsColours(bool isTerminal, const QByteArray &noColor, const QByteArray &terminalKind)
{
    return isTerminal && noColor.isEmpty() && !terminalKind.isEmpty() && terminalKind != "dumb";
}

CheckOptions parseCheckOptions(int argc, char *argv[])
{
    CheckOptions options;
    const bool nagios = asksForNagios({argv, static_cast<std::size_t>(argc)});
    for (;;) {
        switch (getopt_long(argc, argv, "jnt:hV", longOptions, nullptr)) {
        case -1:
            if (optind < argc)
                return wrong("kvsnmp-check: no arguments are taken", nagios);
            return options.json && options.nagios ? wrong("kvsnmp-check: --json or --nagios, not both", nagios)
                                                  : options;
        case 'j':
            options.json = true;
            break;
        case 'n':
            options.nagios = true;
            break;
        case 't': {
            const std::optional<int> timeoutMs = timeoutOf(optarg);
            if (!timeoutMs)
                return wrong("kvsnmp-check: --timeout takes 0.1 to 60 seconds", nagios);
            options.timeoutMs = *timeoutMs;
            break;
        }
        case 'h':
            std::fputs(usage, stdout);
            return ending(exitOk);
        case 'V':
            std::puts("kvsnmp-check " KVSNMP_VERSION);
            return ending(exitOk);
        default: // getopt has printed the error
            std::fputs(usage, stderr);
            return ending(nagios ? nagiosUnknown : exitUsage);
        }
    }
}
