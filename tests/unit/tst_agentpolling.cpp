// The application object with the agent started: polling, waking on traffic, waiting traps.
#include "support/agentbench.h"
#include "support/kvsnmpbench.h"
#include "support/testprogram.h"

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

/// Sends a GET to the agent in this process; a later pass of the library answers.
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
        if (snmp_async_send(manager, pdu, take, this) == 0)
            qFatal("not sent");
    }

    bool isAnswered() const { return m_answered; }

private:
    static int take(int operation, netsnmp_session *, int, netsnmp_pdu *, void *self)
    {
        if (operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE)
            static_cast<PendingGet *>(self)->m_answered = true;
        return 1;
    }

    bool m_answered = false;
};

/// As the library does when the master has accepted or lost the sub-agent.
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
        QCOMPARE(
            output.filter(QRegularExpression(qs("^copyTal"))),
            lines({"copyTalVoltageTableData()", "copyTalTempTableData()", "copyTalFanTableData()",
                   "copyTalAmpChannelTableData()", "copyTalControlOutputTableData()", "copyTalControlInputTableData()",
                   "copyTalLetChannelTableData() for letChannel: 1", "copyTalLetChannelTableData() for letChannel: 2",
                   "copyTalEthMonitoringTableData()", "copyTalLineInTableData()"}));
        QVERIFY(kvAgent != nullptr);
        QCOMPARE(kvAgent->modelNumber, 6420U);
        QCOMPARE(int{kvAgent->ampType}, 3);
        QCOMPARE(kvAgent->modelText, "Some Device");
        QCOMPARE(kvAgent->infoData->modelType.text, kvAgent->modelText);
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

    void oneTurnOfTheEventLoopAnswersARequest()
    {
        const Bench &bench = serving();
        bench.processTimer()->start(60000); // only the descriptors can wake it now
        QCoreApplication::processEvents();  // nothing is left over
        const PendingGet get;
        QCoreApplication::processEvents();
        QVERIFY(get.isAnswered());
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
