// The trap gate, every event in every state: the gate's next state, and whether the traps of present faults are sent.
// The gate, the sender and the fault list are the real ones; the library's sending end is replaced here.
#include "support/agentbench.h"
#include "support/socketpair.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "agent/trapgate.h"
#include "faults/faulthandler.h"

#include <functional>

namespace {
using State = TrapGate::State;

/// What an event does in a state, four signs each: the next state (No session, Ending, Gone, Slow, Full or Open), how
/// often the gate notifies that it is open, and when two traps are sent: that of a fault raised in the state (the event
/// Clear ends it), and that of a fault raised and ended in it. n: now or before; l: later, when the gate is open again;
/// -: never.
// clang-format off
constexpr const char *table[] = { // in the order of states(), each in the order of events()
    // Raise Clear Disable Other Pass Read Opens Closes HangUp Order Start
    "N0l-    N0--  N0l-    N0l-  N0l- N0l- O1n-  N0l-   N0l-   N0l-  N0l-",
    "E0l-    E0--  E0l-    E0l-  E0l- E0l- E0l-  N0l-   E0l-   E0l-  O1n-",
    "G0l-    G0--  G0l-    G0l-  G0l- G0l- O1n-  N0l-   G0l-   E0l-  G0l-",
    "S0ll    S0ll  S0l-    S0ll  S0ll O1nn O1n-  N0l-   G0l-   E0l-  S0ll",
    "F0ll    F0ll  F0l-    F0ll  O1nn O1nn O1n-  N0l-   G0l-   E0l-  F0ll",
    "O0nn    O0nn  O0nn    O0nn  O0nn O0nn O1nn  N0nn   G0nn   E0nn  O0nn",
};
// clang-format on
constexpr char stateLetters[] = "NEGSFO";

struct Step {
    const char *name;
    std::function<void()> happen;
};

QStringList sent; // the descriptions, in order
} // namespace

extern "C" void send_v2trap(netsnmp_variable_list *variables)
{
    while (variables->next_variable != nullptr)
        variables = variables->next_variable;
    sent.append(typeAndValue(*variables).mid(7)); // behind "STRING "
}

class TestTrapGate : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        agent.sendTrap = sendTrap;
        kvAgent = &agent;
        master.reset(new SocketPair);
        handler.reset(new FaultHandler(nullptr));
        gate.openSession(master->nearEnd());
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

    void eachStateMeetsEachEvent()
    {
        for (int state = 0; state < states().size(); ++state) {
            const QStringList cells = QString::fromLatin1(table[state]).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            QCOMPARE(cells.size(), events().size());
            for (int event = 0; event < cells.size(); ++event) {
                const AtRow atState(states()[state].name);
                const AtRow atEvent(events()[event].name);
                cleanup();
                init();
                meet(State(state), event, cells[event]);
            }
        }
    }

    void aLossBetweenARaiseAndItsEndIsRemembered()
    {
        bringTo(State::PassFull);
        raise("raised while busy");
        gate.closeSession();
        openAnother();
        clear("raised while busy"); // before the run
        QCoreApplication::processEvents();
        QCOMPARE(sent, QStringList());
    }

    void oneKeyRaisedTwiceWhileBusyIsTwoTraps()
    {
        bringTo(State::PassFull);
        raise("short");
        raise("long");
        clear("short");
        raise("short");
        clear("short");
        reopen();
        QCOMPARE(sent.join(QLatin1Char(' ')), QStringLiteral("short long short"));
    }

    void aHangUpIsFirstSeenWhenTheFaultEnds()
    {
        bringTo(State::MasterSlow);
        raise("short");
        master->closeFarEnd();
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
        QCOMPARE(gate.state(), State::Open); // looked at only when a trap is to be sent
        QVERIFY(!gate.admit());
        QCOMPARE(gate.state(), State::MasterSlow);
        gate.endPass();
        QCOMPARE(gate.state(), State::MasterSlow);

        master->drain();
        QVERIFY(!gate.admit()); // until the pass that follows: the refused sender can read the state
        QCOMPARE(gate.state(), State::MasterSlow);
        gate.endPass();
        QVERIFY(gate.admit());
    }

    void atMostTwoHundredPassBetweenTwoPasses()
    {
        for (int pass = 0; pass < 3; ++pass) {
            QCOMPARE(admitAll(), 200);
            QCOMPARE(gate.state(), State::PassFull);
            gate.endPass();
        }
        for (int trap = 0; trap < 150; ++trap)
            QVERIFY(gate.admit());
        gate.endPass(); // each pass begins a new count, not only that after a full one
        QCOMPARE(admitAll(), 200);
        openAnother();
        QCOMPARE(admitAll(), 200);
    }

    void orderToEndHoldsTheNextSessionUntilTheStart()
    {
        raise("before");
        gate.setMasterEnding(true);
        raise("after the order");
        gate.closeSession();
        openAnother(); // to the same master, which ends slowly
        raise("to a dying master");
        QCoreApplication::processEvents();
        QCOMPARE(sent, QStringList{QStringLiteral("before")});
        gate.closeSession();
        gate.setMasterEnding(false);
        openAnother();
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
    QVector<Step> states()
    {
        return {
            {"no session", [this] { gate.closeSession(); }},
            {"master ending", [this] { gate.setMasterEnding(true); }},
            {"master gone", [this] { master->closeFarEnd(); }},
            {"master slow", [this] { master->fill(), gate.admit(); }},
            {"pass full", [this] { admitAll(); }},
            {"open", [] {}},
        };
    }

    QVector<Step> events()
    {
        return {
            {"raise", [this] { raise("new"); }},
            {"clear", [this] { clear("present"); }},
            {"its trap disabled", [this] { enable("LET Fault", false); }},
            {"another trap enabled", [this] { enable("Fuse Broken", true); }},
            {"pass", [this] { gate.endPass(); }},
            {"read and pass", [this] { readAndPass(); }},
            {"session opens", [this] { openAnother(); }},
            {"session closes", [this] { gate.closeSession(); }},
            {"master hangs up", [this] { master->closeFarEnd(); }},
            {"ordered to end", [this] { gate.setMasterEnding(true); }},
            {"started", [this] { gate.setMasterEnding(false); }},
        };
    }

    void bringTo(State state)
    {
        states()[static_cast<int>(state)].happen();
        QCOMPARE(gate.state(), state);
    }

    int admitAll()
    {
        int count = 0;
        while (count < 1000 && gate.admit())
            ++count;
        return count;
    }

    void readAndPass()
    {
        master->drain();
        gate.endPass();
    }

    void openAnother()
    {
        earlier.reset(master.take());
        master.reset(new SocketPair);
        gate.openSession(master->nearEnd());
    }

    void meet(State state, int event, const QString &cell)
    {
        bringTo(state);
        raise("present");
        raise("ended");
        clear("ended");
        QCOMPARE(gate.state(), state);

        events()[event].happen();
        QString seen{QLatin1Char{stateLetters[static_cast<int>(gate.state())]}};
        QCoreApplication::processEvents();
        seen += QString::number(runs);
        const QStringList now = sent;
        reopen();

        const auto when = [&now](const char *text) {
            const QString description = QString::fromLatin1(text);
            return QLatin1Char(now.contains(description) ? 'n' : sent.contains(description) ? 'l' : '-');
        };
        seen += when("present");
        seen += when("ended");
        QCOMPARE(seen, cell);
        if (event == 0) // raises a third one
            QCOMPARE(when("new"), QLatin1Char(cell[2].toLatin1()));
        QCOMPARE(sent.removeDuplicates(), 0);
    }

    /// A busy master reads and a pass ends; a lost one comes again.
    void reopen()
    {
        if (isBusy(gate.state())) {
            readAndPass();
        } else if (gate.state() != State::Open) {
            gate.closeSession();
            gate.setMasterEnding(false);
            openAnother();
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
    QScopedPointer<SocketPair> master;
    QScopedPointer<SocketPair> earlier;
    QScopedPointer<FaultHandler> handler;
    int runs = 0;
};

const TestEntry entry("tst_trapgate", runTest<TestTrapGate>);
#include "tst_trapgate.moc"
