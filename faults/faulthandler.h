// The list of active system messages, and the traps for them.
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
    /// Uses the agent's gate.
    explicit FaultHandler(QObject *parent);
    /// Runs reportTraps() when the gate opens. The gate has to outlive the handler.
    FaultHandler(QObject *parent, TrapGate &gate);
    ~FaultHandler() override;

public Q_SLOTS:
    /// An active message is kept until it is reported inactive. A known message stays unchanged.
    void onReportFault(QString reporter, QString repRef, QString msgData, QString infoText, QString timeStamp,
                       QString level, bool active);
    void onUpdateEnabledSnmpTraps(QMap<QString, bool> &enabledSnmpTraps);
    /// Sends all unsent messages with an enabled trap, in the order of arrival. Stops at the first refusal unless the
    /// gate is open.
    void reportTraps();

private:
    struct FaultRecord {
        QString reporter;
        QString repRef;
        QString msgData;
        QString infoText;
        QString timeStamp;
        QString level;
        const Trap *trap; ///< null without a trap for the message
        bool sent = false;
        bool ended = false; ///< no longer in the list; kept for its trap, refused by a busy sender
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
    std::size_t m_mostFaults = 0;            ///< in the list since its memory was returned
    QHash<FaultKey, Arrival> m_arrivals;
    std::set<Arrival> m_due;    ///< unsent messages with an enabled trap: the only ones in a run
    bool m_senderBusy = false;  ///< the last run stopped at a busy sender, with no loss since
    std::uint64_t m_losses = 0; ///< of the gate, as already handled
    QStringList m_enabledTraps;
    Arrival m_nextArrival = 0;
};
