// The Trace log: filtering, the line, numbering, threads.
#include "app/trace/trace.h"

#include "support/childprocess.h"
#include "support/messagelog.h"
#include "support/testprogram.h"

#include <cerrno>
#include <thread>

namespace {
QString text(const char *latin1)
{
    return QLatin1String(latin1);
}

void logs(const char *message)
{
    Trace::logs(text("Class"), text("function"), text(message));
}
} // namespace

class TestTrace : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        Trace::threadIds.clear();
        Trace::linenumber = 1;
        m_lines.clear();
        m_trace.reset(new Trace(nullptr));
        connect(
            m_trace.get(), &Trace::LogMessage, m_trace.get(), [this](const QString &line) { m_lines.append(line); },
            Qt::DirectConnection);
    }

    void cleanup() { m_trace.reset(); }

    void silentWithoutInstance()
    {
        cleanup();
        QVERIFY(Trace::instance == nullptr);
        logs("nobody hears it");
        Trace::applyLogFilters(0, 0);
        QCOMPARE(Trace::linenumber, 1);
        QVERIFY(Trace::threadIds.isEmpty());
        init();
        QCOMPARE(Trace::instance, m_trace.get());
    }

    void secondInstanceEndsTheProcess()
    {
        const ChildResult child = inChild([] {
            Trace second(nullptr);
            return 0;
        });
        QVERIFY2(child.exitedWith(255), child.err.constData());
    }

    void line()
    {
        const QDateTime before = QDateTime::currentDateTime();
        Trace::logId(1, 1, text("Class"), text("function"), text("third"), text("message"));
        const QDateTime after = QDateTime::currentDateTime();
        const QString expected = text("    1 ") + text("Class").leftJustified(30) + QLatin1Char(' ') +
                                 text("function").leftJustified(20) + QLatin1Char(' ') +
                                 text("third").leftJustified(20) + QLatin1Char(' ') +
                                 text("message").leftJustified(80) + text(", tid=1, ");
        QVERIFY2(m_lines.last().startsWith(expected), qPrintable(m_lines.last()));
        const QString stamp = m_lines.last().mid(expected.size());
        const QDateTime time = QDateTime::fromString(stamp, text("yyyy-MM-dd HH:mm:ss.zzz"));
        QVERIFY2(stamp.size() == 23 && before <= time && time <= after, qPrintable(stamp));

        Trace::linenumber = 123456;
        logs("message");
        QVERIFY(m_lines.last().startsWith(text("123456 Class")));
    }

    void textsStayAsTheyAre()
    {
        const QString name(31, QLatin1Char('n')); // longer than its field, as the message
        const QString message = text("100%5 of %L6 ") + QString(81, QLatin1Char('m'));
        Trace::logs(name, text("%1"), message);
        QVERIFY(m_lines.last().startsWith(text("    1 ") + name + text(" %1 ")));
        QVERIFY(m_lines.last().contains(QLatin1Char(' ') + message + text(", tid=1, ")));
    }

    void entryPointsUseGroupOneLevelOne()
    {
        for (const auto &[level, mask, lines] : {std::tuple{1, 0xffff, 2}, {2, -1, 0}, {0, 0xfffe, 0}}) {
            Trace::applyLogFilters(level, mask);
            m_lines.clear();
            Trace::log(text("Class"), text("function"), text("log"));
            logs("logs");
            QCOMPARE(m_lines.size(), lines);
        }
        Trace::log(2, 1, text("Class"), text("function"), text("group 2"));
        QCOMPARE(m_lines.size(), 1);
    }

    void filter()
    {
        // clang-format off
        static constexpr struct { const char *name; int minimumLevel, mask, group, level; int lines; } rows[] = {
            {"as it starts",                     -1,    -1,     1, 1, 1},
            {"level below the minimum",           2, 65535,     1, 1, 0},
            {"level at the minimum",              2, 65535,     1, 2, 1},
            {"level 0 against the start value",  -1,    -1,     1, 0, 0},
            {"minimum 0",                         0, 65535,     1, 0, 1},
            {"mask 0",                            1,     0, 65535, 9, 0},
            {"group outside the mask",            1,     4,     3, 1, 0},
            {"one bit in common",                 1,     6,     3, 1, 1},
            {"group above the 16 low ones",      -1,    -1, 65536, 1, 0},
            {"no group",                          1, 65535,     0, 1, 0},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            cleanup();
            init();
            Trace::applyLogFilters(row.minimumLevel, row.mask);
            m_lines.clear();
            Trace::threadIds.clear();
            const int number = Trace::linenumber;
            Trace::log(row.group, row.level, text("Class"), text("function"), text("message"));
            QCOMPARE(m_lines.size(), row.lines);
            QCOMPARE(Trace::linenumber, number + row.lines); // a dropped message consumes no number
            QCOMPARE(Trace::threadIds.size(), row.lines);
        }
    }

    void applyLogFiltersAnnouncesUnderTheOldSettings()
    {
        // clang-format off
        static constexpr struct { int level, mask; const char *announced; } steps[] = {
            {-1,    -1, nullptr},                                            // changes nothing
            { 2,    -1, "Setting LogLevel to: 2 "},                          // minimum was 1: passes
            { 3,    -1, "Setting LogLevel to: 3 "},                          // minimum was 2: passes
            {-1,     7, nullptr},                                            // minimum is 3: dropped
            { 1,     5, "Setting GroupFilter Mask to:              101 "},   // the level's line dropped, then passes
            {-1, 65535, "Setting GroupFilter Mask to: 1111111111111111 "},   // one bit in common
            {-1,     0, "Setting GroupFilter Mask to:                0 "},
            { 0,     1, nullptr},                                            // mask was 0: both dropped
        };
        // clang-format on
        for (const auto &step : steps) {
            m_lines.clear();
            Trace::applyLogFilters(step.level, step.mask);
            QCOMPARE(m_lines.size(), step.announced != nullptr ? 1 : 0);
            if (step.announced != nullptr)
                QVERIFY2(m_lines[0].mid(6).startsWith(text("Trace").leftJustified(31) +
                                                      text("applyLogFilters").leftJustified(42) + text(step.announced)),
                         qPrintable(m_lines[0]));
        }
        logs("heard again");
        QCOMPARE(m_lines.size(), 1);
    }

    void consolePrintIsOffUntilToggled()
    {
        MessageLog printed;
        logs("off");
        QVERIFY(QMetaObject::invokeMethod(m_trace.get(), "toggleConsolePrint"));
        logs("on \"quoted\"");
        QVERIFY(QMetaObject::invokeMethod(m_trace.get(), "toggleConsolePrint"));
        logs("off");
        QCOMPARE(printed.lines(), QStringList{m_lines[1]});
    }

    void threadsAreNumberedInTheOrderOfTheirFirstLines()
    {
        const auto logMany = [] {
            for (int i = 0; i < 500; ++i)
                logs("message");
        };
        logs("here");
        std::thread(logs, "there").join();
        logs("here again");
        std::thread one(logMany);
        std::thread two(logMany);
        one.join();
        two.join();
        QCOMPARE(m_lines.size(), 1003);
        for (int i = 0; i < m_lines.size(); ++i) {
            QCOMPARE(m_lines[i].leftRef(5).toInt(), i + 1); // no gaps
            if (i < 3)
                QVERIFY2(m_lines[i].contains(text(i == 1 ? ", tid=2, " : ", tid=1, ")), qPrintable(m_lines[i]));
        }
    }

    void errorText()
    {
        for (const auto &[number, expected] :
             {std::pair{ENOENT, "No such file or directory"}, {0, "Success"}, {9999, "Unknown error 9999"}}) {
            errno = number;
            QCOMPARE(Trace::getError(), text(expected));
        }
    }

private:
    QScopedPointer<Trace> m_trace;
    QStringList m_lines;
};

const TestEntry entry("tst_trace", runTest<TestTrace>);
#include "tst_trace.moc"
