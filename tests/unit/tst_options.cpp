// The command line: what each option does to the settings or to the process.
#include "app/options.h"

#include "support/childprocess.h"
#include "support/testprogram.h"

#include <QtTest>

#include <vector>

namespace {

constexpr char usage[] = "\nUsage: kvsnmp options\n"
                         "\nOptions:\n"
                         "  -h  --help         Display this usage information.\n"
                         "  -t  --testmode     Run in Audio testmode, Not implemented!\n"
                         "  -d  --daemon       Dont run as an daemon\n"
                         "\n";

Options parse(QList<QByteArray> words)
{
    words.prepend("kvsnmp");
    std::vector<char *> arguments;
    for (QByteArray &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    return parseOptions(words.size(), arguments.data());
}

/// The settings come back as the child's exit status: 10, plus 1 for daemon, plus 2 for taldebug.
ChildResult parseInChild(const QList<QByteArray> &words)
{
    return inChild([words] {
        const Options options = parse(words);
        return 10 + (options.daemon ? 1 : 0) + (options.talDebug ? 2 : 0);
    });
}

} // namespace

class TestOptions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void settings_data()
    {
        QTest::addColumn<QList<QByteArray>>("words");
        QTest::addColumn<bool>("daemon");
        QTest::addColumn<bool>("talDebug");

        QTest::newRow("none: a daemon") << QList<QByteArray>{} << true << false;
        QTest::newRow("-d") << QList<QByteArray>{"-d"} << false << false;
        QTest::newRow("--daemon") << QList<QByteArray>{"--daemon"} << false << false;
        QTest::newRow("-z") << QList<QByteArray>{"-z"} << true << true;
        QTest::newRow("--taldebug") << QList<QByteArray>{"--taldebug"} << true << true;
        QTest::newRow("-dz") << QList<QByteArray>{"-dz"} << false << true;
        QTest::newRow("a word that is no option") << QList<QByteArray>{"word", "-d"} << false << false;
    }

    void settings()
    {
        QFETCH(QList<QByteArray>, words);
        QFETCH(bool, daemon);
        QFETCH(bool, talDebug);

        const ChildResult child = parseInChild(words);
        QVERIFY(child.exitedWith(10 + (daemon ? 1 : 0) + (talDebug ? 2 : 0)));
        QCOMPARE(child.out, QByteArray());
        QCOMPARE(child.err, QByteArray());
    }

    void helpGoesToStandardOutput_data()
    {
        QTest::addColumn<QList<QByteArray>>("words");

        QTest::newRow("-h") << QList<QByteArray>{"-h"};
        QTest::newRow("--help") << QList<QByteArray>{"--help"};
        QTest::newRow("before an unknown option") << QList<QByteArray>{"-d", "-h", "-x"};
    }

    void helpGoesToStandardOutput()
    {
        QFETCH(QList<QByteArray>, words);

        const ChildResult child = parseInChild(words);
        QVERIFY(child.exitedWith(0));
        QCOMPARE(child.out, QByteArray(usage));
        QCOMPARE(child.err, QByteArray());
    }

    void unknownOptionGivesUsageOnStandardError_data()
    {
        QTest::addColumn<QList<QByteArray>>("words");

        QTest::newRow("-x") << QList<QByteArray>{"-x"};
        QTest::newRow("--unknown") << QList<QByteArray>{"--unknown"};
        QTest::newRow("--daemon=yes: takes no argument") << QList<QByteArray>{"--daemon=yes"};
    }

    void unknownOptionGivesUsageOnStandardError()
    {
        QFETCH(QList<QByteArray>, words);

        const ChildResult child = parseInChild(words);
        QVERIFY(child.exitedWith(1));
        QCOMPARE(child.out, QByteArray());
        QVERIFY2(child.err.endsWith(usage), child.err.constData());
    }

    void acceptedButNotImplementedAborts_data()
    {
        QTest::addColumn<QList<QByteArray>>("words");

        QTest::newRow("-t") << QList<QByteArray>{"-t"};
        QTest::newRow("-v") << QList<QByteArray>{"-v"};
        QTest::newRow("--testmode") << QList<QByteArray>{"--testmode"};
        QTest::newRow("--NULL") << QList<QByteArray>{"--NULL"};
        QTest::newRow("after -d") << QList<QByteArray>{"-d", "-t"};
    }

    void acceptedButNotImplementedAborts()
    {
        QFETCH(QList<QByteArray>, words);

        const ChildResult child = parseInChild(words);
        QVERIFY(child.endedBy(SIGABRT));
        QCOMPARE(child.out, QByteArray());
        QCOMPARE(child.err, QByteArray());
    }
};

const TestEntry entry("tst_options", runTest<TestOptions>);
#include "tst_options.moc"
