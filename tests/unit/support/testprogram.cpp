// Runs the test that the first argument names; the other arguments are Qt Test's.
#include "support/testprogram.h"

#include <QCoreApplication>

#include <cstdio>
#include <string_view>

namespace {
const TestEntry *entries = nullptr;
} // namespace

TestEntry::TestEntry(const char *entryName, Run entryRun) : name(entryName), run(entryRun), next(entries)
{
    entries = this;
}

int main(int argc, char **argv)
{
    const std::string_view wanted = argc > 1 ? argv[1] : "";
    for (const TestEntry *entry = entries; entry != nullptr; entry = entry->next) {
        if (entry->name != wanted)
            continue;
        argv[1] = argv[0];
        int rest = argc - 1;
        const QCoreApplication app(rest, argv + 1);
        return entry->run(rest, argv + 1);
    }
    std::fprintf(stderr, "usage: %s TEST [OPTION OF QT TEST]...\n", argv[0]);
    for (const TestEntry *entry = entries; entry != nullptr; entry = entry->next)
        std::fprintf(stderr, "  %s\n", entry->name);
    return 2;
}
