// Which messages become traps, when, in which order and how often. The test replaces the trap sender.
#include "support/catalogue.h"
#include "support/messagelog.h"
#include "support/testprogram.h"

#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/trapcatalogue.h"
#include "faults/faulthandler.h"

#include <functional>

namespace {
QStringList sent; // "number|description|level|time", in the order of the calls, refused ones included
std::function<int(const QString &call)> answer;

int fakeSendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time)
{
    const QString call =
        qs("%1|%2|%3|%4").arg(QString::number(trapNumber), qs(description), QString::number(level), qs(time));
    sent.append(call);
    return answer ? answer(call) : 0;
}

/// Steps between " / ": an event, and behind an arrow the calls of the sender that it brings about. Events:
///     raise REPORTER REFERENCE [IDENTIFIER [INFO [LEVEL [TIME]]]]    clear REPORTER REFERENCE
///     on NAME;NAME or off NAME;NAME: a map of enabled traps          report: a run by itself
///     answer NUMBER: what the sender returns from now on; "answer not CALL": a refusal of each call that starts so
///     session open, session close: events of the gate
///     agent none, agent without sender, agent back
struct Script {
    const char *name;
    const char *steps;
};

// clang-format off
const Script scripts[] = {
    {"sent again after it was removed and raised",
     "on LET Fault / raise amp 7 -> 5|text|2|0 / clear amp 7 / raise amp 7 -> 5|text|2|0"},
    {"sent when its trap is enabled later, and once",
     "raise amp 7 fan_speed_slow fan1 crit / off Cooling Fan Fault / on Cooling Fan Fault -> 1|fan1|1|0 / "
     "off Cooling Fan Fault / on Cooling Fan Fault / raise amp 7 fan_speed_slow again crit"},
    {"disabled again, its trap holds the refused and the new ones back",
     "on LET Fault / answer -1 / raise amp 7 -> 5|text|2|0 / off LET Fault / raise amp 8 / answer 0 / "
     "on LET Fault -> 5|text|2|0 5|text|2|0"},
    {"an identifier outside the catalogue is kept, and its fault stays what it was",
     "on all / raise amp 7 no_such_fault / raise amp 7 let_fail / report / clear amp 7 / "
     "raise amp 7 let_fail -> 5|text|2|0"},
    {"identifiers are matched exactly",
     "on LET Fault / raise amp 1 LET_FAIL / raise amp 2 let_fai / raise amp 3 let_fail2 / raise amp 4 "
     " / raise amp 5 LET / raise amp 6 let_fail -> 5|text|2|0"},
    {"kept as first reported",
     "raise amp 7 let_fail first crit 1 / raise amp 7 fuse_broken second info 2 / "
     "on LET Fault;Fuse Broken -> 5|first|1|1"},
    {"removed before its trap is enabled",
     "raise amp 7 / raise amp 8 let_fail other / clear amp 7 / on LET Fault -> 5|other|2|0"},
    {"no agent yet",
     "agent none / on LET Fault / raise amp 7 / agent back / report -> 5|text|2|0"},
    {"no sender yet",
     "agent without sender / on LET Fault / raise amp 7 / agent back / raise amp 8 -> 5|text|2|0 5|text|2|0"},
    {"a refusal is repeated at each next event",
     "on LET Fault / answer 7 / raise amp 7 -> 5|text|2|0 / answer 1 / "
     "raise amp other no_such_fault -> 5|text|2|0 / answer -1 / clear amp unknown -> 5|text|2|0 / "
     "on Fuse Broken -> 5|text|2|0 / answer 0 / clear amp other -> 5|text|2|0 / clear amp other"},
    {"a refusal does not hold up the others",
     "raise amp 1 let_fail 1 / raise amp 2 let_fail 2 / raise amp 3 let_fail 3 / answer not 5|2| / "
     "on LET Fault -> 5|1|2|0 5|2|2|0 5|3|2|0 / answer 0 / report -> 5|2|2|0 / report"},
    {"a run ends at the first refusal while there is no session",
     "raise amp 1 let_fail 1 / raise amp 2 let_fail 2 / session close / answer -1 / on LET Fault -> 5|1|2|0 / "
     "raise amp 4 -> 5|1|2|0 / session open / answer 0 / report -> 5|1|2|0 5|2|2|0 5|text|2|0"},
    {"a fault that ends after an ordinary refusal is never sent",
     "on LET Fault / answer -1 / raise amp 1 -> 5|text|2|0 / clear amp 1 / report"},
    {"sent in the order of arrival",
     "raise z 1 fuse_broken first / raise a 1 let_fail second / raise m 1 fuse_broken third / "
     "raise b 1 let_fail fourth / clear z 1 / raise z 1 fuse_broken fifth / "
     "on Fuse Broken;LET Fault -> 5|second|2|0 9|third|2|0 5|fourth|2|0 9|fifth|2|0"},
    {"reporter and reference together identify",
     "on LET Fault / raise amp 7 -> 5|text|2|0 / raise amp 8 -> 5|text|2|0 / raise psu 7 -> 5|text|2|0 / "
     "raise am p7 -> 5|text|2|0 / clear psu 8 / raise amp 7"},
};
// clang-format on
} // namespace

class TestFaultHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        sent.clear();
        answer = nullptr;
        gate.reset(new TrapGate);
        gate->openSession(-1);
        startAgent();
        log.reset(new MessageLog);
        handler.reset(new FaultHandler(nullptr, *gate));
    }

    void cleanup()
    {
        handler.reset();
        log.reset();
        kvAgent = nullptr;
    }

    void eachIdentifierRaisesItsTrap()
    {
        std::size_t identifiers = 0;
        for (const Trap &trap : trapCatalogue)
            identifiers += std::size(trap.msgIds);
        for (const catalogue::Row &trap : catalogue::rows("traps"))
            for (const QString &msgId : trap.list("identifiers")) {
                const AtRow at(msgId.toLatin1());
                startAnew();
                enable(qs("all"));
                enable(trap.text("switch"), false); // every trap but this one
                handler->onReportFault(qs("amp"), qs("7"), msgId, qs("broken"), qs("1700000000"), qs("warning"), true);
                QCOMPARE(sent, QStringList());
                enable(trap.text("switch"));
                QCOMPARE(sent, QStringList{trap.text("number") + qs("|broken|4|1700000000")});
                --identifiers;
            }
        QCOMPARE(identifiers, std::size_t{0}); // and no other
    }

    void severityOfLevel()
    {
        QMap<QString, int> severities; // by level
        for (const catalogue::Row &row : catalogue::rows("severities"))
            severities[row.text("level")] = row.text("severity").toInt();
        QVERIFY(!severities.isEmpty());
        for (const char *level : {"", "err ", " err", "Err", "error", "warn", "4"})
            severities[qs(level)] = 3;
        enable(qs("LET Fault"));
        for (auto row = severities.cbegin(); row != severities.cend(); ++row) {
            const QByteArray level = row.key().toUtf8();
            const AtRow at(level);
            QCOMPARE(severityOf(row.key()), row.value());
            raise("amp", "level " + level, "let_fail", "text", level);
            QCOMPARE(sent.last(), qs("5|text|%1|0").arg(row.value()));
        }
        QCOMPARE(sent.size(), severities.size());
    }

    void script()
    {
        for (const Script &script : scripts) {
            const AtRow at(script.name);
            startAnew();
            for (const QString &step : qs(script.steps).split(qs(" / "))) {
                sent.clear();
                run(step.section(qs(" -> "), 0, 0));
                const QString calls = sent.join(QLatin1Char(' '));
                QVERIFY2(calls == step.section(qs(" -> "), 1), qPrintable(step + qs(", but ") + calls));
            }
        }
    }

    /// Texts are passed on as they are.
    void logLines()
    {
        const QString raised = qs("FaultHandler onReportFault New Fault: [%2] [%1] ");
        const QString info = qs("K\xc3\xb6ln \xe2\x82\xac %1 at 100%");
        const QString trap = qs("FaultHandler reportTraps Trap fault ID: 1 description: ") + info + qs(" ->Send ");
        enable(qs("Cooling Fan Fault"));
        log->takeLines();
        answer = [](const QString &) { return -1; };
        raise("%2", "%1", "fan_speed_slow", info.toUtf8(), "crit", "");
        QCOMPARE(log->takeLines(), QStringList({raised, trap + qs("FAILED")}));
        answer = nullptr;
        raise("%2", "%1", "fan_speed_slow", "again", "crit", "1700000001");
        QCOMPARE(log->takeLines(), QStringList({raised, trap + qs("SUCCESS")}));
        QCOMPARE(sent.last(), qs("1|") + info + qs("|1|"));
        raise("%2", "%1", "fan_speed_slow");
        QCOMPARE(log->takeLines(), QStringList{raised});
        clear("%2", "%1");
        QCOMPARE(log->takeLines(), QStringList{qs("FaultHandler onReportFault Remove Fault: [%2] [%1]")});
    }

    void enabledListIsLoggedInTheOrderOfItsGrowth()
    {
        const QString line = qs("FaultHandler onUpdateEnabledSnmpTraps Changed Enabled Traps: ");
        enable(QMap<QString, bool>{{qs("RCO Fault"), true}, {qs("AC Power Fault"), false}});
        QCOMPARE(log->takeLines(), QStringList{line + qs("RCO Fault")});
        enable(qs("RCO Fault;AC Power Fault;LET Fault"));
        QCOMPARE(log->takeLines(), QStringList{line + qs("RCO Fault; AC Power Fault; LET Fault")});
        enable(qs("RCO Fault"), false); // a name that is not in the map stays
        QCOMPARE(log->takeLines(), QStringList{line + qs("AC Power Fault; LET Fault")});
        enable(qs("AC Power Fault;LET Fault"), false);
        QCOMPARE(log->takeLines(), QStringList{line});
    }

    void tenThousandRecordsStayQuick()
    {
        QElapsedTimer timer;
        timer.start();
        enable(qs("Fuse Broken"));
        for (int i = 0; i < 10000; ++i) // their trap is disabled: they wait
            raise("amp", QByteArray::number(i));
        for (int i = 0; i < 10000; ++i)
            raise("psu", QByteArray::number(i), "fuse_broken");
        QCOMPARE(sent.size(), 10000);
        for (int i = 0; i < 10000; ++i)
            clear("amp", QByteArray::number(i));
        // A walk over the list for each message would last minutes in this build.
        QVERIFY2(timer.elapsed() < 20000, qPrintable(QString::number(timer.elapsed())));
    }

private:
    void startAgent()
    {
        agent.sendTrap = fakeSendTrap;
        kvAgent = &agent;
    }
    void startAnew()
    {
        cleanup();
        init();
    }
    void raise(const QByteArray &reporter, const QByteArray &ref, const QByteArray &msgId = "let_fail",
               const QByteArray &info = "text", const QByteArray &level = "err", const QByteArray &time = "0")
    {
        handler->onReportFault(qs(reporter), qs(ref), qs(msgId), qs(info), qs(time), qs(level), true);
    }
    void clear(const QByteArray &reporter, const QByteArray &ref)
    {
        handler->onReportFault(qs(reporter), qs(ref), {}, {}, {}, {}, false);
    }

    void run(const QString &event)
    {
        const QHash<QString, std::function<void()>> plainEvents = {
            {qs("report"), [this] { handler->reportTraps(); }},
            {qs("session open"), [this] { gate->openSession(-1); }},
            {qs("session close"), [this] { gate->closeSession(); }},
            {qs("agent none"), [] { kvAgent = nullptr; }},
            {qs("agent without sender"), [this] { agent.sendTrap = nullptr; }},
            {qs("agent back"), [this] { startAgent(); }},
        };
        if (plainEvents.contains(event))
            return plainEvents[event]();
        const QString verb = event.section(QLatin1Char(' '), 0, 0);
        const QString rest = event.section(QLatin1Char(' '), 1);
        QByteArrayList words = rest.toUtf8().split(' ');
        if (verb == qs("raise")) {
            words += QByteArrayList{"", "", "let_fail", "text", "err", "0"}.mid(words.size());
            raise(words[0], words[1], words[2], words[3], words[4], words[5]);
        } else if (verb == qs("clear"))
            clear(words[0], words[1]);
        else if (verb == qs("on") || verb == qs("off"))
            enable(rest, verb == qs("on"));
        else if (words[0] == "not")
            answer = [start = qs(words[1])](const QString &call) { return call.startsWith(start) ? -1 : 0; };
        else
            answer = [number = rest.toInt()](const QString &) { return number; };
    }

    void enable(const QString &names, bool on = true)
    {
        QMap<QString, bool> map;
        for (const catalogue::Row &trap : catalogue::rows("traps"))
            if (names == qs("all") || names.split(QLatin1Char(';')).contains(trap.text("switch")))
                map.insert(trap.text("switch"), on);
        enable(map);
    }

    void enable(QMap<QString, bool> map) { handler->onUpdateEnabledSnmpTraps(map); }

    KvAgent agent{};
    QScopedPointer<TrapGate> gate;
    QScopedPointer<MessageLog> log;
    QScopedPointer<FaultHandler> handler;
};

const TestEntry entry("tst_faulthandler", runTest<TestFaultHandler>);
#include "tst_faulthandler.moc"
