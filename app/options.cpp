// The command line: one table of long options, one parser.
#include "app/options.h"

#include <cstdlib>
#include <getopt.h>

namespace {

constexpr char shortOptions[] = "hvdzt"; // v and t are accepted and have no handler

// clang-format off
constexpr option longOptions[] = {
    {"help",     no_argument, nullptr, 'h'},
    {"testmode", no_argument, nullptr, 't'},
    {"daemon",   no_argument, nullptr, 'd'},
    {"taldebug", no_argument, nullptr, 'z'},
    {"NULL",     no_argument, nullptr, 0},  // an option with this name, not the end of the table
    {nullptr,    0,           nullptr, 0},
};
// clang-format on

} // namespace

Options parseOptions(int argc, char *argv[])
{
    Options options;
    for (;;) {
        switch (getopt_long(argc, argv, shortOptions, longOptions, nullptr)) {
        case -1:
            return options;
        case 'd':
            options.daemon = false;
            break;
        case 'z':
            options.talDebug = true;
            break;
        case 'h':
            printUsage(stdout, EXIT_SUCCESS);
        case '?':
            printUsage(stderr, EXIT_FAILURE);
        default:
            std::abort(); // intended, even for the advertised test mode
        }
    }
}

void printUsage(std::FILE *stream, int status)
{
    std::fputs("\nUsage: kvsnmp options\n", stream);
    std::fputs("\nOptions:\n"
               "  -h  --help         Display this usage information.\n"
               "  -t  --testmode     Run in Audio testmode, Not implemented!\n"
               "  -d  --daemon       Dont run as an daemon\n",
               stream);
    std::fputc('\n', stream);
    std::exit(status);
}
