// The application object with the agent started: polling, waking on traffic, waiting traps.
#include "support/agentbench.h"
#include "support/kvsnmpbench.h"
#include "support/testprogram.h"

#include "app/descriptorwatch.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdio_ext.h>
#include <string>
#include <vector>

namespace {
struct PendingGet : PendingRequest {
    PendingGet() : PendingRequest(SNMP_MSG_GET, {qs("3.1.0")}) {}
};

void callSession(int event)
{
    static netsnmp_session session{};
    snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, event, &session);
}
} // namespace

class TestAgentPolling : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { sentTraps.clear(); }
    void cleanupTestCase() { m_serving.reset(); }

    void firstFinishStartsTheAgent()
    {
        QVERIFY(kvAgent == nullptr);
        const QStringList output = printed([this] {
            serving();
            serving().finishSnmpdConf();
        });
        QCOMPARE(output.filter(qs("Starting kvAgent")).size(), 1);
        QCOMPARE(output.filter(QRegularExpression(qs("^copyTal"))).size(), 10);
        QVERIFY(kvAgent != nullptr);
        QCOMPARE(kvAgent->modelNumber, 6420U);
        QCOMPARE(int{kvAgent->ampType}, 3);
        QCOMPARE(kvAgent->modelText, "Some Device");
        QCOMPARE(kvAgent->infoData->modelType.text, kvAgent->modelText);
        QCOMPARE(snmpGet("3.1.3.0"), lines({"3.1.3.0 INTEGER 6420"})); // the information is served
        QVERIFY(serving().processTimer()->isActive());
        QVERIFY(serving().child<DescriptorWatch>()->findChild<QSocketNotifier *>() != nullptr);
    }

    void pollingSlowsDownAfter21IdlePasses()
    {
        const Bench &bench = serving();
        const PendingGet get;
        for (int pass = 0; pass < 10 && !get.isAnswered(); ++pass)
            bench.poll();
        QVERIFY(get.isAnswered());
        while (kaCheckAndProcess() > 0) // nothing is left over
            ;
        QCOMPARE(bench.processTimer()->interval(), 5);
        int idlePasses = 0;
        for (; bench.processTimer()->interval() == 5 && idlePasses < 100; ++idlePasses)
            bench.poll();
        QCOMPARE(idlePasses, 21);
        QCOMPARE(bench.processTimer()->interval(), 100);
        QVERIFY(bench.processTimer()->isActive());
    }

    void descriptorsWakeTheAgent()
    {
        const Bench &bench = serving();
        bench.processTimer()->start(60000); // only the descriptors can wake it now
        const PendingGet get;
        QTRY_VERIFY(get.isAnswered());
        QCOMPARE(bench.processTimer()->interval(), 5);
    }

    void endlessTrafficLeavesTheEventLoopItsTurns()
    {
        serving();
        QTimer everyTurn;
        int turns = 0;
        connect(&everyTurn, &QTimer::timeout, this, [&turns] { ++turns; });
        everyTurn.start(0);
        const std::vector<PendingGet> gets(200); // each is answered in another pass: too many for one turn
        QTRY_VERIFY(std::all_of(gets.begin(), gets.end(), [](const auto &get) { return get.isAnswered(); }));
        QVERIFY2(turns >= 200 / 16, qPrintable(QString::number(turns)));
    }

    void unchangedIntervalDoesNotRestartTheTimer()
    {
        const Bench &bench = serving();
        const PendingGet get;
        for (int pass = 0; pass < 10 && !get.isAnswered(); ++pass)
            bench.poll();
        QCOMPARE(bench.processTimer()->interval(), 5);
        const PendingGet next;
        while (bench.processTimer()->remainingTime() > 0) // no turn of the event loop: it stays overdue
            QTest::qSleep(1);
        bench.poll();
        QCOMPARE(bench.processTimer()->remainingTime(), 0);
        for (int pass = 0; pass < 10 && !next.isAnswered(); ++pass)
            bench.poll();
    }

    void sessionChangesAreWatched()
    {
        const Bench &bench = serving();
        const auto *watch = bench.child<DescriptorWatch>();
        callSession(SNMPD_CALLBACK_INDEX_STOP);
        bench.poll();
        const auto watched = [watch] {
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            return watch->findChildren<QSocketNotifier *>().size();
        };
        const int before = watched();
        netsnmp_session peer = {};
        snmp_sess_init(&peer);
        std::string name = "udp:127.0.0.1:9";
        peer.peername = name.data();
        peer.version = SNMP_VERSION_2c;
        netsnmp_session *const session = snmp_open(&peer);
        QVERIFY(session != nullptr);
        callSession(SNMPD_CALLBACK_INDEX_START);
        bench.poll();
        QCOMPARE(watched(), before + 1);
        snmp_close(session);
        callSession(SNMPD_CALLBACK_INDEX_STOP);
        bench.poll();
        QCOMPARE(watched(), before);
    }

    void linesAreWrittenWhenThereIsNoTraffic()
    {
        const Bench &bench = serving();
        bench.processTimer()->start(60000);
        QTimer turns;
        turns.start(0);
        const auto heldAfterATurn = [] {
            std::printf("held ");
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            return __fpending(stdout) > 0;
        };
        const StandardOutput file; // written when it is full or flushed
        const PendingGet get;
        for (int pass = 0; pass < 10 && !get.isAnswered(); ++pass)
            bench.poll();
        QVERIFY(heldAfterATurn());
        while (kaCheckAndProcess() > 0)
            ;
        bench.poll(); // finds nothing
        QVERIFY(!heldAfterATurn());
    }

    void sessionThatOpensSendsTheWaitingTraps()
    {
        const Bench &bench = serving();
        const SendTrap realSender = kvAgent->sendTrap;
        enableTrap(bench, "Cooling Fan Fault");
        raiseFault(bench, qs("while no session is open")); // refused by the agent
        kvAgent->sendTrap = noteTrap;
        callSession(SNMPD_CALLBACK_INDEX_START);
        QCOMPARE(sentTraps, QStringList()); // not from inside the library
        QTRY_COMPARE(sentTraps.size(), 1);
        QVERIFY(sentTraps[0].endsWith(qs("while no session is open")));
        callSession(SNMPD_CALLBACK_INDEX_STOP);
        QCoreApplication::processEvents();
        QCOMPARE(sentTraps.size(), 1);
        kvAgent->sendTrap = realSender;
    }

private:
    Bench &serving()
    {
        if (!m_serving) {
            m_serving = std::make_unique<Bench>(6420);
            m_serving->finishSnmpdConf();
        }
        return *m_serving;
    }

    std::unique_ptr<Bench> m_serving; ///< the agent starts once in a process: the tests share it
};

const TestEntry entry("tst_agentpolling", runTest<TestAgentPolling>);
#include "tst_agentpolling.moc"
