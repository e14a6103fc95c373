// An application object on the bench: its device is a folder, its commands do nothing, nothing of the machine is
// touched.
#pragma once

#include "support/files.h"
#include "support/messagelog.h"
#include "support/talbench.h"
#include "support/talpeer.h"

#include "agent/kvagent.h"
#include "app/kvsnmp.h"
#include "snmpdconf/snmpdconfhandler.h"
#include "tal/talhandler.h"

#include <memory>

/// The identity files, the GPIO tree and every path of the supervision in a temporary folder; commands do nothing.
class Device {
public:
    explicit Device(int model)
    {
        for (const char *name : {"etc", "snmp"})
            QDir(folder.path()).mkdir(qs(name));
        const QByteArray files[][2] = {
            {"modelnumber", QByteArray::number(model)},
            {"amptype", "VQ9C"},
            {"powertype", "200"},
            {"pkgver", "1.2.3"},
            {"model", "Some Device"},
            {"kernelver", "5.10"},
            {"oftreever", "7"},
        };
        for (const auto &[name, line] : files)
            writeFile(folder.filePath(qs("etc/xr-") + qs(name)), line + '\n');
        qputenv("XR_GPIO_ROOT", QFile::encodeName(folder.filePath(qs("gpio"))));
        watchdogFile = QFile::encodeName(folder.filePath(qs("watchdog")));
    }

    Surroundings surroundings() const
    {
        const SnmpdHost nothingRuns{
            folder.filePath(qs("snmp/snmpd.conf")),
            folder.filePath(qs("snmp/")),
            folder.filePath(qs("snmpd.pid")),
            [](const Command &) {},
            [](const Command &) {},
            [](const Command &, int) { return QByteArray("8192\n"); },
            [](int, const QByteArray &) {},
        };
        return {folder.path(), nothingRuns, watchdogFile.constData()};
    }

    QTemporaryDir folder;
    QByteArray watchdogFile;
};

class Bench {
public:
    explicit Bench(int model, TalPeer::Start start = TalPeer::Start::NotListening)
        : peer(start), device(model), kvSnmp(new KvSnmp(QCoreApplication::instance(), device.surroundings()))
    {}

    template <class Child>
    Child *child() const
    {
        return kvSnmp->findChild<Child *>(QString(), Qt::FindDirectChildrenOnly);
    }
    TalHandler *talHandler() const { return child<TalHandler>(); }
    SnmpdConfHandler *snmpdConfHandler() const { return child<SnmpdConfHandler>(); }

    /// The polling timer is the one that is not single-shot.
    QTimer *timer(bool singleShot) const
    {
        for (QTimer *timer : kvSnmp->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly))
            if (timer->isSingleShot() == singleShot)
                return timer;
        return nullptr;
    }
    QTimer *processTimer() const { return timer(false); }
    QTimer *subscribeTimer() const { return timer(true); }

    void finishSnmpdConf() const { Q_EMIT snmpdConfHandler()->signalSnmpdConfFinish(); }
    void poll() const { QMetaObject::invokeMethod(kvSnmp.get(), "processSnmpTimeout"); }

    MessageLog log;
    TalPeer peer;
    Device device;
    std::unique_ptr<KvSnmp> kvSnmp;
};

/// Stands in for a started agent while it lives.
class AgentRecord {
public:
    AgentRecord() : m_outer(kvAgent) { kvAgent = &record; }
    ~AgentRecord() { kvAgent = m_outer; }
    Q_DISABLE_COPY(AgentRecord)

    KvAgent record{};

private:
    KvAgent *m_outer;
};

inline QStringList sentTraps; ///< "NUMBER LEVEL TEXT", taken by noteTrap()

inline int noteTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *)
{
    sentTraps.append(QStringLiteral("%1 %2 %3").arg(trapNumber).arg(level).arg(qs(description)));
    return 0;
}

inline void enableTrap(const Bench &bench, const char *name)
{
    QMap<QString, bool> enabled{{qs(name), true}};
    Q_EMIT bench.talHandler()->signalUpdateEnabledSnmpTraps(enabled);
}

inline void raiseFault(const Bench &bench, const QString &text)
{
    Q_EMIT bench.talHandler()->signalReportFault(qs("reporter"), text, qs("fan_not_running"), text, QString(),
                                                 qs("alarm"), true);
}
