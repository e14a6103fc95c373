// One program holds the tests of a room. It runs the one that its first argument names.
#pragma once

#include <QtTest>

/// A test by name. Each source of tests/unit has one, at file scope.
class TestEntry {
public:
    using Run = int (*)(int argc, char **argv);

    TestEntry(const char *name, Run run);
    Q_DISABLE_COPY(TestEntry)

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
    explicit AtRow(QByteArray name) : m_name(std::move(name)) {}
    Q_DISABLE_COPY(AtRow)
    ~AtRow()
    {
        if (QTest::currentTestFailed())
            qWarning("in the row \"%s\"", m_name.constData());
    }

private:
    QByteArray m_name;
};

inline QString qs(const QByteArray &utf8)
{
    return QString::fromUtf8(utf8);
}

/// The signatures of a class's methods of one kind, without those it inherits, in the order of their declaration.
inline QString ownMethods(const QMetaObject &meta, QMetaMethod::MethodType type)
{
    QStringList all;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        if (meta.method(i).methodType() == type)
            all << QString::fromLatin1(meta.method(i).methodSignature());
    return all.join(QLatin1Char(' '));
}
