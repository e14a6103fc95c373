// Restarts of snmpd after changes of any spacing. The clock moves in steps, so each trial is the same on every machine,
// and snmpd is a model of one: it takes a while to start and to end, and killall misses it while it starts.
#include "support/snmpdbench.h"
#include "support/testprogram.h"

#include <QCoreApplication>
#include <QtTest>

#include <algorithm>
#include <ctime>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr qint64 nsPerSecond = 1'000'000'000;
constexpr qint64 nsPerMs = 1'000'000;
constexpr int stepMs = 10;
constexpr int killallMs = 20;  // how long killall runs
constexpr int endMs = 40;      // how long snmpd takes to end
constexpr int settleMs = 4500; // until the last restart is over

qint64 now = 0; // CLOCK_MONOTONIC of the main thread, in ns; 0: the machine's own
thread_local bool isMainThread = false;

} // namespace

// Stands in front of the system's own. Other threads keep that one: one of them ends a test that takes too long.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own names are reserved
extern "C" int clock_gettime(clockid_t id, timespec *time) noexcept
{
    if (id != CLOCK_MONOTONIC || !isMainThread || now == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, id, time));
    time->tv_sec = static_cast<time_t>(now / nsPerSecond);
    time->tv_nsec = static_cast<long>(now % nsPerSecond);
    return 0;
}

namespace {

/// The snmpd processes of a bench.
class SnmpdModel {
public:
    /// A snmpd needs `startMs` from its start to its pid file. Until then killall misses it: it forks twice.
    SnmpdModel(SnmpdBench &bench, int startMs) : m_bench(bench), m_startNs(startMs * nsPerMs)
    {
        bench.onStart = [this](const Command &) { start(); };
        bench.onRun = [this](const Command &command) { run(command); };
    }

    /// Some time passes, and what is due in it happens.
    void pass(int ms)
    {
        for (const qint64 end = now + ms * nsPerMs; now < end;) {
            now += stepMs * nsPerMs;
            for (Process &process : m_processes)
                progress(process);
        }
    }

    /// Like pass(), with the event loop running.
    void passWithEvents(int ms)
    {
        for (; ms > 0; ms -= stepMs) {
            pass(stepMs);
            QCoreApplication::processEvents();
        }
    }

    void replaceConfig(const QByteArray &text)
    {
        QFile::remove(m_bench.configFile);
        SnmpdBench::write(m_bench.configFile, text);
    }

    /// What the snmpd processes that run have read.
    QList<QByteArray> read() const
    {
        QList<QByteArray> texts;
        for (const Process &process : m_processes)
            if (process.state != State::Gone)
                texts.append(process.config);
        return texts;
    }
    int starts() const { return static_cast<int>(m_processes.size()); }
    int stops() const { return m_stops; }
    /// Starts without a stop since the last one, or less than 500 ms after it.
    int hastyStarts() const { return m_hastyStarts; }
    /// snmpd processes that ran well when they were killed with signal 9.
    int healthyKilled() const { return m_healthyKilled; }

    std::function<void()> duringStop = [] {}; ///< what happens while killall runs

private:
    enum class State { Starting, Runs, Ends, Gone };
    struct Process {
        QByteArray number;
        QByteArray config;
        State state;
        qint64 due; // when the state ends by itself
    };

    void start()
    {
        if (m_stops == m_stopsAtStart || now - m_stopped < 500 * nsPerMs)
            ++m_hastyStarts;
        m_stopsAtStart = m_stops;
        m_processes.push_back(
            {QByteArray::number(starts() + 1), SnmpdBench::read(m_bench.configFile), State::Starting, now + m_startNs});
        progress(m_processes.back());
    }

    void progress(Process &process)
    {
        if (now < process.due)
            return;
        if (process.state == State::Starting) {
            const bool portTaken = std::any_of(m_processes.cbegin(), m_processes.cend(), [](const Process &other) {
                return other.state == State::Runs || other.state == State::Ends;
            });
            process.state = portTaken ? State::Gone : State::Runs;
            if (!portTaken)
                SnmpdBench::write(m_bench.pidFile, process.number + '\n');
        } else if (process.state == State::Ends) {
            process.state = State::Gone;
            QFile::remove(m_bench.pidFile);
        }
    }

    void run(const Command &command)
    {
        if (command.program == QLatin1String("killall")) {
            pass(killallMs);
            duringStop();
            m_stopped = now;
            ++m_stops;
            for (Process &process : m_processes)
                if (process.state == State::Runs) {
                    process.state = State::Ends;
                    process.due = now + endMs * nsPerMs;
                }
        } else if (command.program == QLatin1String("kill")) {
            for (Process &process : m_processes)
                if (process.number == command.arguments.last().toLatin1()) {
                    m_healthyKilled += process.state == State::Runs ? 1 : 0;
                    process.state = State::Gone;
                }
        } else if (command.program == QLatin1String("rm")) {
            QFile::remove(command.arguments.last());
        }
    }

    SnmpdBench &m_bench;
    qint64 m_startNs;
    qint64 m_stopped = 0;
    int m_stops = 0;
    int m_stopsAtStart = 0;
    int m_hastyStarts = 0;
    int m_healthyKilled = 0;
    std::vector<Process> m_processes;
};

} // namespace

/// A coarse timer looks at the part of the second, hence the trials with other pauses before them.
/// One that ends at its start never writes the file, and must not keep back a restart with a better configuration.

class TestSnmpdRestarts : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        timespec time{};
        QCOMPARE(clock_gettime(CLOCK_MONOTONIC, &time), 0);
        now = (time.tv_sec + 1) * nsPerSecond;
        isMainThread = true;
    }

    void changesOfAnySpacing_data()
    {
        QTest::addColumn<int>("spacingMs");
        for (int spacingMs = 0; spacingMs <= 1200; spacingMs += 10)
            QTest::addRow("%d ms", spacingMs) << spacingMs;
    }

    void changesOfAnySpacing()
    {
        QFETCH(int, spacingMs);
        for (const int startMs : {0, 60, 450, 1400}) {
            SnmpdBench bench;
            SnmpdModel snmpd(bench, startMs);
            snmpd.replaceConfig("# first\n");
            Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
            snmpd.passWithEvents(settleMs);
            for (const int pauseMs : {0, 130, 270}) {
                snmpd.passWithEvents(pauseMs);
                QByteArray newest;
                for (int change = 1; change <= 3; ++change) {
                    newest = QByteArray::number(now / nsPerMs);
                    snmpd.replaceConfig(newest);
                    snmpd.passWithEvents(change < 3 ? spacingMs : settleMs);
                }
                const QByteArray trial = QByteArray("snmpd starts within ") + QByteArray::number(startMs) +
                                         " ms, pause of " + QByteArray::number(pauseMs) + " ms\n" +
                                         bench.events.join(QLatin1Char('\n')).toUtf8();
                QVERIFY2(snmpd.healthyKilled() == 0, trial.constData());
                QVERIFY2(snmpd.hastyStarts() == 0, trial.constData());
                QVERIFY2(snmpd.read() == QList<QByteArray>{newest}, trial.constData());
                bench.events.clear();
            }
        }
    }

    void changeDuringAStop()
    {
        SnmpdBench bench;
        SnmpdModel snmpd(bench, 60);
        snmpd.duringStop = [&] {
            if (snmpd.stops() == 0)
                snmpd.replaceConfig("# newest\n");
        };
        snmpd.replaceConfig("# first\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        snmpd.passWithEvents(settleMs);
        QCOMPARE(snmpd.stops(), 2);
        QCOMPARE(snmpd.hastyStarts(), 0);
        QCOMPARE(snmpd.healthyKilled(), 0);
        QCOMPARE(snmpd.read(), QList<QByteArray>{"# newest\n"});
    }

    void stopCancelsThePendingStart_data()
    {
        QTest::addColumn<int>("ageMs");
        QTest::addColumn<int>("longKillallMs");
        QTest::newRow("short stop") << 10000 << 0;
        QTest::newRow("stop that takes longer than what is left until the start") << 10000 << 700;
        QTest::newRow("snmpd that was stopped soon after its start") << 200 << 0;
    }

    void stopCancelsThePendingStart()
    {
        QFETCH(int, ageMs);
        QFETCH(int, longKillallMs);
        SnmpdBench bench;
        SnmpdModel snmpd(bench, 60);
        snmpd.replaceConfig("# only one\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        while (snmpd.starts() == 0)
            snmpd.passWithEvents(stepMs);
        snmpd.passWithEvents(ageMs);

        bench.handler->onRestartSnmpdTimeout();
        snmpd.passWithEvents(300);
        snmpd.duringStop = [&] { snmpd.pass(longKillallMs); };
        bench.handler->onRestartSnmpdTimeout();
        QCOMPARE(snmpd.stops(), 3);
        snmpd.passWithEvents(490);
        QCOMPARE(snmpd.starts(), 1);
        snmpd.passWithEvents(settleMs);
        QCOMPARE(snmpd.starts(), 2);
        QCOMPARE(snmpd.hastyStarts(), 0);
        QCOMPARE(snmpd.healthyKilled(), 0);
    }

    void snmpdWithoutPidFileIsWaitedForTwoSeconds()
    {
        SnmpdBench bench;
        SnmpdModel snmpd(bench, 1000 * settleMs);
        snmpd.replaceConfig("# bad\n");
        Q_EMIT bench.tal.handler.signalSnmpdConfUseCustomConfFile(true);
        while (snmpd.starts() == 0)
            snmpd.passWithEvents(stepMs);
        QCOMPARE(snmpd.stops(), 1);
        snmpd.replaceConfig("# better\n");
        snmpd.passWithEvents(1900);
        QCOMPARE(snmpd.stops(), 1);
        snmpd.passWithEvents(650); // two seconds, and the next attempt within 500 ms
        QCOMPARE(snmpd.stops(), 2);

        snmpd.passWithEvents(settleMs);
        snmpd.replaceConfig("# best\n");
        snmpd.passWithEvents(550);
        QCOMPARE(snmpd.stops(), 3);
    }
};

const TestEntry entry("tst_snmpdrestarts", runTest<TestSnmpdRestarts>);

#include "tst_snmpdrestarts.moc"
