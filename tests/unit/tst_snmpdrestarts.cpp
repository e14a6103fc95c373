// Restarts of snmpd after changes of any spacing. The clock moves in steps, so each trial is the same on every machine,
// and snmpd is a model of one: it needs a while to start and to end, and killall misses it while it starts.
#include "support/snmpdbench.h"
#include "support/testprogram.h"

#include <algorithm>
#include <ctime>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace {
constexpr int stepMs = 10;
constexpr int killallMs = 20;  // how long killall runs
constexpr int endMs = 40;      // how long snmpd needs to end
constexpr int settleMs = 4500; // until the last restart is over

qint64 nowMs = 0; // CLOCK_MONOTONIC of the main thread; 0: the machine's own
thread_local bool isMainThread = false;
} // namespace

// Stands in front of the system's own. Other threads keep that one: one of them ends a test that runs too long.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own names are reserved
extern "C" int clock_gettime(clockid_t id, timespec *time) noexcept
{
    if (id != CLOCK_MONOTONIC || !isMainThread || nowMs == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, id, time));
    time->tv_sec = static_cast<time_t>(nowMs / 1000);
    time->tv_nsec = static_cast<long>(nowMs % 1000 * 1'000'000);
    return 0;
}

namespace {
/// A bench with its snmpd processes. The test fails if one is started too early, or killed while it runs well.
class SnmpdModel : public SnmpdBench {
public:
    /// A snmpd needs `startMs` from its start to its pid file. Until then killall misses it: it forks twice.
    SnmpdModel(int startMs, const QByteArray &config) : m_startMs(startMs)
    {
        onStart = [this](const Command &) { start(); };
        onRun = [this](const Command &command) { run(command); };
        replaceConfig(config);
        change("custom 1");
    }

    void pass(int ms)
    {
        for (const qint64 end = nowMs + ms; nowMs < end;) {
            nowMs += stepMs;
            for (Process &process : m_processes)
                progress(process);
        }
    }

    void passWithEvents(int ms)
    {
        for (; ms > 0; ms -= stepMs) {
            pass(stepMs);
            QCoreApplication::processEvents();
        }
    }

    void passUntilTheStart()
    {
        while (starts() == 0)
            passWithEvents(stepMs);
    }

    void replaceConfig(const QByteArray &text)
    {
        QFile::remove(configFile);
        writeFile(configFile, text);
    }

    QByteArrayList read() const
    {
        QByteArrayList texts;
        for (const Process &process : m_processes)
            if (process.state != State::Gone)
                texts.append(process.config);
        return texts;
    }
    int starts() const { return static_cast<int>(m_processes.size()); }
    int stops() const { return m_stops; }

    std::function<void()> duringStop = [] {}; ///< what happens while killall runs

private:
    enum class State { Starting, Runs, Ends, Gone };
    struct Process {
        QByteArray number;
        QByteArray config;
        State state;
        qint64 dueMs; // when the state ends by itself
    };

    void start()
    {
        QVERIFY2(m_stops > m_stopsAtStart, "started without a stop since the last start");
        QVERIFY2(nowMs - m_stoppedMs >= 500, "started less than 500 ms after the stop");
        m_stopsAtStart = m_stops;
        m_processes.push_back(
            {QByteArray::number(starts() + 1), readFile(configFile), State::Starting, nowMs + m_startMs});
        progress(m_processes.back());
    }

    void progress(Process &process)
    {
        if (nowMs < process.dueMs)
            return;
        if (process.state == State::Starting) {
            const bool portTaken = std::any_of(m_processes.cbegin(), m_processes.cend(), [](const Process &other) {
                return other.state == State::Runs || other.state == State::Ends;
            });
            process.state = portTaken ? State::Gone : State::Runs;
            if (!portTaken)
                writeFile(pidFile, process.number + '\n');
        } else if (process.state == State::Ends) {
            process.state = State::Gone;
            QFile::remove(pidFile);
        }
    }

    void run(const Command &command)
    {
        if (command.program == QLatin1String("killall")) {
            pass(killallMs);
            duringStop();
            m_stoppedMs = nowMs;
            ++m_stops;
            for (Process &process : m_processes)
                if (process.state == State::Runs) {
                    process.state = State::Ends;
                    process.dueMs = nowMs + endMs;
                }
        } else if (command.program == QLatin1String("kill")) {
            for (Process &process : m_processes)
                if (process.number == command.arguments.last().toLatin1()) {
                    QVERIFY2(process.state != State::Runs, "killed with signal 9 while it ran well");
                    process.state = State::Gone;
                }
        } else if (command.program == QLatin1String("rm")) {
            QFile::remove(command.arguments.last());
        }
    }

    int m_startMs;
    qint64 m_stoppedMs = 0;
    int m_stops = 0;
    int m_stopsAtStart = 0;
    std::vector<Process> m_processes;
};

/// Three changes, after three pauses: a coarse timer depends on the part of the second.
void tryChanges(int spacingMs, int startMs)
{
    SnmpdModel snmpd(startMs, "# first\n");
    snmpd.passWithEvents(settleMs);
    for (const int pauseMs : {0, 130, 270}) {
        const QByteArray trial =
            QStringLiteral("changes every %1 ms, snmpd starts within %2 ms, pause of %3 ms")
                .arg(QString::number(spacingMs), QString::number(startMs), QString::number(pauseMs))
                .toLatin1();
        const AtRow at(trial);
        snmpd.passWithEvents(pauseMs);
        const int stops = snmpd.stops();
        QByteArray newest;
        for (int change = 1; change <= 3; ++change) {
            newest = QByteArray::number(nowMs);
            snmpd.replaceConfig(newest);
            snmpd.passWithEvents(change < 3 ? spacingMs : settleMs);
        }
        QVERIFY2(snmpd.read() == QByteArrayList{newest}, qPrintable(snmpd.events.join(QLatin1Char('\n'))));
        if (spacingMs < 450) // the changes fold into one restart
            QCOMPARE(snmpd.stops(), stops + 1);
        snmpd.events.clear();
    }
}
} // namespace

class TestSnmpdRestarts : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        timespec time{};
        QCOMPARE(clock_gettime(CLOCK_MONOTONIC, &time), 0);
        nowMs = (time.tv_sec + 1) * 1000;
        isMainThread = true;
    }

    void changesOfAnySpacing()
    {
        for (int spacingMs = 0; spacingMs <= 1200 && !QTest::currentTestFailed(); spacingMs += 30)
            for (const int startMs : {0, 60, 450, 1400})
                tryChanges(spacingMs, startMs);
    }

    void changeDuringAStop()
    {
        SnmpdModel snmpd(60, "# first\n");
        snmpd.duringStop = [&] {
            if (snmpd.stops() == 0)
                snmpd.replaceConfig("# newest\n");
        };
        snmpd.passWithEvents(settleMs);
        QCOMPARE(snmpd.stops(), 2);
        QCOMPARE(snmpd.read(), QByteArrayList{"# newest\n"});
    }

    void stopCancelsThePendingStart()
    {
        const auto expect = [](int ageMs, int longKillallMs) {
            SnmpdModel snmpd(60, "# only one\n");
            snmpd.passUntilTheStart();
            snmpd.passWithEvents(ageMs);

            snmpd.handler->onRestartSnmpdTimeout();
            snmpd.passWithEvents(300);
            snmpd.duringStop = [&] { snmpd.pass(longKillallMs); };
            snmpd.handler->onRestartSnmpdTimeout();
            QCOMPARE(snmpd.stops(), 3);
            snmpd.passWithEvents(490);
            QCOMPARE(snmpd.starts(), 1);
            snmpd.passWithEvents(settleMs);
            QCOMPARE(snmpd.starts(), 2);
        };
        expect(10000, 0);
        expect(10000, 700); // a stop that lasts longer than the rest of the wait until the start
        expect(200, 0);     // a snmpd that was stopped soon after its start
    }

    /// One that ends at its start never writes the file, and must not hold up a restart with a better configuration.
    void snmpdWithoutPidFileIsWaitedForTwoSeconds()
    {
        SnmpdModel snmpd(1000 * settleMs, "# bad\n");
        snmpd.passUntilTheStart();
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
