// The list of active system messages, and which of them are sent as traps.
#pragma once

#include <QHash>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <map>
#include <set>

class TrapGate;
struct Trap;

/// The severity number that a trap carries for a message's level.
std::int32_t severityOf(const QString &level);

class FaultHandler : public QObject {
    Q_OBJECT

public:
    /// Behind the agent's own gate.
    explicit FaultHandler(QObject *parent);
    /// Runs reportTraps() whenever the gate opens. The gate outlives the handler.
    FaultHandler(QObject *parent, TrapGate &gate);
    ~FaultHandler() override;

public Q_SLOTS:
    /// An active message is kept until it is reported inactive. One that is known already stays as it is.
    void onReportFault(QString reporter, QString repRef, QString msgData, QString infoText, QString timeStamp,
                       QString level, bool active);
    void onUpdateEnabledSnmpTraps(QMap<QString, bool> &enabledSnmpTraps);
    /// Sends every message that has an enabled trap and was not sent yet, in the order of arrival. Stops at the first
    /// refusal unless the gate is open.
    void reportTraps();

private:
    struct FaultRecord {
        QString reporter;
        QString repRef;
        QString msgData;
        QString infoText;
        QString timeStamp;
        QString level;
        const Trap *trap; ///< null when no trap belongs to the message
        bool sent = false;
        bool ended = false; ///< no longer in the list; stays for its trap, which the sender was too busy to take
    };
    using FaultKey = QPair<QString, QString>; ///< reporter and repRef
    using Arrival = quint64;

    void add(FaultRecord fault);
    void end(const FaultKey &key);
    bool isDue(const FaultRecord &fault) const;
    void remove(Arrival arrival);
    void forgetEndedAfterLoss();

    TrapGate &m_gate;
    std::map<Arrival, FaultRecord> m_faults; ///< the fault list, in the order of arrival
    QHash<FaultKey, Arrival> m_arrivals;
    std::set<Arrival> m_due;    ///< unsent messages whose trap is enabled: a run looks at no others
    bool m_senderBusy = false;  ///< the last run stopped because the sender was busy, and the way was not lost since
    std::uint64_t m_losses = 0; ///< of the gate, as far as they were acted upon
    QStringList m_enabledTraps;
    Arrival m_nextArrival = 0;
};
