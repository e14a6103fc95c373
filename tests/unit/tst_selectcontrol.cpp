// The blocking way of serving, with the library's pass replaced by a script.
#include "support/agentbench.h"
#include "support/messagelog.h"
#include "support/testprogram.h"

#include "agent/selectcontrol.h"
#include "app/trace/trace.h"

#include <cerrno>

namespace {
struct ScriptEnded {};

const int script[] = {0, 3, -1};
std::size_t passes = 0;
QList<int> blocks;

class OpenControl : public KvSnmpSelectControl {
public:
    using KvSnmpSelectControl::run;
};
} // namespace

extern "C" int agent_check_and_process(int block)
{
    blocks.append(block);
    if (passes == std::size(script))
        throw ScriptEnded();
    errno = EBADF;
    return script[passes++];
}

class TestSelectControl : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void runServesForEver()
    {
        Trace trace(nullptr);
        QSignalSpy traced(&trace, SIGNAL(LogMessage(QString)));
        MessageLog log;
        OpenControl control;
        QCOMPARE(log.takeLines(), lines({"KvSnmpSelectControl Created kvSnmpSelectControl Thread"}));
        QVERIFY(!control.isRunning());
        const QStringList output = printed([&] { QVERIFY_EXCEPTION_THROWN(control.run(), ScriptEnded); });
        QCOMPARE(output,
                 lines({"agent_check_and_process() ret = 0   NOTHING", "agent_check_and_process() ret = 3   SOMETHING",
                        "agent_check_and_process() ret = -1   ERROR    errno: 9"}));
        QCOMPARE(blocks, (QList<int>{1, 1, 1, 1}));
        QCOMPARE(log.lines(), lines({"KV SNMP Select Control Thread Started"}));
        QCOMPARE(traced.size(), 1);
        QVERIFY2(traced[0][0].toString().contains(QRegularExpression(
                     QStringLiteral("KvSnmpSelectControl +run +KV SNMP Select Control Thread Started"))),
                 qPrintable(traced[0][0].toString()));
    }
};

const TestEntry entry("tst_selectcontrol", runTest<TestSelectControl>);
#include "tst_selectcontrol.moc"
