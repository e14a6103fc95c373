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

/// What an event does in a state, four signs each: the next state (No session, Ending, Gone, Slow, Full or Open), how
/// often the gate calls that it is open, and when the trap goes out of a fault that was raised in the state (the event
/// Clear ends it), and of a fault that was raised and ended in it: now or before, later when the way is open again, or
/// - never.
struct Row {
    const char *state;
    const char *cells;
};

// clang-format off
constexpr Row table[] = { // in the order of the states; the columns in that of the events
    //                   Raise Clear Disable Other Pass Read Opens Closes HangUp Order Start
    {"no session",    "N0l-  N0--  N0l-    N0l-  N0l- N0l- O1n-  N0l-   N0l-   N0l-  N0l-"},
    {"master ending", "E0l-  E0--  E0l-    E0l-  E0l- E0l- E0l-  N0l-   E0l-   E0l-  O1n-"},
    {"master gone",   "G0l-  G0--  G0l-    G0l-  G0l- G0l- O1n-  N0l-   G0l-   E0l-  G0l-"},
    {"master slow",   "S0ll  S0ll  S0l-    S0ll  S0ll O1nn O1n-  N0l-   G0l-   E0l-  S0ll"},
    {"pass full",     "F0ll  F0ll  F0l-    F0ll  O1nn O1nn O1n-  N0l-   G0l-   E0l-  F0ll"},
    {"open",          "O0nn  O0nn  O0nn    O0nn  O0nn O0nn O1nn  N0nn   G0nn   E0nn  O0nn"},
};
constexpr char stateLetters[] = "NEGSFO";

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

Q_DECLARE_METATYPE(State)
Q_DECLARE_METATYPE(Event)

extern "C" void send_v2trap(netsnmp_variable_list *variables)
{
    const netsnmp_variable_list *last = variables;
    while (last->next_variable != nullptr)
        last = last->next_variable;
    sent.append(QString::fromUtf8(reinterpret_cast<const char *>(last->val.string), static_cast<int>(last->val_len)));
}

/// A busy master reads and a pass ends; a lost one comes again.

class TestTrapGate : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
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

    void cleanup()
    {
        handler.reset();
        gate.closeSession();
        gate.setMasterEnding(false);
        master.reset();
        earlier.reset();
        kvAgent = nullptr;
    }

    void eachStateMeetsEachEvent_data()
    {
        QTest::addColumn<State>("state");
        QTest::addColumn<Event>("event");
        QTest::addColumn<QString>("cell");
        for (std::size_t state = 0; state < std::size(table); ++state) {
            const QStringList cells =
                QString::fromLatin1(table[state].cells).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            QCOMPARE(cells.size(), static_cast<int>(std::size(eventNames)));
            for (int event = 0; event < cells.size(); ++event)
                QTest::addRow("%s, %s", table[state].state, eventNames[event])
                    << State(state) << Event(event) << cells[event];
        }
    }

    void eachStateMeetsEachEvent()
    {
        QFETCH(State, state);
        QFETCH(Event, event);
        QFETCH(QString, cell);
        bringTo(state);
        raise("present");
        raise("ended");
        clear("ended");
        QCOMPARE(gate.state(), state);

        happen(event);
        QString seen{QLatin1Char{stateLetters[static_cast<int>(gate.state())]}};
        QCoreApplication::processEvents();
        seen += QString::number(runs);
        const QStringList now = sent;
        reopen();

        for (const char *text : {"present", "ended"}) {
            const QString description = QString::fromLatin1(text);
            seen += now.contains(description)    ? QLatin1Char('n')
                    : sent.contains(description) ? QLatin1Char('l')
                                                 : QLatin1Char('-');
        }
        QCOMPARE(seen, cell);
        if (event == Event::Raise)
            QVERIFY((now.contains(QStringLiteral("new")) ? QLatin1Char('n') : QLatin1Char('l')) == cell[2]);
        QVERIFY(event != Event::Raise || sent.contains(QStringLiteral("new")));
        QCOMPARE(sent.removeDuplicates(), 0);
    }

    void aLossBetweenARaiseAndItsEndIsRemembered()
    {
        bringTo(State::PassFull);
        raise("raised while busy");
        happen(Event::CloseSession);
        happen(Event::OpenSession);
        clear("raised while busy"); // before the run
        QCoreApplication::processEvents();
        QCOMPARE(sent, QStringList());
    }

    void aHangUpIsFirstSeenWhenTheFaultEnds()
    {
        bringTo(State::MasterSlow);
        raise("short");
        master->hangUp();
        clear("short");
        reopen();
        QCOMPARE(sent, QStringList());
    }

    void aPassMakesRoomButTheRunIsStillToCome()
    {
        bringTo(State::PassFull);
        raise("short");
        gate.endPass();
        clear("short");
        QCOMPARE(sent, QStringList{QStringLiteral("short")});
        QCoreApplication::processEvents();
        QCOMPARE(sent.size(), 1);
    }

    void aSlowMasterIsLookedAtAgainOnlyAfterAPass()
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

    void atMostTwoHundredPassBetweenTwoPasses()
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

    void aSessionOfUnknownSocketIsNeverSlowOrGone()
    {
        gate.openSession(-1);
        const std::uint64_t losses = gate.losses();
        QVERIFY(gate.admit());
        QCOMPARE(gate.state(), State::Open);
        QCOMPARE(gate.losses(), losses);
    }

    void aNewSessionStartsItsCountAnew()
    {
        bringTo(State::PassFull);
        happen(Event::OpenSession);
        for (int trap = 0; trap < 200; ++trap)
            QVERIFY(gate.admit());
        QCOMPARE(gate.state(), State::PassFull);
    }

    void orderToEndHoldsTheNextSessionUntilTheStart()
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

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        runs += event->type() == QEvent::MetaCall ? 1 : 0;
        return false;
    }

private:
    void bringTo(State state)
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

    void happen(Event event)
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

    void reopen()
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

const TestEntry entry("tst_trapgate", runTest<TestTrapGate>);
#include "tst_trapgate.moc"
