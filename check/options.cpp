// The command line of kvsnmp-check.
#include "check/options.h"

#include <cstdio>
#include <cstdlib>
#include <getopt.h>

namespace {

constexpr double maxSeconds = 60;

// clang-format off
constexpr option longOptions[] = {
    {"json",    no_argument,       nullptr, 'j'},
    {"timeout", required_argument, nullptr, 't'},
    {"help",    no_argument,       nullptr, 'h'},
    {"version", no_argument,       nullptr, 'V'},
    {nullptr,   0,                 nullptr, 0},
};
// clang-format on

constexpr char usage[] = "Usage: kvsnmp-check [--json] [--timeout SECONDS]\n"
                         "\n"
                         "Finds out why a device does not answer over SNMP. Changes nothing. Requires root.\n"
                         "\n"
                         "  -j, --json             write one JSON object\n"
                         "  -t, --timeout SECONDS  time limit of each answer (0.1 to 60, default 3)\n"
                         "  -h, --help             show this text\n"
                         "  -V, --version          show the version\n"
                         "\n"
                         "Exit status: 0 nothing has failed, 1 something has, 2 wrong usage, or not root.\n";

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

CheckOptions wrong(const char *text)
{
    std::fprintf(stderr, "%s\n%s", text, usage);
    return ending(exitUsage);
}

} // namespace

CheckOptions parseCheckOptions(int argc, char *argv[])
{
    CheckOptions options;
    for (;;) {
        switch (getopt_long(argc, argv, "jt:hV", longOptions, nullptr)) {
        case -1:
            return optind < argc ? wrong("kvsnmp-check: no arguments are taken") : options;
        case 'j':
            options.json = true;
            break;
        case 't': {
            const std::optional<int> timeoutMs = timeoutOf(optarg);
            if (!timeoutMs)
                return wrong("kvsnmp-check: --timeout takes 0.1 to 60 seconds");
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
            return ending(exitUsage);
        }
    }
}
