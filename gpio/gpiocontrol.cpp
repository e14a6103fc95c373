// Reads the control inputs, control outputs and relays of the station models, one line each second.
#include "gpio/gpiocontrol.h"

#include "app/trace/trace.h"
#include "tal/talhandler.h"

#include <xrcommon/Gpio.h>

#include <QDebug>

namespace {

constexpr int checkIntervalMs = 1000;
constexpr int connectDelayMs = 50;

} // namespace

GpioControl::GpioControl(QObject *parent, std::uint32_t modelNumber, const char *modelText, TalHandler *talHandler)
    : QObject(parent),
      m_modelNumber(modelNumber),
      m_hasExpanders(hasExpanders(modelText)),
      m_talHandler(talHandler),
      m_relays{}
{
    qDebug().noquote() << "GpioControl"
                       << "Creating Object";
    Trace::logs(QStringLiteral("GpioControl"), QStringLiteral("GpioControl"), QStringLiteral("Creating Object"));

    for (const LineSet &set : gpioLines) {
        if (!deviceHas(set, m_modelNumber, m_hasExpanders))
            continue;
        for (const int number : set.lines)
            m_gpios.push_back({.line = createLine(number, set.expander)});
    }
    for (const LineSet &set : relayLines) {
        if (!deviceHas(set, m_modelNumber, m_hasExpanders))
            continue;
        for (std::size_t i = 0; i < set.lines.size(); ++i)
            m_relays[set.firstId + i] = createLine(set.lines[i], set.expander);
    }

    m_checkTimer.setInterval(checkIntervalMs);
    connect(&m_checkTimer, SIGNAL(timeout()), this, SLOT(gpioCheckTimeout()));
    QTimer::singleShot(connectDelayMs, this, SLOT(connectTal()));
}

GpioControl::~GpioControl()
{
    m_checkTimer.stop();
}

/// Direction and edge stay unchanged: a driven output must not become an input.
Gpio *GpioControl::createLine(int number, Expander expander)
{
    auto *line = new Gpio(this, static_cast<Gpios>(number), static_cast<GpioDirections>(2), static_cast<GpioEdges>(0));
    if (expander == Expander::At0x21)
        line->setI2c0021();
    else if (expander == Expander::At0x22)
        line->setI2c0022();
    return line;
}

void GpioControl::connectTal()
{
    qDebug().noquote() << "GpiControl connecting tal slots";
    connect(m_talHandler, SIGNAL(signalSetGpioType(uint, uint)), this, SLOT(slotSetGpioType(uint, uint)));
    connect(this, SIGNAL(signalSetControlInputStatus(uint, uint)), m_talHandler,
            SLOT(slotSetControlInputStatus(uint, uint)));
    connect(this, SIGNAL(signalSetControlOutputStatus(uint, uint)), m_talHandler,
            SLOT(slotSetControlOutputStatus(uint, uint)));
    connect(this, SIGNAL(signalSetRelayStatus(uint, uint)), m_talHandler, SLOT(slotSetRelayStatus(uint, uint)));
}

void GpioControl::slotGpioVerifyStart()
{
    m_checkTimer.start();
}

void GpioControl::slotSetGpioType(uint gpioId, uint gpioType)
{
    if (gpioId >= m_gpios.size()) {
        qDebug().noquote() << "slotSetGpioType"
                           << "Invalid gpioId:" << gpioId;
        return;
    }
    if (gpioType != Input && gpioType != Output && gpioType != NotUsed) {
        qDebug().noquote() << "slotSetGpioType"
                           << "Invalid gpioType:" << gpioType;
        return;
    }
    m_gpios[gpioId].type = gpioType;
}

void GpioControl::gpioCheckTimeout()
{
    if (m_step < firstRelayStep)
        checkGpio(m_step);
    else if (m_step < endOfSteps)
        checkRelay(m_step - firstRelayStep);
    m_step = nextStep(m_step, m_modelNumber, m_hasExpanders);
}

void GpioControl::checkGpio(uint gpioId)
{
    if (gpioId >= m_gpios.size())
        return;
    const GpioEntry &entry = m_gpios[gpioId];
    const GpioReport report = reportOf(entry.type, entry.line->getGpioInOutValue());
    if (report.input)
        Q_EMIT signalSetControlInputStatus(gpioId, *report.input);
    if (report.output)
        Q_EMIT signalSetControlOutputStatus(gpioId, *report.output);
}

void GpioControl::checkRelay(uint relayId)
{
    if (relayId >= maxRelays) {
        qDebug().noquote() << "Invalid relayId: ";
        return;
    }
    if (m_relays[relayId] == nullptr)
        return;
    if (const auto status = statusOf(m_relays[relayId]->getGpioInOutValue()))
        Q_EMIT signalSetRelayStatus(relayId, *status);
}
