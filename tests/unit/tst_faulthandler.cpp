// Which messages become traps, when, in which order and how often. The trap sender is the test's own.
#include "support/messagelog.h"
#include "support/testprogram.h"

#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/trapcatalogue.h"
#include "faults/faulthandler.h"

#include <QElapsedTimer>
#include <QTest>

#include <functional>

namespace {

QString qs(const char *text)
{
    return QString::fromUtf8(text);
}

QString text(std::string_view view)
{
    return QString::fromUtf8(view.data(), static_cast<int>(view.size()));
}

QStringList sent; // "number|description|level|time", in the order of the calls, refused ones included
std::function<int(const QString &call)> answer;

int fakeSendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time)
{
    const QString call =
        qs("%1|%2|%3|%4").arg(QString::number(trapNumber), qs(description), QString::number(level), qs(time));
    sent.append(call);
    return answer ? answer(call) : 0;
}

/// The maps of enabled traps that the tests use; the handler takes them by reference.
QMap<QString, bool> traps(std::initializer_list<const char *> enabled,
                          std::initializer_list<const char *> disabled = {})
{
    QMap<QString, bool> map;
    for (const char *name : enabled)
        map.insert(qs(name), true);
    for (const char *name : disabled)
        map.insert(qs(name), false);
    return map;
}

} // namespace

class TestFaultHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void eachIdentifierRaisesItsTrap_data();
    void eachIdentifierRaisesItsTrap();
    void severityOfLevel_data();
    void severityOfLevel();
    void sentOnceThoughReportedAgain();
    void sentAgainAfterItWasRemovedAndRaised();
    void sentWhenItsTrapIsEnabledLater();
    void disabledAgainHoldsNewFaultsBack();
    void identifierOutsideTheCatalogueIsKeptButNeverSent();
    void identifiersAreMatchedExactly_data();
    void identifiersAreMatchedExactly();
    void keptAsFirstReported();
    void removedBeforeItsTrapIsEnabled();
    void removalOfAnUnknownFaultOnlyRunsTheReport();
    void noAgentYet();
    void noSenderYet();
    void ordinaryRefusalIsRetriedAtEachNextEvent();
    void refusalDoesNotHoldUpTheOthers();
    void runEndsAtTheFirstRefusalWhileTheSenderIsBlocked();
    void blockedSenderGetsTheRestAtTheNextRun();
    void aFaultThatEndsWhileTheSenderIsBusyIsStillSent();
    void anEndedFaultThatStillWaitsOutlivesAChangeOfOtherTraps();
    void aFaultThatEndsWithoutASessionIsNeverSent();
    void aFaultThatEndsAfterAnOrdinaryRefusalIsNeverSent();
    void anEndedFaultIsForgottenWhenItsTrapIsDisabled();
    void runWithNothingDueCallsNobody();
    void sentInTheOrderOfArrival();
    void reporterAndReferenceTogetherIdentify();
    void enabledListIsLoggedInTheOrderOfItsGrowth();
    void textsArePassedOnAsUtf8();
    void percentSignsInTextsStay();
    void withoutASessionTheAgentsOwnAnswerEndsTheRun();
    void tenThousandRecordsStayQuick();

private:
    void raise(const char *reporter, const char *ref, const char *msgId = "let_fail", const char *info = "text",
               const char *level = "err", const char *time = "0")
    {
        handler->onReportFault(qs(reporter), qs(ref), qs(msgId), qs(info), qs(time), qs(level), true);
    }
    void clear(const char *reporter, const char *ref)
    {
        handler->onReportFault(qs(reporter), qs(ref), {}, {}, {}, {}, false);
    }
    /// The sender as the agent has it.
    std::function<int(const QString &)> throughTheGate() const
    {
        return [this](const QString &) { return gate->admit() ? 0 : -1; };
    }
    void fillThePass()
    {
        while (gate->admit()) {
        }
    }
    void enable(QMap<QString, bool> map) { handler->onUpdateEnabledSnmpTraps(map); }

    KvAgent agent{};
    QScopedPointer<TrapGate> gate;
    QScopedPointer<MessageLog> log;
    QScopedPointer<FaultHandler> handler;
};

void TestFaultHandler::init()
{
    sent.clear();
    answer = nullptr;
    gate.reset(new TrapGate);
    gate->openSession(-1);
    agent = {};
    agent.sendTrap = fakeSendTrap;
    kvAgent = &agent;
    log.reset(new MessageLog);
    handler.reset(new FaultHandler(nullptr, *gate));
}

void TestFaultHandler::cleanup()
{
    handler.reset();
    log.reset();
    kvAgent = nullptr;
}

void TestFaultHandler::eachIdentifierRaisesItsTrap_data()
{
    QTest::addColumn<QString>("msgId");
    QTest::addColumn<QString>("name");
    QTest::addColumn<uint>("number");
    for (const Trap &trap : trapCatalogue)
        for (const std::string_view msgId : trap.msgIds)
            QTest::newRow(qPrintable(text(msgId))) << text(msgId) << text(trap.name) << uint{trap.number};
}

void TestFaultHandler::eachIdentifierRaisesItsTrap()
{
    QFETCH(QString, msgId);
    QFETCH(QString, name);
    QFETCH(uint, number);
    QMap<QString, bool> map; // every trap but this one
    for (const Trap &trap : trapCatalogue)
        map.insert(text(trap.name), text(trap.name) != name);
    handler->onUpdateEnabledSnmpTraps(map);
    handler->onReportFault(qs("amp"), qs("7"), msgId, qs("broken"), qs("1700000000"), qs("warning"), true);
    QCOMPARE(sent, QStringList());

    enable({{name, true}});
    QCOMPARE(sent, QStringList{qs("%1|broken|4|1700000000").arg(number)});
}

void TestFaultHandler::severityOfLevel_data()
{
    QTest::addColumn<QString>("level");
    QTest::addColumn<int>("severity");
    const auto row = [](const char *level, int severity) {
        QTest::newRow(qPrintable(qs("'%1'").arg(qs(level)))) << qs(level) << severity;
    };
    row("emerg", 1);
    row("alert", 1);
    row("crit", 1);
    row("err", 2);
    row("warning", 4);
    row("notice", 5);
    row("info", 5);
    row("debug", 5);
    row("", 3);
    row("err ", 3);
    row(" err", 3);
    row("Err", 3);
    row("error", 3);
    row("warn", 3);
    row("4", 3);
}

void TestFaultHandler::severityOfLevel()
{
    QFETCH(QString, level);
    QFETCH(int, severity);
    QCOMPARE(severityOf(level), severity);
    enable(traps({"LET Fault"}));
    raise("amp", "7", "let_fail", "text", level.toUtf8().constData());
    QCOMPARE(sent, QStringList{qs("5|text|%1|0").arg(severity)});
}

void TestFaultHandler::sentOnceThoughReportedAgain()
{
    enable(traps({"Cooling Fan Fault"}));
    log->takeLines();
    raise("amp", "7", "fan_speed_slow", "fan 1", "crit", "1700000000");
    QCOMPARE(sent, QStringList{qs("1|fan 1|1|1700000000")});
    QStringList lines = {qs("FaultHandler onReportFault New Fault: [amp] [7] "),
                         qs("FaultHandler reportTraps Trap fault ID: 1 description: fan 1 ->Send SUCCESS")};
    QCOMPARE(log->takeLines(), lines);

    raise("amp", "7", "fan_speed_slow", "fan 1, again", "crit", "1700000001");
    QCOMPARE(sent.size(), 1);
    lines.removeLast();
    QCOMPARE(log->takeLines(), lines);
}

void TestFaultHandler::sentAgainAfterItWasRemovedAndRaised()
{
    enable(traps({"LET Fault"}));
    raise("amp", "7");
    log->takeLines();
    clear("amp", "7");
    QCOMPARE(log->takeLines(), QStringList{qs("FaultHandler onReportFault Remove Fault: [amp] [7]")});
    QCOMPARE(sent.size(), 1); // no trap for the end
    raise("amp", "7");
    QCOMPARE(sent.size(), 2);
}

void TestFaultHandler::sentWhenItsTrapIsEnabledLater()
{
    raise("amp", "7", "fan_speed_slow", "fan 1", "crit");
    enable(traps({}, {"Cooling Fan Fault"}));
    QCOMPARE(sent, QStringList());
    enable(traps({"Cooling Fan Fault"}));
    QCOMPARE(sent, QStringList{qs("1|fan 1|1|0")});
    enable(traps({}, {"Cooling Fan Fault"}));
    enable(traps({"Cooling Fan Fault"}));
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::disabledAgainHoldsNewFaultsBack()
{
    enable(traps({"LET Fault"}));
    answer = [](const QString &) { return -1; };
    raise("amp", "7");
    QCOMPARE(sent.size(), 1);
    enable(traps({}, {"LET Fault"})); // the refused one waits for the trap now, not for the sender
    raise("amp", "8");
    QCOMPARE(sent.size(), 1);
    answer = nullptr;
    enable(traps({"LET Fault"}));
    QCOMPARE(sent.size(), 3);
}

void TestFaultHandler::identifierOutsideTheCatalogueIsKeptButNeverSent()
{
    QMap<QString, bool> map;
    for (const Trap &trap : trapCatalogue)
        map.insert(text(trap.name), true);
    enable(map);
    raise("amp", "7", "no_such_fault");
    QCOMPARE(sent, QStringList());
    raise("amp", "7", "let_fail"); // known already, and stays what it was
    handler->reportTraps();
    QCOMPARE(sent, QStringList());
    clear("amp", "7");
    raise("amp", "7", "let_fail");
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::identifiersAreMatchedExactly_data()
{
    QTest::addColumn<QString>("msgId");
    for (const char *msgId : {"", "let_fail ", " let_fail", "LET_FAIL", "let_fai", "let_fail2", "LET Fault"})
        QTest::newRow(qPrintable(qs("'%1'").arg(qs(msgId)))) << qs(msgId);
}

void TestFaultHandler::identifiersAreMatchedExactly()
{
    QFETCH(QString, msgId);
    enable(traps({"LET Fault"}));
    raise("amp", "7", msgId.toUtf8().constData());
    QCOMPARE(sent, QStringList());
}

void TestFaultHandler::keptAsFirstReported()
{
    raise("amp", "7", "let_fail", "first", "crit", "1");
    raise("amp", "7", "fuse_broken", "second", "info", "2");
    enable(traps({"LET Fault", "Fuse Broken"}));
    QCOMPARE(sent, QStringList{qs("5|first|1|1")});
}

void TestFaultHandler::removedBeforeItsTrapIsEnabled()
{
    raise("amp", "7");
    raise("amp", "8");
    clear("amp", "7");
    enable(traps({"LET Fault"}));
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::removalOfAnUnknownFaultOnlyRunsTheReport()
{
    enable(traps({"LET Fault"}));
    answer = [](const QString &) { return -1; };
    raise("amp", "7");
    answer = nullptr;
    clear("amp", "unknown");
    QCOMPARE(sent.size(), 2);
}

void TestFaultHandler::noAgentYet()
{
    kvAgent = nullptr;
    enable(traps({"LET Fault"}));
    raise("amp", "7");
    kvAgent = &agent;
    QCOMPARE(sent, QStringList());
    handler->reportTraps();
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::noSenderYet()
{
    agent.sendTrap = nullptr;
    enable(traps({"LET Fault"}));
    raise("amp", "7");
    agent.sendTrap = fakeSendTrap;
    QCOMPARE(sent, QStringList());
    raise("amp", "8");
    QCOMPARE(sent.size(), 2);
}

void TestFaultHandler::ordinaryRefusalIsRetriedAtEachNextEvent()
{
    enable(traps({"LET Fault"}));
    log->takeLines();
    for (const int result : {-1, 1, 7}) { // anything but 0 is a refusal
        answer = [result](const QString &) { return result; };
        sent.clear();
        raise("amp", "7", "let_fail", "let 3");
        QCOMPARE(sent.size(), 1);
        QCOMPARE(log->takeLines().last(),
                 qs("FaultHandler reportTraps Trap fault ID: 5 description: let 3 ->Send FAILED"));
    }
    raise("amp", "other", "no_such_fault"); // a message
    QCOMPARE(sent.size(), 2);
    clear("amp", "other"); // a removal
    QCOMPARE(sent.size(), 3);
    enable(traps({"Fuse Broken"})); // an enable change
    QCOMPARE(sent.size(), 4);
    answer = nullptr;
    clear("amp", "other");
    QCOMPARE(sent.size(), 5);
    QCOMPARE(log->takeLines().last(),
             qs("FaultHandler reportTraps Trap fault ID: 5 description: let 3 ->Send SUCCESS"));
    clear("amp", "other");
    QCOMPARE(sent.size(), 5);
}

void TestFaultHandler::refusalDoesNotHoldUpTheOthers()
{
    for (const char *ref : {"1", "2", "3"})
        raise("amp", ref, "let_fail", ref);
    answer = [](const QString &call) { return call.startsWith(QLatin1String("5|2|")) ? -1 : 0; };
    enable(traps({"LET Fault"}));
    const QStringList expected = {qs("5|1|2|0"), qs("5|2|2|0"), qs("5|3|2|0")};
    QCOMPARE(sent, expected);
    answer = nullptr;
    handler->reportTraps();
    QCOMPARE(sent, expected + QStringList{qs("5|2|2|0")});
}

void TestFaultHandler::runEndsAtTheFirstRefusalWhileTheSenderIsBlocked()
{
    for (const char *ref : {"1", "2", "3"})
        raise("amp", ref, "let_fail", ref);
    log->takeLines();
    gate->closeSession();
    answer = [](const QString &) { return -1; };
    enable(traps({"LET Fault"}));
    QCOMPARE(sent, QStringList{qs("5|1|2|0")});
    const QString failed = qs("FaultHandler reportTraps Trap fault ID: 5 description: 1 ->Send FAILED");
    const QStringList lines = {qs("FaultHandler onUpdateEnabledSnmpTraps Changed Enabled Traps: LET Fault"), failed};
    QCOMPARE(log->takeLines(), lines);

    raise("amp", "4");
    QCOMPARE(sent.size(), 2); // one attempt for each run
    QCOMPARE(log->takeLines().size(), 2);
}

void TestFaultHandler::blockedSenderGetsTheRestAtTheNextRun()
{
    for (int i = 0; i < 450; ++i)
        raise("amp", QByteArray::number(i).constData(), "let_fail", QByteArray::number(i).constData());
    answer = throughTheGate();
    enable(traps({"LET Fault"}));
    QCOMPARE(sent.size(), 201);
    for (int pass = 0; pass < 2; ++pass) {
        gate->endPass();
        handler->reportTraps();
    }
    QCOMPARE(sent.size(), 201 + 201 + 50);
    gate->endPass();
    handler->reportTraps();
    QCOMPARE(sent.size(), 452);
    sent.removeDuplicates(); // the two refused ones came again
    QCOMPARE(sent.size(), 450);
    QCOMPARE(sent.last(), qs("5|449|2|0"));
}

void TestFaultHandler::aFaultThatEndsWhileTheSenderIsBusyIsStillSent()
{
    enable(traps({"LET Fault", "Fuse Broken"}));
    fillThePass();
    answer = throughTheGate();
    raise("amp", "1", "let_fail", "short");
    raise("amp", "2", "let_fail", "long");
    clear("amp", "1");
    raise("amp", "1", "fuse_broken", "a fault of its own");
    clear("amp", "1");
    sent.clear();
    gate->endPass(); // the run that follows it comes after the next message
    clear("amp", "2");
    const QStringList expected = {qs("5|short|2|0"), qs("5|long|2|0"), qs("9|a fault of its own|2|0")};
    QCOMPARE(sent, expected);
    handler->reportTraps();
    QCOMPARE(sent, expected);
}

void TestFaultHandler::anEndedFaultThatStillWaitsOutlivesAChangeOfOtherTraps()
{
    enable(traps({"LET Fault"}));
    fillThePass();
    answer = throughTheGate();
    raise("amp", "1", "let_fail", "short");
    clear("amp", "1");
    enable(traps({"LET Fault", "Fuse Broken"}));
    sent.clear();
    gate->endPass();
    handler->reportTraps();
    handler->reportTraps();
    QCOMPARE(sent, QStringList{qs("5|short|2|0")});
}

void TestFaultHandler::aFaultThatEndsWithoutASessionIsNeverSent()
{
    enable(traps({"LET Fault"}));
    gate->closeSession();
    answer = throughTheGate();
    raise("amp", "1", "let_fail", "1");
    raise("amp", "2", "let_fail", "2");
    clear("amp", "1");
    sent.clear();
    gate->openSession(-1);
    handler->reportTraps();
    QCOMPARE(sent, QStringList{qs("5|2|2|0")});
}

void TestFaultHandler::aFaultThatEndsAfterAnOrdinaryRefusalIsNeverSent()
{
    enable(traps({"LET Fault"}));
    answer = [](const QString &) { return -1; };
    raise("amp", "1");
    QCOMPARE(sent.size(), 1);
    clear("amp", "1");
    handler->reportTraps();
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::anEndedFaultIsForgottenWhenItsTrapIsDisabled()
{
    enable(traps({"LET Fault"}));
    fillThePass();
    answer = throughTheGate();
    raise("amp", "1");
    clear("amp", "1");
    enable(traps({}, {"LET Fault"}));
    sent.clear();
    gate->endPass();
    enable(traps({"LET Fault"}));
    QCOMPARE(sent, QStringList());
}

void TestFaultHandler::runWithNothingDueCallsNobody()
{
    enable(traps({"LET Fault"}));
    handler->reportTraps();
    QCOMPARE(sent, QStringList());
}

void TestFaultHandler::sentInTheOrderOfArrival()
{
    raise("z", "1", "fuse_broken", "first");
    raise("a", "1", "let_fail", "second");
    raise("m", "1", "fuse_broken", "third");
    raise("b", "1", "let_fail", "fourth");
    clear("z", "1");
    raise("z", "1", "fuse_broken", "fifth");
    enable(traps({"Fuse Broken", "LET Fault"}));
    const QStringList expected = {qs("5|second|2|0"), qs("9|third|2|0"), qs("5|fourth|2|0"), qs("9|fifth|2|0")};
    QCOMPARE(sent, expected);
}

void TestFaultHandler::reporterAndReferenceTogetherIdentify()
{
    enable(traps({"LET Fault"}));
    raise("amp", "7");
    raise("amp", "8");
    raise("psu", "7");
    raise("am", "p7"); // the same letters in a row are another pair
    QCOMPARE(sent.size(), 4);
    clear("psu", "8");
    raise("amp", "7");
    QCOMPARE(sent.size(), 4);
}

void TestFaultHandler::enabledListIsLoggedInTheOrderOfItsGrowth()
{
    const QString line = qs("FaultHandler onUpdateEnabledSnmpTraps Changed Enabled Traps: ");
    enable(traps({"RCO Fault"}, {"AC Power Fault"}));
    QCOMPARE(log->takeLines(), QStringList{line + qs("RCO Fault")});
    enable(traps({"RCO Fault", "AC Power Fault", "LET Fault"}));
    QCOMPARE(log->takeLines(), QStringList{line + qs("RCO Fault; AC Power Fault; LET Fault")});
    enable(traps({}, {"RCO Fault"})); // a name that is not in the map stays
    QCOMPARE(log->takeLines(), QStringList{line + qs("AC Power Fault; LET Fault")});
    enable(traps({}, {"AC Power Fault", "LET Fault"}));
    QCOMPARE(log->takeLines(), QStringList{line});
}

void TestFaultHandler::textsArePassedOnAsUtf8()
{
    enable(traps({"LET Fault"}));
    raise("amp", "7", "let_fail", "K\xc3\xb6ln \xe2\x82\xac", "err", "");
    QCOMPARE(sent, QStringList{qs("5|K\xc3\xb6ln \xe2\x82\xac|2|")});
}

void TestFaultHandler::percentSignsInTextsStay()
{
    enable(traps({"LET Fault"}));
    log->takeLines();
    raise("%2", "%1", "let_fail", "%1 at 100%");
    const QStringList lines = {qs("FaultHandler onReportFault New Fault: [%2] [%1] "),
                               qs("FaultHandler reportTraps Trap fault ID: 5 description: %1 at 100% ->Send SUCCESS")};
    QCOMPARE(log->takeLines(), lines);
}

void TestFaultHandler::withoutASessionTheAgentsOwnAnswerEndsTheRun()
{
    // No agent was started in this process, so there is no session to a master.
    handler.reset(new FaultHandler(nullptr));
    for (const char *ref : {"1", "2", "3"})
        raise("amp", ref);
    answer = [](const QString &) { return -1; };
    enable(traps({"LET Fault"}));
    QCOMPARE(sent.size(), 1);
}

void TestFaultHandler::tenThousandRecordsStayQuick()
{
    QElapsedTimer timer;
    timer.start();
    enable(traps({"Fuse Broken"}));
    for (int i = 0; i < 10000; ++i) // their trap is disabled: they wait
        raise("amp", QByteArray::number(i).constData());
    for (int i = 0; i < 10000; ++i)
        raise("psu", QByteArray::number(i).constData(), "fuse_broken");
    QCOMPARE(sent.size(), 10000);
    for (int i = 0; i < 10000; ++i)
        clear("amp", QByteArray::number(i).constData());
    // A walk over the list for each message would take minutes in this build.
    QVERIFY2(timer.elapsed() < 20000, qPrintable(QString::number(timer.elapsed())));
}

const TestEntry entry("tst_faulthandler", runTest<TestFaultHandler>);

#include "tst_faulthandler.moc"
