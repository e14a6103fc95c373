// The application object: creates every part of the daemon, connects them and takes them through start-up.
#pragma once

#include "app/descriptorwatch.h"
#include "app/identity.h"
#include "app/watchdogfile.h"
#include "snmpdconf/snmpdhost.h"

#include <QObject>
#include <QTimer>

#include <memory>
#include <vector>

class FaultHandler;
class GpioControl;
class QCoreApplication;
class QSocketNotifier;
class SnmpdConfHandler;
class TalHandler;
class TalInterface;

/// What lies outside the program. The defaults are the device's own; only tests put others in their place.
struct Surroundings {
    QString identityRoot = QString(); ///< goes before the paths of the identity files
    SnmpdHost snmpd = deviceHost();
    const char *watchdogFile = watchdogFilePath;
};

/// One per process.
class KvSnmp : public QObject {
    Q_OBJECT

public:
    /// Ends the process when the device does not tell what model it is.
    explicit KvSnmp(QCoreApplication *app, const Surroundings &surroundings = {});
    ~KvSnmp() override;

    /// Names the program and its maker, before the object is created.
    static void nameApplication();

    /// Hands a Unix signal to the event loop, which then ends. To be installed as signal handler while a KvSnmp exists.
    static void handOverSignal(int signalNumber);
    /// Installs it for the signals that end the daemon.
    static void installSignalHandlers();

Q_SIGNALS:
    void appExit();
    void signalTalReady();
    void kvSnmpStartSubscribe();
    void signalGpioVerifyStart();

public Q_SLOTS:
    void handleSigTerm();
    /// Starts the agent, once.
    void slotSnmpdConfFinish();
    /// The connection to the data service is up, for the first time or again.
    void kvSnmpSetTalReady();
    void watchdogTimerSlot();
    /// Asks for the data, some seconds after the connection came up.
    void dbgTimeout();
    /// Serves what has arrived for the agent: the only place that does.
    void processSnmpTimeout();

private:
    void createSignalSockets();
    void readIdentity();
    void createSubsystems(const Surroundings &surroundings);
    void connectSubsystems(QCoreApplication *app);
    void startWatchdog();
    void handRecordsToAgent();
    void handSystemNameToAgent() const;
    void serveReadable();
    void watchAgent();

    TalInterface *m_talInterface = nullptr;
    TalHandler *m_talHandler = nullptr;
    FaultHandler *m_faultHandler = nullptr;
    SnmpdConfHandler *m_snmpdConfHandler = nullptr;
    GpioControl *m_gpioControl = nullptr; ///< null on models without GPIO lines
    QSocketNotifier *m_signalNotifier = nullptr;
    std::unique_ptr<QTimer> m_watchdogTimer;
    QTimer *m_subscribeTimer = nullptr;
    QTimer m_processTimer{this};
    DescriptorWatch m_agentWatch{this}; ///< what the agent library waits for
    std::vector<int> m_agentDescriptors;
    bool m_talReady = false;
    bool m_agentStarted = false;
    Identity m_identity;
    const char *m_watchdogFile;
};
