// The blocking way of serving, with the library's pass replaced by a script.
#include "support/messagelog.h"

#include "agent/selectcontrol.h"
#include "app/trace/trace.h"

#include "support/agentbench.h"
#include "support/testprogram.h"

#include <QSignalSpy>
#include <QtTest>

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
    void theConstructorLogs()
    {
        MessageLog log;
        const KvSnmpSelectControl control;
        QCOMPARE(log.lines(), QStringList{QStringLiteral("KvSnmpSelectControl Created kvSnmpSelectControl Thread")});
        QVERIFY(!control.isRunning());
    }

    void runServesForEver()
    {
        Trace trace(nullptr);
        QSignalSpy traced(&trace, SIGNAL(LogMessage(QString)));
        MessageLog log;
        OpenControl control;
        log.takeLines();
        const QStringList output = printed([&] { QVERIFY_EXCEPTION_THROWN(control.run(), ScriptEnded); });
        QCOMPARE(output,
                 (QStringList{QStringLiteral("agent_check_and_process() ret = 0   NOTHING"),
                              QStringLiteral("agent_check_and_process() ret = 3   SOMETHING"),
                              QStringLiteral("agent_check_and_process() ret = -1   ERROR    errno: %1").arg(EBADF)}));
        QCOMPARE(blocks, (QList<int>{1, 1, 1, 1}));
        QCOMPARE(log.lines(), QStringList{QStringLiteral("KV SNMP Select Control Thread Started")});
        QCOMPARE(traced.size(), 1);
        const QString line = traced[0][0].toString();
        QVERIFY2(line.contains(QRegularExpression(
                     QStringLiteral("KvSnmpSelectControl +run +KV SNMP Select Control Thread Started"))),
                 qPrintable(line));
    }
};

const TestEntry entry("tst_selectcontrol", runTest<TestSelectControl>);
#include "tst_selectcontrol.moc"
