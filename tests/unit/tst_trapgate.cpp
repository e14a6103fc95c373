// The way to the master, every state by every event: where the gate goes, and what becomes of the faults that are
// there. The gate, the sender and the fault list are the real ones; the library's sending end is replaced here.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"
#include "faults/faulthandler.h"

#include <QtTest>

#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
using State = TrapGate::State;

enum class Event {
    Raise,
    Clear,
    Disable,     // the trap of the faults
    EnableOther, // another trap
    Pass,
    ReadAndPass, // the master reads all that it was sent, then a pass ends
    OpenSession, // another one when one is open
    CloseSession,
    HangUp,
    OrderEnd,
    Start,
};

/// When a fault's trap goes out: at the event or before it, only when the way is open again, or not at all.
enum class Fate { Now, Later, Never };

struct Row {
    State state;
    Event event;
    State next;
    int runs;     // how often the gate calls that it is open
    Fate present; // a fault raised in the state; the event Clear ends it
    Fate ended;   // a fault raised and ended in the state
};

// clang-format off
constexpr Row table[] = {
    {State::NoSession,    Event::Raise,        State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::Clear,        State::NoSession,    0, Fate::Never, Fate::Never},
    {State::NoSession,    Event::Disable,      State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::EnableOther,  State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::Pass,         State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::ReadAndPass,  State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::OpenSession,  State::Open,         1, Fate::Now,   Fate::Never},
    {State::NoSession,    Event::CloseSession, State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::HangUp,       State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::OrderEnd,     State::NoSession,    0, Fate::Later, Fate::Never},
    {State::NoSession,    Event::Start,        State::NoSession,    0, Fate::Later, Fate::Never},

    {State::MasterEnding, Event::Raise,        State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::Clear,        State::MasterEnding, 0, Fate::Never, Fate::Never},
    {State::MasterEnding, Event::Disable,      State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::EnableOther,  State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::Pass,         State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::ReadAndPass,  State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::OpenSession,  State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::CloseSession, State::NoSession,    0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::HangUp,       State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::OrderEnd,     State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterEnding, Event::Start,        State::Open,         1, Fate::Now,   Fate::Never},

    {State::MasterGone,   Event::Raise,        State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::Clear,        State::MasterGone,   0, Fate::Never, Fate::Never},
    {State::MasterGone,   Event::Disable,      State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::EnableOther,  State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::Pass,         State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::ReadAndPass,  State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::OpenSession,  State::Open,         1, Fate::Now,   Fate::Never},
    {State::MasterGone,   Event::CloseSession, State::NoSession,    0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::HangUp,       State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::OrderEnd,     State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterGone,   Event::Start,        State::MasterGone,   0, Fate::Later, Fate::Never},

    {State::MasterSlow,   Event::Raise,        State::MasterSlow,   0, Fate::Later, Fate::Later},
    {State::MasterSlow,   Event::Clear,        State::MasterSlow,   0, Fate::Later, Fate::Later},
    {State::MasterSlow,   Event::Disable,      State::MasterSlow,   0, Fate::Later, Fate::Never},
    {State::MasterSlow,   Event::EnableOther,  State::MasterSlow,   0, Fate::Later, Fate::Later},
    {State::MasterSlow,   Event::Pass,         State::MasterSlow,   0, Fate::Later, Fate::Later},
    {State::MasterSlow,   Event::ReadAndPass,  State::Open,         1, Fate::Now,   Fate::Now},
    {State::MasterSlow,   Event::OpenSession,  State::Open,         1, Fate::Now,   Fate::Never},
    {State::MasterSlow,   Event::CloseSession, State::NoSession,    0, Fate::Later, Fate::Never},
    {State::MasterSlow,   Event::HangUp,       State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::MasterSlow,   Event::OrderEnd,     State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::MasterSlow,   Event::Start,        State::MasterSlow,   0, Fate::Later, Fate::Later},

    {State::PassFull,     Event::Raise,        State::PassFull,     0, Fate::Later, Fate::Later},
    {State::PassFull,     Event::Clear,        State::PassFull,     0, Fate::Later, Fate::Later},
    {State::PassFull,     Event::Disable,      State::PassFull,     0, Fate::Later, Fate::Never},
    {State::PassFull,     Event::EnableOther,  State::PassFull,     0, Fate::Later, Fate::Later},
    {State::PassFull,     Event::Pass,         State::Open,         1, Fate::Now,   Fate::Now},
    {State::PassFull,     Event::ReadAndPass,  State::Open,         1, Fate::Now,   Fate::Now},
    {State::PassFull,     Event::OpenSession,  State::Open,         1, Fate::Now,   Fate::Never},
    {State::PassFull,     Event::CloseSession, State::NoSession,    0, Fate::Later, Fate::Never},
    {State::PassFull,     Event::HangUp,       State::MasterGone,   0, Fate::Later, Fate::Never},
    {State::PassFull,     Event::OrderEnd,     State::MasterEnding, 0, Fate::Later, Fate::Never},
    {State::PassFull,     Event::Start,        State::PassFull,     0, Fate::Later, Fate::Later},

    {State::Open,         Event::Raise,        State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::Clear,        State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::Disable,      State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::EnableOther,  State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::Pass,         State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::ReadAndPass,  State::Open,         0, Fate::Now,   Fate::Now},
    {State::Open,         Event::OpenSession,  State::Open,         1, Fate::Now,   Fate::Now},
    {State::Open,         Event::CloseSession, State::NoSession,    0, Fate::Now,   Fate::Now},
    {State::Open,         Event::HangUp,       State::MasterGone,   0, Fate::Now,   Fate::Now},
    {State::Open,         Event::OrderEnd,     State::MasterEnding, 0, Fate::Now,   Fate::Now},
    {State::Open,         Event::Start,        State::Open,         0, Fate::Now,   Fate::Now},
};

constexpr const char *stateNames[] = {"no session", "master ending", "master gone", "master slow", "pass full", "open"};
constexpr const char *eventNames[] = {
    "raise", "clear", "its trap disabled", "another trap enabled", "pass", "read and pass",
    "session opens", "session closes", "master hangs up", "ordered to end", "started"};
// clang-format on

QStringList sent; // the descriptions, in order

/// A connection to a master that reads when it is told to.
class Connection {
public:
    Connection()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends) != 0)
            qFatal("no socket pair");
    }
    ~Connection()
    {
        hangUp();
        close(m_ends[0]);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int socket() const { return m_ends[0]; }

    void fill()
    {
        const std::string unread(1000, 'x');
        pollfd writable = {m_ends[0], POLLOUT, 0};
        while (poll(&writable, 1, 0) == 1 && write(m_ends[0], unread.data(), unread.size()) > 0) {
        }
    }
    void read()
    {
        char taken[1000];
        while (m_ends[1] >= 0 && recv(m_ends[1], taken, sizeof(taken), MSG_DONTWAIT) > 0) {
        }
    }
    void hangUp()
    {
        if (m_ends[1] >= 0)
            close(m_ends[1]);
        m_ends[1] = -1;
    }

private:
    int m_ends[2] = {-1, -1};
};
} // namespace

extern "C" void send_v2trap(netsnmp_variable_list *variables)
{
    const netsnmp_variable_list *last = variables;
    while (last->next_variable != nullptr)
        last = last->next_variable;
    sent.append(QString::fromUtf8(reinterpret_cast<const char *>(last->val.string), static_cast<int>(last->val_len)));
}

class TestTrapGate : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void eachStateMeetsEachEvent_data();
    void eachStateMeetsEachEvent();
    void theTableIsComplete();
    void aLossBetweenARaiseAndItsEndIsRemembered();
    void aHangUpIsFirstSeenWhenTheFaultEnds();
    void aPassMakesRoomButTheRunIsStillToCome();
    void aSlowMasterIsLookedAtAgainOnlyAfterAPass();
    void atMostTwoHundredPassBetweenTwoPasses();
    void aSessionOfUnknownSocketIsNeverSlowOrGone();
    void aNewSessionStartsItsCountAnew();
    void orderToEndHoldsTheNextSessionUntilTheStart();

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        runs += event->type() == QEvent::MetaCall ? 1 : 0;
        return false;
    }

private:
    void bringTo(State state);
    void happen(Event event);
    void reopen();
    void enable(const char *trap, bool on)
    {
        QMap<QString, bool> map{{QString::fromLatin1(trap), on}};
        handler->onUpdateEnabledSnmpTraps(map);
    }
    void report(const char *text, bool active)
    {
        handler->onReportFault(QStringLiteral("amp"), QString::fromLatin1(text), QStringLiteral("let_fail"),
                               QString::fromLatin1(text), QStringLiteral("0"), QStringLiteral("err"), active);
    }
    void raise(const char *text) { report(text, true); }
    void clear(const char *text) { report(text, false); }

    KvAgent agent{};
    TrapGate &gate = trapGate();
    QScopedPointer<Connection> master;
    QScopedPointer<Connection> earlier;
    QScopedPointer<FaultHandler> handler;
    int runs = 0;
};

void TestTrapGate::init()
{
    agent.sendTrap = sendTrap;
    kvAgent = &agent;
    master.reset(new Connection);
    handler.reset(new FaultHandler(nullptr));
    gate.openSession(master->socket());
    enable("LET Fault", true);
    QCoreApplication::processEvents();
    handler->installEventFilter(this);
    runs = 0;
    sent.clear();
}

void TestTrapGate::cleanup()
{
    handler.reset();
    gate.closeSession();
    gate.setMasterEnding(false);
    master.reset();
    earlier.reset();
    kvAgent = nullptr;
}

void TestTrapGate::bringTo(State state)
{
    switch (state) {
    case State::NoSession:
        gate.closeSession();
        break;
    case State::MasterEnding:
        gate.setMasterEnding(true);
        break;
    case State::MasterGone:
        master->hangUp();
        break;
    case State::MasterSlow:
        master->fill();
        QVERIFY(!gate.admit());
        break;
    case State::PassFull:
        while (gate.admit()) {
        }
        break;
    case State::Open:
        break;
    }
    QCOMPARE(gate.state(), state);
}

void TestTrapGate::happen(Event event)
{
    switch (event) {
    case Event::Raise:
        raise("new");
        break;
    case Event::Clear:
        clear("present");
        break;
    case Event::Disable:
        enable("LET Fault", false);
        break;
    case Event::EnableOther:
        enable("Fuse Broken", true);
        break;
    case Event::ReadAndPass:
        master->read();
        gate.endPass();
        break;
    case Event::Pass:
        gate.endPass();
        break;
    case Event::OpenSession:
        earlier.reset(master.take());
        master.reset(new Connection);
        gate.openSession(master->socket());
        break;
    case Event::CloseSession:
        gate.closeSession();
        break;
    case Event::HangUp:
        master->hangUp();
        break;
    case Event::OrderEnd:
        gate.setMasterEnding(true);
        break;
    case Event::Start:
        gate.setMasterEnding(false);
        break;
    }
}

/// A busy master reads and a pass ends; a lost one comes again.
void TestTrapGate::reopen()
{
    if (isBusy(gate.state())) {
        happen(Event::ReadAndPass);
    } else if (gate.state() != State::Open) {
        happen(Event::CloseSession);
        happen(Event::Start);
        happen(Event::OpenSession);
    }
    QCOMPARE(gate.state(), State::Open);
    enable("LET Fault", true);
    QCoreApplication::processEvents();
}

void TestTrapGate::eachStateMeetsEachEvent_data()
{
    QTest::addColumn<int>("index");
    for (std::size_t i = 0; i < std::size(table); ++i)
        QTest::addRow("%s, %s", stateNames[static_cast<int>(table[i].state)],
                      eventNames[static_cast<int>(table[i].event)])
            << static_cast<int>(i);
}

void TestTrapGate::eachStateMeetsEachEvent()
{
    QFETCH(int, index);
    const Row &row = table[index];
    bringTo(row.state);
    raise("present");
    raise("ended");
    clear("ended");
    QCOMPARE(gate.state(), row.state);

    happen(row.event);
    QCOMPARE(gate.state(), row.next);
    QCoreApplication::processEvents();
    QCOMPARE(runs, row.runs);
    const QStringList now = sent;
    reopen();

    const auto fateOf = [&now](const char *text) {
        const QString description = QString::fromLatin1(text);
        return now.contains(description) ? Fate::Now : sent.contains(description) ? Fate::Later : Fate::Never;
    };
    QCOMPARE(fateOf("present"), row.present);
    QCOMPARE(fateOf("ended"), row.ended);
    if (row.event == Event::Raise)
        QCOMPARE(fateOf("new"), row.present);
    QCOMPARE(sent.removeDuplicates(), 0);
}

void TestTrapGate::theTableIsComplete()
{
    QSet<QString> pairs;
    for (const Row &row : table)
        pairs.insert(QStringLiteral("%1 %2").arg(static_cast<int>(row.state)).arg(static_cast<int>(row.event)));
    QCOMPARE(pairs.size(), static_cast<int>(std::size(stateNames) * std::size(eventNames)));
    QCOMPARE(std::size(table), std::size(stateNames) * std::size(eventNames));
}

void TestTrapGate::aLossBetweenARaiseAndItsEndIsRemembered()
{
    bringTo(State::PassFull);
    raise("raised while busy");
    happen(Event::CloseSession);
    happen(Event::OpenSession);
    clear("raised while busy"); // before the run
    QCoreApplication::processEvents();
    QCOMPARE(sent, QStringList());
}

void TestTrapGate::aHangUpIsFirstSeenWhenTheFaultEnds()
{
    bringTo(State::MasterSlow);
    raise("short");
    master->hangUp();
    clear("short");
    reopen();
    QCOMPARE(sent, QStringList());
}

void TestTrapGate::aPassMakesRoomButTheRunIsStillToCome()
{
    bringTo(State::PassFull);
    raise("short");
    gate.endPass();
    clear("short");
    QCOMPARE(sent, QStringList{QStringLiteral("short")});
    QCoreApplication::processEvents();
    QCOMPARE(sent.size(), 1);
}

void TestTrapGate::aSlowMasterIsLookedAtAgainOnlyAfterAPass()
{
    master->fill();
    QCOMPARE(gate.state(), State::Open); // not looked at before a trap is to be sent
    QVERIFY(!gate.admit());
    QCOMPARE(gate.state(), State::MasterSlow);
    gate.endPass();
    QCOMPARE(gate.state(), State::MasterSlow);

    master->read();
    QVERIFY(!gate.admit()); // so that whoever was refused sees why
    QCOMPARE(gate.state(), State::MasterSlow);
    gate.endPass();
    QVERIFY(gate.admit());
}

void TestTrapGate::atMostTwoHundredPassBetweenTwoPasses()
{
    for (int pass = 0; pass < 3; ++pass) {
        for (int trap = 0; trap < 200; ++trap)
            QVERIFY(gate.admit());
        QCOMPARE(gate.state(), State::PassFull);
        QVERIFY(!gate.admit());
        gate.endPass();
    }
    for (int trap = 0; trap < 150; ++trap)
        QVERIFY(gate.admit());
    gate.endPass(); // each pass begins a new count, not only that after a full one
    for (int trap = 0; trap < 199; ++trap)
        QVERIFY(gate.admit());
    QCOMPARE(gate.state(), State::Open);
}

void TestTrapGate::aSessionOfUnknownSocketIsNeverSlowOrGone()
{
    gate.openSession(-1);
    const std::uint64_t losses = gate.losses();
    QVERIFY(gate.admit());
    QCOMPARE(gate.state(), State::Open);
    QCOMPARE(gate.losses(), losses);
}

void TestTrapGate::aNewSessionStartsItsCountAnew()
{
    bringTo(State::PassFull);
    happen(Event::OpenSession);
    for (int trap = 0; trap < 200; ++trap)
        QVERIFY(gate.admit());
    QCOMPARE(gate.state(), State::PassFull);
}

void TestTrapGate::orderToEndHoldsTheNextSessionUntilTheStart()
{
    raise("before");
    happen(Event::OrderEnd);
    raise("after the order");
    happen(Event::CloseSession);
    happen(Event::OpenSession); // to the same master, which ends slowly
    raise("to a dying master");
    QCoreApplication::processEvents();
    QCOMPARE(sent, QStringList{QStringLiteral("before")});
    happen(Event::CloseSession);
    happen(Event::Start);
    happen(Event::OpenSession);
    QCoreApplication::processEvents();
    QCOMPARE(sent.size(), 3);
}

const TestEntry entry("tst_trapgate", runTest<TestTrapGate>);
#include "tst_trapgate.moc"
