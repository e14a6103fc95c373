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

/// Names the row of a table that a loop is at: when the test fails in its scope, the name is printed.
class AtRow {
public:
    explicit AtRow(const char *name) : m_name(name) {}
    AtRow(const AtRow &) = delete;
    AtRow &operator=(const AtRow &) = delete;
    ~AtRow()
    {
        if (QTest::currentTestFailed())
            qWarning("in the row \"%s\"", m_name);
    }

private:
    const char *m_name;
};
