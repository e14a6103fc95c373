// The application object: creates and connects all parts of the daemon and runs their start-up.
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

/// Everything outside the program. The defaults are those of a device; only tests replace them.
struct Surroundings {
    QString identityRoot = QString(); ///< prefix of the paths of the identity files
    SnmpdHost snmpd = deviceHost();
    const char *watchdogFile = watchdogFilePath;
};

/// One per process.
class KvSnmp : public QObject {
    Q_OBJECT

public:
    /// Ends the process if the device's model number is missing or unknown.
    explicit KvSnmp(QCoreApplication *app, const Surroundings &surroundings = {});
    ~KvSnmp() override;

    /// Sets the names of the program and its maker. Call before the object is created.
    static void nameApplication();

    /// Passes a Unix signal to the event loop, which then ends. Install as signal handler only while a KvSnmp exists.
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
    /// The data service is connected, for the first time or again.
    void kvSnmpSetTalReady();
    void watchdogTimerSlot();
    /// Subscribes to the data, a few seconds after the connection.
    void dbgTimeout();
    /// Serves the agent's incoming traffic; the only function that does.
    void processSnmpTimeout();

private:
    void createSignalSockets();
    void readIdentity();
    void createSubsystems(const Surroundings &surroundings);
    void connectSubsystems(QCoreApplication *app);
    void startWatchdog();
    void handSystemNameToAgent() const;
    void pollEvery(int intervalMs);
    void serveReadable(int descriptor);
    void flushOutput();
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
    DescriptorWatch m_agentWatch{this}; ///< the descriptors of the agent library
    std::vector<int> m_agentDescriptors;
    int m_readable = -1; ///< one of them while processSnmpTimeout() serves only this one
    bool m_talReady = false;
    bool m_agentStarted = false;
    Identity m_identity;
    const char *m_watchdogFile;
};
