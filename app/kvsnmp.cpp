// The application object: construction, connections, start-up sequence, polling of the agent.
#include "app/kvsnmp.h"

#include "agent/kvagent.h"
#include "app/servicenotify.h"
#include "device/models.h"
#include "faults/faulthandler.h"
#include "gpio/gpiocontrol.h"
#include "snmpdconf/snmpdconfhandler.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int subscribeDelayMs = 3000;
constexpr int watchdogIntervalMs = 5000;
constexpr int idlePollMs = 100;
constexpr int busyPollMs = 5;
constexpr int idlePassesUntilSlow = 21;

enum SignalSocket { writtenByHandler, readByNotifier };
int signalSockets[2] = {-1, -1};

int idlePasses = 0;

} // namespace

KvSnmp::KvSnmp(QCoreApplication *app, const Surroundings &surroundings)
    : m_identity(surroundings.identityRoot), m_watchdogFile(surroundings.watchdogFile)
{
    qDebug().noquote() << "KvSnmp"
                       << "Creating Object";
    createSignalSockets();
    connect(&m_processTimer, SIGNAL(timeout()), this, SLOT(processSnmpTimeout()));
    // Not a slot: only processSnmpTimeout() serves traffic, and this calls it.
    connect(&m_agentWatch, &DescriptorWatch::readable, this, &KvSnmp::serveReadable);
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this, &KvSnmp::flushOutput);
    readIdentity();
    createSubsystems(surroundings);
    connectSubsystems(app);
    startWatchdog();
}

KvSnmp::~KvSnmp()
{
    delete m_talHandler;
    delete m_talInterface;
    delete m_snmpdConfHandler;
    m_subscribeTimer->stop();
    delete m_subscribeTimer;
    m_watchdogTimer->stop();
    m_watchdogTimer.reset();
    delete m_gpioControl;
    m_signalNotifier->setEnabled(false);
    for (int &descriptor : signalSockets) {
        close(descriptor);
        descriptor = -1;
    }
}

void KvSnmp::nameApplication()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Orvane"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("orvane.com"));
    QCoreApplication::setApplicationName(QStringLiteral("kvsnmp"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KVSNMP_VERSION));
}

void KvSnmp::createSignalSockets()
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalSockets) != 0)
        qFatal("Couldn't create TERM socketpair");
    m_signalNotifier = new QSocketNotifier(signalSockets[readByNotifier], QSocketNotifier::Read, this);
}

void KvSnmp::handOverSignal(int)
{
    const int savedErrno = errno;
    const char byte = 1;
    // Never waits: one unread byte is enough to end the event loop.
    send(signalSockets[writtenByHandler], &byte, sizeof byte, MSG_DONTWAIT | MSG_NOSIGNAL);
    errno = savedErrno;
}

void KvSnmp::installSignalHandlers()
{
    struct sigaction action {};
    action.sa_handler = handOverSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        // A failure, -1, is ignored: intended.
        if (sigaction(signalNumber, &action, nullptr) > 0)
            std::perror("kvsnmp: Error setting up Linux Signal handlers.\n");
    }
}

void KvSnmp::readIdentity()
{
    if (!m_identity.readModelNumber()) {
        qDebug().noquote() << "KvSnmp"
                           << "Failed to read modelNumber, cannot continue";
        std::exit(-1);
    }
    if (ampTypeModels.contains(m_identity.modelNumber()))
        m_identity.readAmpType(m_identity.modelNumber());
    m_identity.readPackageVersion();
    m_identity.readModelType();
    m_identity.readKernelVersion();
    m_identity.readDeviceTreeVersion();
}

void KvSnmp::createSubsystems(const Surroundings &surroundings)
{
    const quint16 modelNumber = m_identity.modelNumber();
    const char *modelText = m_identity.infoData().modelType.text;

    m_talInterface = new TalInterface(this);
    m_talHandler = new TalHandler(this, modelNumber, modelText);
    m_faultHandler = new FaultHandler(this);
    m_snmpdConfHandler = new SnmpdConfHandler(this, m_talHandler, surroundings.snmpd);
    if (gpioModels.contains(modelNumber)) {
        m_gpioControl = new GpioControl(this, modelNumber, modelText, m_talHandler);
        connect(this, SIGNAL(signalGpioVerifyStart()), m_gpioControl, SLOT(slotGpioVerifyStart()));
    }
    m_subscribeTimer = new QTimer(this);
    connect(m_subscribeTimer, SIGNAL(timeout()), this, SLOT(dbgTimeout()));
    m_subscribeTimer->setSingleShot(true);
}

void KvSnmp::connectSubsystems(QCoreApplication *app)
{
    struct Connection {
        QObject *sender;
        const char *signal;
        QObject *receiver;
        const char *slot;
    };
    // clang-format off
    const Connection connections[] = {
        {m_signalNotifier,   SIGNAL(activated(int)),                        this,           SLOT(handleSigTerm())},
        {this,               SIGNAL(appExit()),                             app,            SLOT(quit())},
        {m_talInterface,     SIGNAL(talLocalUnixSocketConnectedSignal()),   this,           SLOT(kvSnmpSetTalReady())},
        {m_talInterface,     SIGNAL(talNotifySignal(QString, QString, QString, QString, QString)),
         m_talHandler,       SLOT(talHandlerNotifySlot(QString, QString, QString, QString, QString))},
        {this,               SIGNAL(signalTalReady()),                      m_talHandler,   SLOT(slotTalReady())},
        {this,               SIGNAL(kvSnmpStartSubscribe()),                m_talHandler,   SLOT(slotStartSubscribe())},
        {m_snmpdConfHandler, SIGNAL(signalSnmpdConfFinish()),               this,           SLOT(slotSnmpdConfFinish())},
        {m_talHandler,       SIGNAL(signalReportFault(QString, QString, QString, QString, QString, QString, bool)),
         m_faultHandler,     SLOT(onReportFault(QString, QString, QString, QString, QString, QString, bool))},
        {m_talHandler,       SIGNAL(signalUpdateEnabledSnmpTraps(QMap<QString, bool>&)),
         m_faultHandler,     SLOT(onUpdateEnabledSnmpTraps(QMap<QString, bool>&))},
    };
    // clang-format on
    for (const Connection &connection : connections)
        connect(connection.sender, connection.signal, connection.receiver, connection.slot);
}

void KvSnmp::startWatchdog()
{
    m_watchdogTimer = std::make_unique<QTimer>();
    m_watchdogTimer->setInterval(watchdogIntervalMs);
    connect(m_watchdogTimer.get(), SIGNAL(timeout()), this, SLOT(watchdogTimerSlot()));
    m_watchdogTimer->start();
}

void KvSnmp::kvSnmpSetTalReady()
{
    m_talReady = true;
    Q_EMIT signalTalReady();
    m_subscribeTimer->start(subscribeDelayMs);
}

void KvSnmp::dbgTimeout()
{
    qDebug().noquote() << "dbgTimeout";
    Q_EMIT kvSnmpStartSubscribe();
    if (gpioModels.contains(m_identity.modelNumber()))
        Q_EMIT signalGpioVerifyStart();
}

void KvSnmp::slotSnmpdConfFinish()
{
    if (kvAgent == nullptr) {
        kaAgentStart(m_identity.modelNumber(), static_cast<std::uint8_t>(m_identity.ampTypeCode()),
                     m_identity.infoData().modelType.text);
    }
    if (kvAgent == nullptr || m_agentStarted)
        return;
    qDebug().noquote() << "slotSnmpdConfFinish"
                       << "Start checkAndProcessTimer";
    setTalTableData(m_talHandler->tableRecords());
    kvAgent->infoData = &m_identity.infoData();
    handSystemNameToAgent();
    initInfoScalars();
    m_processTimer.start(idlePollMs);
    watchAgent();
    m_agentStarted = true;
}

void KvSnmp::handSystemNameToAgent() const
{
    // The name in a custom file is unknown here.
    const QByteArray name =
        m_snmpdConfHandler->useCustomConfigFile() ? QByteArray() : m_snmpdConfHandler->sysName().toLatin1();
    setSystemName({name.constData(), static_cast<std::size_t>(name.size())});
}

void KvSnmp::processSnmpTimeout()
{
    if (kaCheckAndProcess(m_readable) > 0) {
        idlePasses = 0;
        pollEvery(busyPollMs);
    } else {
        if (idlePasses < idlePassesUntilSlow)
            ++idlePasses;
        if (idlePasses == idlePassesUntilSlow)
            pollEvery(idlePollMs);
    }
    if (kaDescriptorsChanged())
        watchAgent();
}

void KvSnmp::pollEvery(int intervalMs)
{
    // Setting the interval restarts the timer, even with the same value.
    if (m_processTimer.interval() != intervalMs)
        m_processTimer.setInterval(intervalMs);
}

void KvSnmp::serveReadable(int descriptor)
{
    m_readable = descriptor;
    processSnmpTimeout();
    m_readable = -1;
}

void KvSnmp::flushOutput()
{
    // A request prints a line for each row it visits. During traffic the timer's next idle pass writes them all.
    const bool serving = m_processTimer.isActive() && idlePasses == 0;
    if (!serving)
        std::fflush(stdout);
}

void KvSnmp::watchAgent()
{
    kaDescriptors(m_agentDescriptors);
    m_agentWatch.watch(m_agentDescriptors);
}

void KvSnmp::watchdogTimerSlot()
{
    notifyService("WATCHDOG=1");
    if (!updateWatchdogFile(m_watchdogFile))
        std::printf("Couldn't open file: %s\n", m_watchdogFile);
}

void KvSnmp::handleSigTerm()
{
    m_signalNotifier->setEnabled(false);
    char byte = 0;
    [[maybe_unused]] const ssize_t got = read(signalSockets[readByNotifier], &byte, sizeof byte);
    Q_EMIT appExit();
    m_signalNotifier->setEnabled(true);
}
