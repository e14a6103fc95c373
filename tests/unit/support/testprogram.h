// One program holds the tests of a room. It runs the one that its first argument names.
#pragma once

#include <QtTest>

/// A test by name. Each source of tests/unit has one, at file scope.
class TestEntry {
public:
    using Run = int (*)(int argc, char **argv);

    TestEntry(const char *name, Run run);
    TestEntry(const TestEntry &) = delete;
    TestEntry &operator=(const TestEntry &) = delete;

    const char *name;
    Run run;
    const TestEntry *next; ///< the entry made before this one
};

template <class Test>
int runTest(int argc, char **argv)
{
    Test test;
    return QTest::qExec(&test, argc, argv);
}
