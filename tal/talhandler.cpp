// The client of the device's data service: construction and starting values.
#include "tal/talhandler.h"

#include "app/trace/trace.h"
#include "dbus/dbusinterface.h"
#include "device/models.h"
#include "device/trapcatalogue.h"
#include "tal/keystep.h"

#include <xrcommon/TalInterface.h>

#include <QCoreApplication>

#include <algorithm>

TalHandler::TalHandler(QObject *parent, uint modelNumber, const char *modelDescription)
    : QObject(parent), m_modelNumber(modelNumber), m_modelDescription(modelDescription)
{
    Trace::logs(QStringLiteral("TalHandler"), QStringLiteral("TalHandler"), QStringLiteral("Creating Object"));
    registerSnmpSettingsTypes();
    setStartingValues();
    fillEnabledTraps();

    m_dbusInterface = new DbusInterface(this);
    connect(m_dbusInterface, SIGNAL(gpoUpdateSignal(uint, QString, QString)), this,
            SLOT(slotGpoUpdate(uint, QString, QString)));
    connect(m_dbusInterface, SIGNAL(gpiUpdateSignal(uint, QString)), this, SLOT(slotGpiUpdate(uint, QString)));
    connect(m_dbusInterface, SIGNAL(ampChannelStatusUpdateSignal(uint, uint)), this,
            SLOT(slotAmpChannelStatusUpdate(uint, uint)));
    connect(m_dbusInterface, SIGNAL(letPrecenseUpdateSignal(uint, uint, uint)), this,
            SLOT(slotLetPrecenseUpdate(uint, uint, uint)));
}

TalHandler::~TalHandler() = default;

void TalHandler::setStartingValues()
{
    for (std::size_t channel = 0; channel < ampChannels; ++channel) {
        m_records.ampChannel.rows[channel].ampMonitorStatus = 3;
        deriveAmpChannelStatus(channel);
    }
    std::ranges::fill(m_records.controlOutput.status, 1U);
    std::ranges::fill(m_records.controlInput.rows, ControlInputRow{.status = 1, .monitored = 1});

    // Models with one power source have only the row of that source.
    auto &[acPower, dcPower] = m_records.power.rows;
    const bool hasBoth = bothPowerModels.contains(m_modelNumber);
    if (hasBoth || acPowerOnlyModels.contains(m_modelNumber))
        acPower = {.liveStatus = 1, .monitored = 1};
    if (hasBoth || dcPowerOnlyModels.contains(m_modelNumber))
        dcPower = {.liveStatus = 1, .monitored = 1};

    auto &[first, second] = m_records.lineIn.rows;
    if (pilotToneModels.contains(m_modelNumber)) {
        first = {.lineInStatus = 1, .micStatus = 0, .lineInMonitoring = 1};
        second = first;
    }
    if (microphoneModels.contains(m_modelNumber)) {
        first = {.lineInStatus = 0, .micStatus = 4, .lineInMonitoring = 1};
        second = {.lineInStatus = 0, .micStatus = 4, .lineInMonitoring = 2};
    }
    if (ethMonitoringModels.contains(m_modelNumber))
        std::ranges::fill(m_records.ethMonitoring.monitored, 1U);
    if (gpioModels.contains(m_modelNumber))
        std::ranges::fill(m_records.relay.rows, RelayRow{.status = 1, .idleMode = 1, .delay = 0});
}

void TalHandler::fillEnabledTraps()
{
    for (const Trap &trap : trapCatalogue)
        m_enabledTraps.insert(latin1(trap.name), false);
}

void TalHandler::publishSoftwareVersion()
{
    const QString version = QStringLiteral("<version><software><kid>%1</kid><version>%2</version></software></version>")
                                .arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion());
    TalInterface::requestDataEdit(QStringLiteral("KvSnmpSWVersion"), QStringLiteral("/state/version"),
                                  QStringLiteral("patch"), version);
    TalInterface::requestData(QStringLiteral("<request><ref>debug_info-kvsnmp</ref><rpc><session_info><debug_info>"
                                             "kvsnmp</debug_info></session_info></rpc></request>"),
                              TALTARGET_DEFAULT);
}
