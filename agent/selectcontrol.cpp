// The alternative, blocking loop of the agent.
#include "agent/selectcontrol.h"

#include "agentlib/netsnmp.h"
#include "app/trace/trace.h"

#include <QDebug>

#include <cerrno>
#include <cstdio>

KvSnmpSelectControl::KvSnmpSelectControl(QObject *parent) : QThread(parent)
{
    qDebug().noquote() << "KvSnmpSelectControl"
                       << "Created kvSnmpSelectControl Thread";
}

void KvSnmpSelectControl::printResult(int result)
{
    if (result == 0)
        std::printf("agent_check_and_process() ret = %i   NOTHING\n", result);
    else if (result > 0)
        std::printf("agent_check_and_process() ret = %i   SOMETHING\n", result);
    else
        std::printf("agent_check_and_process() ret = %i   ERROR    errno: %i\n", result, errno);
}

void KvSnmpSelectControl::run()
{
    const QString started = QStringLiteral("KV SNMP Select Control Thread Started");
    Trace::logs(QStringLiteral("KvSnmpSelectControl"), QStringLiteral("run"), started);
    qDebug().noquote() << started;
    for (;;)
        printResult(agent_check_and_process(1));
}
