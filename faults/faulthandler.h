// The list of active system messages, and which of them are sent as traps.
#pragma once

#include <QHash>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <map>
#include <set>

struct Trap;
enum class TrapGate;

/// The severity number that a trap carries for a message's level.
std::int32_t severityOf(const QString &level);

class FaultHandler : public QObject {
    Q_OBJECT

public:
    explicit FaultHandler(QObject *parent);
    /// `gate` tells whether the sender takes any trap for now: a run ends at the first refusal while it does not. The
    /// agent is asked if nobody else answers.
    FaultHandler(QObject *parent, std::function<TrapGate()> gate);
    ~FaultHandler() override;

public Q_SLOTS:
    /// An active message is kept until it is reported inactive. One that is known already stays as it is.
    void onReportFault(QString reporter, QString repRef, QString msgData, QString infoText, QString timeStamp,
                       QString level, bool active);
    void onUpdateEnabledSnmpTraps(QMap<QString, bool> &enabledSnmpTraps);
    /// Sends every message that has an enabled trap and was not sent yet, in the order of arrival.
    void reportTraps();

private:
    struct FaultRecord {
        QString reporter;
        QString repRef;
        QString msgData;
        QString infoText;
        QString timeStamp;
        QString level;
        bool sent;
        const Trap *trap;   ///< null when no trap belongs to the message
        bool ended = false; ///< no longer in the list; stays for its trap, which the sender was too busy to take
    };
    using FaultKey = QPair<QString, QString>; ///< reporter and repRef
    using Arrival = quint64;

    bool isDue(const FaultRecord &fault) const;
    void remove(Arrival arrival);

    std::function<TrapGate()> m_gate;
    std::map<Arrival, FaultRecord> m_faults; ///< the fault list, in the order of arrival
    QHash<FaultKey, Arrival> m_arrivals;
    std::set<Arrival> m_due; ///< unsent messages whose trap is enabled: a run looks at no others
    bool m_runCut = false;   ///< the last run ended at a refusal because the sender took nothing then
    QStringList m_enabledTraps;
    Arrival m_nextArrival = 0;
};
