// The list of active system messages, and the traps for them.
#include "faults/faulthandler.h"

#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/latin1.h"
#include "device/trapcatalogue.h"

#include <QDebug>

#include <algorithm>
#include <malloc.h>
#include <string_view>
#include <utility>

/// Of mimalloc: null in a program without it.
extern "C" [[gnu::weak]] void mi_collect(bool force);

namespace {

struct Severity {
    std::string_view level;
    std::int32_t number;
};

// clang-format off
constexpr Severity severities[] = {
    {"emerg",   1}, {"alert", 1}, {"crit",  1},
    {"err",     2},
    {"warning", 4},
    {"notice",  5}, {"info",  5}, {"debug", 5},
};
// clang-format on
constexpr std::int32_t otherSeverity = 3;

constexpr std::size_t manyFaults = 500; // about 400 kB

const Trap *trapOf(const QString &msgData)
{
    for (const Trap &trap : trapCatalogue)
        for (const std::string_view msgId : trap.msgIds)
            if (msgData == latin1(msgId))
                return &trap;
    return nullptr;
}

/// Every allocator keeps free pages between or below the used ones.
void returnFreeMemory()
{
    if (mi_collect != nullptr)
        mi_collect(true);
    else
        malloc_trim(0);
}
} // namespace

std::int32_t severityOf(const QString &level)
{
    for (const Severity &severity : severities)
        if (level == latin1(severity.level))
            return severity.number;
    return otherSeverity;
}

FaultHandler::FaultHandler(QObject *parent) : FaultHandler(parent, trapGate()) {}

FaultHandler::FaultHandler(QObject *parent, TrapGate &gate) : QObject(parent), m_gate(gate)
{
    // Queued: the gate can open inside the agent library, or before the agent has all its data.
    m_gate.setOpened([this] { QMetaObject::invokeMethod(this, "reportTraps", Qt::QueuedConnection); });
}

FaultHandler::~FaultHandler()
{
    m_gate.setOpened(nullptr);
}

void FaultHandler::onReportFault(QString reporter, QString repRef, QString msgData, QString infoText, QString timeStamp,
                                 QString level, bool active)
{
    if (active) {
        const Trap *const trap = trapOf(msgData);
        add({std::move(reporter), std::move(repRef), std::move(msgData), std::move(infoText), std::move(timeStamp),
             std::move(level), trap});
    } else {
        end({reporter, repRef});
    }
    reportTraps();
}

void FaultHandler::add(FaultRecord fault)
{
    qDebug().noquote() << "FaultHandler"
                       << "onReportFault" << QStringLiteral("New Fault: [%1] [%2] ").arg(fault.reporter, fault.repRef);
    const FaultKey key{fault.reporter, fault.repRef};
    if (m_arrivals.contains(key))
        return;
    const Arrival arrival = m_nextArrival++;
    m_arrivals.insert(key, arrival);
    if (isDue(fault))
        m_due.insert(arrival);
    m_faults.emplace_hint(m_faults.end(), arrival, std::move(fault));
    m_mostFaults = std::max(m_mostFaults, m_faults.size());
}

void FaultHandler::end(const FaultKey &key)
{
    qDebug().noquote() << "FaultHandler"
                       << "onReportFault" << QStringLiteral("Remove Fault: [%1] [%2]").arg(key.first, key.second);
    const auto known = m_arrivals.find(key);
    if (known == m_arrivals.end())
        return;
    const Arrival arrival = *known;
    m_arrivals.erase(known);
    forgetEndedAfterLoss();
    FaultRecord &fault = m_faults.at(arrival);
    // Without the sender's limits it would have been sent when it was raised.
    if (isDue(fault) && m_senderBusy)
        fault.ended = true;
    else
        remove(arrival);
}

void FaultHandler::onUpdateEnabledSnmpTraps(QMap<QString, bool> &enabledSnmpTraps)
{
    for (auto trap = enabledSnmpTraps.cbegin(); trap != enabledSnmpTraps.cend(); ++trap) {
        if (!trap.value())
            m_enabledTraps.removeAll(trap.key());
        else if (!m_enabledTraps.contains(trap.key()))
            m_enabledTraps.append(trap.key());
    }
    qDebug().noquote() << "FaultHandler"
                       << "onUpdateEnabledSnmpTraps"
                       << QStringLiteral("Changed Enabled Traps: %1").arg(m_enabledTraps.join(QStringLiteral("; ")));

    m_due.clear();
    std::erase_if(m_faults, [this](const auto &entry) { return entry.second.ended && !isDue(entry.second); });
    for (const auto &[arrival, fault] : m_faults)
        if (isDue(fault))
            m_due.insert(m_due.end(), arrival);
    reportTraps();
}

bool FaultHandler::isDue(const FaultRecord &fault) const
{
    return !fault.sent && fault.trap != nullptr && m_enabledTraps.contains(latin1(fault.trap->name));
}

void FaultHandler::remove(Arrival arrival)
{
    m_due.erase(arrival);
    m_faults.erase(arrival);
    if (m_mostFaults >= manyFaults && m_faults.size() <= m_mostFaults / 2) {
        m_mostFaults = m_faults.size();
        returnFreeMemory();
    }
}

/// An ended fault waits only for a busy sender. When the connection is lost, the wait is unknown, and a manager must
/// not receive a fault minutes after its end.
void FaultHandler::forgetEndedAfterLoss()
{
    const std::uint64_t losses = m_gate.losses();
    if (losses == m_losses)
        return;
    m_losses = losses;
    m_senderBusy = false;
    for (auto due = m_due.begin(); due != m_due.end();) {
        const Arrival arrival = *due++;
        if (m_faults.at(arrival).ended)
            remove(arrival);
    }
}

void FaultHandler::reportTraps()
{
    forgetEndedAfterLoss();
    if (kvAgent == nullptr || kvAgent->sendTrap == nullptr)
        return;
    m_senderBusy = false;
    for (auto due = m_due.begin(); due != m_due.end();) {
        const Arrival arrival = *due;
        FaultRecord &fault = m_faults.at(arrival);
        const int result = kvAgent->sendTrap(fault.trap->number, fault.infoText.toUtf8().constData(),
                                             severityOf(fault.level), fault.timeStamp.toUtf8().constData());
        fault.sent = result == 0;
        qDebug().noquote() << "FaultHandler"
                           << "reportTraps"
                           << (fault.sent ? QStringLiteral("Trap fault ID: %1 description: %2 ->Send SUCCESS")
                                          : QStringLiteral("Trap fault ID: %1 description: %2 ->Send FAILED"))
                                  .arg(QString::number(fault.trap->number), fault.infoText);
        if (!fault.sent && m_gate.state() != TrapGate::State::Open) {
            m_senderBusy = isBusy(m_gate.state());
            return; // the rest waits for the gate; no line for each
        }
        ++due;
        if (fault.ended)
            remove(arrival);
        else if (fault.sent)
            m_due.erase(arrival);
    }
}
