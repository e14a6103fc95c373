// The amplifier monitor's service on D-Bus.
#include "simulator/monitor.h"

#include "simulator/messages.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

namespace simulator {

namespace {

constexpr int checkIntervalMs = 1000;
constexpr int flushTimeoutMs = 1000;
const QString connectionName = QStringLiteral("talservice-monitor");
const QString serviceName = QStringLiteral("com.orvane.pamon");
const QString objectPath = QStringLiteral("/monitor");

} // namespace

Monitor::Monitor(QObject *parent, Bus bus) : QObject(parent), m_bus(bus), m_adaptor(this)
{
    m_timer.setInterval(checkIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &Monitor::check);
}

Monitor::~Monitor()
{
    QDBusConnection::disconnectFromBus(connectionName);
}

void Monitor::start()
{
    check();
    m_timer.start();
}

bool Monitor::flush()
{
    // the answer arrives after the bus has read all earlier messages
    const QDBusMessage ping =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId"));
    return QDBusConnection(connectionName).call(ping, QDBus::Block, flushTimeoutMs).type() ==
           QDBusMessage::ReplyMessage;
}

void Monitor::check()
{
    if (m_up && QDBusConnection(connectionName).isConnected())
        return;
    if (m_up)
        say(QStringLiteral("the message bus went away; trying again every second"));
    m_up = false;
    QString error;
    if (connectBus(error)) {
        m_up = true;
        if (!m_lastError.isEmpty())
            say(QStringLiteral("the amplifier monitor is on the message bus"));
        m_lastError.clear();
        return;
    }
    QDBusConnection::disconnectFromBus(connectionName);
    if (error != m_lastError)
        say(QStringLiteral("the amplifier monitor is not on the message bus, trying again every second: %1")
                .arg(error));
    m_lastError = error;
}

bool Monitor::connectBus(QString &error)
{
    QDBusConnection::disconnectFromBus(connectionName);
    QDBusConnection bus = QDBusConnection::connectToBus(
        m_bus == Bus::System ? QDBusConnection::SystemBus : QDBusConnection::SessionBus, connectionName);
    if (bus.isConnected() && bus.registerObject(objectPath, this, QDBusConnection::ExportAdaptors) &&
        bus.registerService(serviceName))
        return true;
    error = bus.lastError().message();
    if (error.isEmpty())
        error = QStringLiteral("the name %1 is taken").arg(serviceName);
    return false;
}

} // namespace simulator
