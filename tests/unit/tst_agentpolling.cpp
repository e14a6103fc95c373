// The application object with the agent started: polling, waking on traffic, waiting traps.
#include "support/agentbench.h"
#include "support/kvsnmpbench.h"
#include "support/testprogram.h"

#include "agent/trapgate.h"
#include "app/descriptorwatch.h"

#include <QRegularExpression>
#include <QSocketNotifier>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

extern "C" {
extern int callback_master_num; // the agent's end of the library's internal transport; in no public header
}

namespace {

/// Sends a GET to the agent in this process; the answer comes in a later pass of the library.
class PendingGet {
public:
    PendingGet()
    {
        static netsnmp_session *const manager = netsnmp_callback_open(callback_master_num, take, nullptr, nullptr);
        netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GET);
        pdu->version = 0xC1; // AgentX, as what comes from a master
        pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
        constexpr oid modelNumber[] = {1, 3, 6, 1, 4, 1, 52717, 3, 1, 0};
        snmp_add_null_var(pdu, modelNumber, std::size(modelNumber));
        m_sent = snmp_async_send(manager, pdu, take, this) != 0;
    }

    bool isSent() const { return m_sent; }
    bool isAnswered() const { return m_answered; }

private:
    static int take(int operation, netsnmp_session *, int, netsnmp_pdu *, void *self)
    {
        if (operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE)
            static_cast<PendingGet *>(self)->m_answered = true;
        return 1;
    }

    bool m_sent = false;
    bool m_answered = false;
};

netsnmp_session session{};

/// As the library does when the master has taken the sub-agent in.
void openSession()
{
    snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, &session);
}

void closeSession()
{
    snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &session);
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
        QStringList lines;
        {
            StandardOutput output;
            serving();
            serving().finishSnmpdConf();
            lines = output.takeLines();
        }
        QCOMPARE(lines.filter(qs("Starting kvAgent")).size(), 1);
        QCOMPARE(
            lines.filter(QRegularExpression(qs("^copyTal"))),
            QStringList({qs("copyTalVoltageTableData()"), qs("copyTalTempTableData()"), qs("copyTalFanTableData()"),
                         qs("copyTalAmpChannelTableData()"), qs("copyTalControlOutputTableData()"),
                         qs("copyTalControlInputTableData()"), qs("copyTalLetChannelTableData() for letChannel: 1"),
                         qs("copyTalLetChannelTableData() for letChannel: 2"), qs("copyTalEthMonitoringTableData()"),
                         qs("copyTalLineInTableData()")}));
        Bench &bench = serving();
        QVERIFY(kvAgent != nullptr);
        QCOMPARE(kvAgent->modelNumber, 6420U);
        QCOMPARE(int{kvAgent->ampType}, 3);
        QCOMPARE(kvAgent->modelText, "Some Device");
        QCOMPARE(kvAgent->infoData->modelType.text, kvAgent->modelText);
        QVERIFY(bench.processTimer()->isActive());
        QVERIFY(bench.child<DescriptorWatch>()->findChild<QSocketNotifier *>() != nullptr);
    }

    void pollingSlowsDownAfter21IdlePasses()
    {
        const Bench &bench = serving();
        const PendingGet get;
        QVERIFY(get.isSent());
        for (int pass = 0; pass < 10 && !get.isAnswered(); ++pass)
            bench.poll();
        QVERIFY(get.isAnswered());
        while (kaCheckAndProcess() > 0) // nothing is left over
            ;
        QCOMPARE(bench.processTimer()->interval(), 5);
        int idlePasses = 0;
        while (bench.processTimer()->interval() == 5 && idlePasses < 100) {
            bench.poll();
            ++idlePasses;
        }
        QCOMPARE(idlePasses, 21);
        QCOMPARE(bench.processTimer()->interval(), 100);
        QVERIFY(bench.processTimer()->isActive());
    }

    void trafficIsServedWithoutWaitingForTheTimer()
    {
        const Bench &bench = serving();
        bench.processTimer()->start(60000); // only the descriptors can wake it now
        const PendingGet get;
        QVERIFY(get.isSent());
        QTRY_VERIFY(get.isAnswered());
        QCOMPARE(bench.processTimer()->interval(), 5);
    }

    void oneTurnOfTheEventLoopAnswersARequest()
    {
        const Bench &bench = serving();
        bench.processTimer()->start(60000);
        QCoreApplication::processEvents(); // nothing is left over
        const PendingGet get;
        QVERIFY(get.isSent());
        QCoreApplication::processEvents();
        QVERIFY(get.isAnswered());
    }

    void endlessTrafficLeavesTheEventLoopItsTurns()
    {
        serving();
        QTimer everyTurn;
        int turns = 0;
        connect(&everyTurn, &QTimer::timeout, this, [&turns] { ++turns; });
        everyTurn.start(0);
        // Each is answered in a pass of its own, so all of them cannot be in one turn.
        std::vector<std::unique_ptr<PendingGet>> gets(200);
        for (auto &get : gets)
            get = std::make_unique<PendingGet>();
        QTRY_VERIFY(std::all_of(gets.begin(), gets.end(), [](const auto &get) { return get->isAnswered(); }));
        QVERIFY2(turns >= 200 / 16, qPrintable(QString::number(turns)));
    }

    void sessionThatOpensSendsTheWaitingTraps()
    {
        const Bench &bench = serving();
        const SendTrap realSender = kvAgent->sendTrap;
        enableTrap(bench, "Cooling Fan Fault");
        raiseFault(bench, qs("while no session is open")); // refused by the agent
        kvAgent->sendTrap = noteTrap;
        openSession();
        QCOMPARE(sentTraps, QStringList()); // not from inside the library
        QTRY_COMPARE(sentTraps.size(), 1);
        QVERIFY(sentTraps[0].endsWith(qs("while no session is open")));
        closeSession();
        QCoreApplication::processEvents();
        QCOMPARE(sentTraps.size(), 1);
        kvAgent->sendTrap = realSender;
    }

    void trapsBeyondOnePassGoOutWithTheNext()
    {
        Bench &bench = serving();
        openSession();
        enableTrap(bench, "Cooling Fan Fault");
        QCoreApplication::processEvents();
        bench.poll();
        bench.log.takeLines();
        const auto sent = [&bench] { return bench.log.lines().filter(qs("->Send SUCCESS")).size(); };
        for (std::size_t i = 0; i < 2 * trapsPerPass + 10; ++i)
            raiseFault(bench, qs("fault %1").arg(i));
        QCOMPARE(static_cast<std::size_t>(sent()), trapsPerPass);
        QTRY_COMPARE(static_cast<std::size_t>(sent()), 2 * trapsPerPass + 10);
        closeSession();
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
