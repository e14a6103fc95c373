// The Trace log: filtering, the line, numbering, threads.
#include "app/trace/trace.h"

#include "support/childprocess.h"
#include "support/testprogram.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QtTest>

#include <cerrno>
#include <thread>

namespace {

QStringList *printedLines = nullptr;

void keepPrintedLine(QtMsgType, const QMessageLogContext &context, const QString &text)
{
    printedLines->append(QLatin1String(context.category) + QLatin1Char('|') + text);
}

QString text(const char *latin1)
{
    return QLatin1String(latin1);
}

} // namespace

class TestTrace : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        Trace::threadIds.clear();
        Trace::linenumber = 1;
        m_trace.reset(new Trace(nullptr));
        m_lines.reset(new QSignalSpy(m_trace.get(), SIGNAL(LogMessage(QString))));
        QVERIFY(m_lines->isValid());
    }

    void cleanup()
    {
        m_lines.reset();
        m_trace.reset();
    }

    void silentWithoutInstance()
    {
        cleanup();
        QVERIFY(Trace::instance == nullptr);
        Trace::logs(text("Class"), text("function"), text("nobody hears it"));
        Trace::applyLogFilters(0, 0);
        QCOMPARE(Trace::linenumber, 1);
        QVERIFY(Trace::threadIds.isEmpty());
    }

    void secondInstanceEndsTheProcess()
    {
        const ChildResult child = inChild([] {
            Trace second(nullptr);
            return 0;
        });
        QVERIFY2(child.exitedWith(255), child.err.constData());
    }

    void destructorMakesRoomForAnother()
    {
        m_lines.reset();
        m_trace.reset();
        QVERIFY(Trace::instance == nullptr);
        m_trace.reset(new Trace(nullptr));
        QCOMPARE(Trace::instance, m_trace.get());
    }

    void line()
    {
        Trace::logId(1, 1, text("Class"), text("function"), text("third"), text("message"));
        const QString expected = text("    1 ") + text("Class").leftJustified(30) + QLatin1Char(' ') +
                                 text("function").leftJustified(20) + QLatin1Char(' ') +
                                 text("third").leftJustified(20) + QLatin1Char(' ') +
                                 text("message").leftJustified(80) + text(", tid=1, ");
        QVERIFY2(lastLine().startsWith(expected), qPrintable(lastLine()));
        const QString time = lastLine().mid(expected.size());
        const QRegularExpression timeForm(text("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}$"));
        QVERIFY2(timeForm.match(time).hasMatch(), qPrintable(time));

        Trace::linenumber = 123456;
        Trace::logs(text("Class"), text("function"), text("message"));
        QVERIFY(lastLine().startsWith(text("123456 Class")));
    }

    void longFieldsAreNotCut()
    {
        const QString message(81, QLatin1Char('m'));
        const QString name(31, QLatin1Char('n'));
        Trace::logs(name, text("function"), message);
        QVERIFY(lastLine().contains(QLatin1Char(' ') + name + text(" function ")));
        QVERIFY(lastLine().contains(QLatin1Char(' ') + message + text(", tid=1, ")));
    }

    void placeholderLookalikesStayAsTheyAre()
    {
        Trace::logs(text("%7"), text("%1"), text("100%5 of %L6"));
        QVERIFY(lastLine().startsWith(text("    1 %7 ")));
        QVERIFY(lastLine().contains(text(" %1 ")));
        QVERIFY(lastLine().contains(text(" 100%5 of %L6 ")));
    }

    void entryPointsUseGroupOneLevelOne()
    {
        Trace::log(text("Class"), text("function"), text("log"));
        Trace::logs(text("Class"), text("function"), text("logs"));
        QCOMPARE(m_lines->count(), 2);
        Trace::applyLogFilters(-1, 0xfffe);
        m_lines->clear();
        Trace::log(text("Class"), text("function"), text("log"));
        Trace::logs(text("Class"), text("function"), text("logs"));
        QCOMPARE(m_lines->count(), 0);
        Trace::log(2, 1, text("Class"), text("function"), text("group 2"));
        QCOMPARE(m_lines->count(), 1);
    }

    void filter_data()
    {
        QTest::addColumn<int>("minimumLevel");
        QTest::addColumn<int>("mask");
        QTest::addColumn<int>("group");
        QTest::addColumn<int>("level");
        QTest::addColumn<bool>("passes");

        QTest::newRow("as it starts") << 1 << 65535 << 1 << 1 << true;
        QTest::newRow("level below the minimum") << 2 << 65535 << 1 << 1 << false;
        QTest::newRow("level at the minimum") << 2 << 65535 << 1 << 2 << true;
        QTest::newRow("level 0 against the start value") << 1 << 65535 << 1 << 0 << false;
        QTest::newRow("minimum 0") << 0 << 65535 << 1 << 0 << true;
        QTest::newRow("mask 0") << 1 << 0 << 65535 << 9 << false;
        QTest::newRow("group outside the mask") << 1 << 4 << 3 << 1 << false;
        QTest::newRow("one bit in common") << 1 << 6 << 3 << 1 << true;
        QTest::newRow("group above the 16 low ones") << 1 << 65535 << 65536 << 1 << false;
        QTest::newRow("no group") << 1 << 65535 << 0 << 1 << false;
    }

    void filter()
    {
        QFETCH(int, minimumLevel);
        QFETCH(int, mask);
        QFETCH(int, group);
        QFETCH(int, level);
        QFETCH(bool, passes);

        Trace::applyLogFilters(minimumLevel, mask);
        m_lines->clear();
        Trace::log(group, level, text("Class"), text("function"), text("message"));
        QCOMPARE(m_lines->count(), passes ? 1 : 0);
    }

    void droppedMessagesConsumeNoNumber()
    {
        Trace::log(1, 0, text("Class"), text("function"), text("dropped"));
        QCOMPARE(Trace::linenumber, 1);
        QVERIFY(Trace::threadIds.isEmpty());
        Trace::logs(text("Class"), text("function"), text("first"));
        Trace::log(1, 0, text("Class"), text("function"), text("dropped"));
        Trace::logs(text("Class"), text("function"), text("second"));
        QVERIFY(lastLine().startsWith(text("    2 ")));
        QCOMPARE(Trace::linenumber, 3);
    }

    void applyLogFiltersAnnouncesUnderTheOldSettings()
    {
        Trace::applyLogFilters(2, -1); // minimum was 1: passes
        QCOMPARE(m_lines->count(), 1);
        QVERIFY(lastLine().contains(text(" Trace ")));
        QVERIFY(lastLine().contains(text(" applyLogFilters ")));
        QVERIFY(lastLine().contains(text(" Setting LogLevel to: 2 ")));
        Trace::logs(text("Class"), text("function"), text("level 1"));
        QCOMPARE(m_lines->count(), 1);
        Trace::applyLogFilters(3, -1); // minimum was 2: passes
        QCOMPARE(m_lines->count(), 2);
        Trace::applyLogFilters(1, 0); // minimum was 3: dropped; then 1: the mask's line passes
        QCOMPARE(m_lines->count(), 3);
        QVERIFY(lastLine().contains(text("Setting GroupFilter Mask to: ")));
        Trace::applyLogFilters(0, 1); // mask is 0: both dropped
        QCOMPARE(m_lines->count(), 3);
        Trace::logs(text("Class"), text("function"), text("heard again"));
        QCOMPARE(m_lines->count(), 4);
    }

    void applyLogFiltersMaskText()
    {
        Trace::applyLogFilters(-1, 5);
        QVERIFY(lastLine().contains(text(" Setting GroupFilter Mask to:              101 ")));
        Trace::applyLogFilters(-1, 65535);
        QVERIFY(lastLine().contains(text(" Setting GroupFilter Mask to: 1111111111111111 ")));
    }

    void negativeFiltersChangeNothingAndLogNothing()
    {
        Trace::applyLogFilters(-1, -1);
        QCOMPARE(m_lines->count(), 0);
        QCOMPARE(Trace::linenumber, 1);
        Trace::logs(text("Class"), text("function"), text("as before"));
        QCOMPARE(m_lines->count(), 1);
    }

    void consolePrintIsOffUntilToggled()
    {
        QStringList lines;
        printedLines = &lines;
        const QtMessageHandler previous = qInstallMessageHandler(keepPrintedLine);
        Trace::logs(text("Class"), text("function"), text("off"));
        QVERIFY(QMetaObject::invokeMethod(m_trace.get(), "toggleConsolePrint"));
        Trace::logs(text("Class"), text("function"), text("on \"quoted\""));
        const QString loggedLine = lastLine();
        QVERIFY(QMetaObject::invokeMethod(m_trace.get(), "toggleConsolePrint"));
        Trace::logs(text("Class"), text("function"), text("off"));
        qInstallMessageHandler(previous);
        QCOMPARE(lines, QStringList{text("default|") + loggedLine});
    }

    void threadsAreNumberedInTheOrderOfTheirFirstLines()
    {
        QStringList lines;
        connect(
            m_trace.get(), &Trace::LogMessage, m_trace.get(), [&lines](const QString &line) { lines.append(line); },
            Qt::DirectConnection);
        Trace::logs(text("Class"), text("function"), text("here"));
        std::thread second([] {
            Trace::logs(text("Class"), text("function"), text("there"));
            Trace::logs(text("Class"), text("function"), text("there again"));
        });
        second.join();
        Trace::logs(text("Class"), text("function"), text("here again"));

        const QStringList threads{text(", tid=1, "), text(", tid=2, "), text(", tid=2, "), text(", tid=1, ")};
        QCOMPARE(lines.size(), threads.size());
        for (int i = 0; i < lines.size(); ++i)
            QVERIFY2(lines[i].contains(threads[i]), qPrintable(lines[i]));
        QCOMPARE(Trace::threadIds.size(), 2);
    }

    void numbersHaveNoGapsAcrossThreads()
    {
        QStringList lines;
        connect(
            m_trace.get(), &Trace::LogMessage, m_trace.get(), [&lines](const QString &line) { lines.append(line); },
            Qt::DirectConnection);
        const auto logMany = [] {
            for (int i = 0; i < 500; ++i)
                Trace::logs(text("Class"), text("function"), text("message"));
        };
        std::thread one(logMany);
        std::thread two(logMany);
        one.join();
        two.join();
        QCOMPARE(lines.size(), 1000);
        for (int i = 0; i < lines.size(); ++i)
            QCOMPARE(lines[i].leftRef(5).toInt(), i + 1);
    }

    void lockIsReleasedAfterEachLine()
    {
        Trace::logs(text("Class"), text("function"), text("message"));
        QVERIFY(Trace::traceMutex.tryLock());
        Trace::unlock();
        Trace::lock();
        QVERIFY(!Trace::traceMutex.tryLock());
        Trace::unlock();
    }

    void errorText_data()
    {
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("expected");

        QTest::newRow("ENOENT") << ENOENT << text("No such file or directory");
        QTest::newRow("0") << 0 << text("Success");
        QTest::newRow("no such number") << 9999 << text("Unknown error 9999");
    }

    void errorText()
    {
        QFETCH(int, number);
        QFETCH(QString, expected);

        errno = number;
        QCOMPARE(Trace::getError(), expected);
    }

    void timestampForm()
    {
        const QDateTime before = QDateTime::currentDateTime();
        const QString stamp = text(updateTimestamp());
        const QDateTime after = QDateTime::currentDateTime();
        const QDateTime told = QDateTime::fromString(stamp, text("yyyy-MM-dd HH:mm:ss.zzz"));
        QVERIFY2(told.isValid(), qPrintable(stamp));
        QVERIFY(before <= told && told <= after);
        QVERIFY(updateTimestamp() == updateTimestamp()); // one shared buffer
    }

    void inertSwitches()
    {
        QVERIFY(!Trace::syncLogging);
        QVERIFY(!Trace::blockOnFullQueue);
    }

private:
    QString lastLine() const { return m_lines->isEmpty() ? QString() : m_lines->last().at(0).toString(); }

    QScopedPointer<Trace> m_trace;
    QScopedPointer<QSignalSpy> m_lines;
};

const TestEntry entry("tst_trace", runTest<TestTrace>);
#include "tst_trace.moc"
