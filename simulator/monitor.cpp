// The amplifier monitor's service on D-Bus.
#include "simulator/monitor.h"

#include "simulator/datatree.h"
#include "simulator/messages.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

namespace simulator {

namespace {

constexpr int checkIntervalMs = 1000;
constexpr int flushTimeoutMs = 1000;
constexpr int announceDelayMs = 200; // a client makes many subscriptions at once
const QString connectionName = QStringLiteral("talservice-monitor");
const QString serviceName = QStringLiteral("com.orvane.pamon");
const QString objectPath = QStringLiteral("/monitor");

/// The number after a prefix, as in "ch1"; 0 for another text.
uint numberAfter(const char *prefix, const char *text)
{
    const QString name = QString::fromUtf8(text);
    const QLatin1String start(prefix);
    return name.startsWith(start) ? name.mid(start.size()).toUInt() : 0;
}

} // namespace

std::vector<AmpChannel> ampChannelsOf(const DataTree &tree)
{
    std::vector<AmpChannel> channels;
    for (const pugi::xml_node line : tree.select({{"state", {}}, {"config", {}}, {"lines", {}}, {"line", {}}})) {
        const uint number = numberAfter("ch", line.child_value("kid"));
        if (number == 0)
            continue;
        AmpChannel channel{.number = number - 1, .lets = {}};
        for (const pugi::xml_node let : line.child("lets").children("let"))
            channel.lets.push_back(numberAfter("", let.child_value("kid")));
        channels.push_back(channel);
    }
    return channels;
}

Monitor::Monitor(QObject *parent, Bus bus) : QObject(parent), m_bus(bus), m_adaptor(this)
{
    m_timer.setInterval(checkIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &Monitor::check);
    m_announceTimer.setInterval(announceDelayMs);
    m_announceTimer.setSingleShot(true);
    connect(&m_announceTimer, &QTimer::timeout, this, &Monitor::announceChannels);
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

void Monitor::announceChannel(uint number, uint status)
{
    for (AmpChannel &channel : m_channels)
        if (channel.number == number)
            channel.status = status;
    Q_EMIT m_adaptor.onAmpChannelStatusUpdate(number, status);
}

void Monitor::announcePending()
{
    if (!m_announceTimer.isActive())
        return;
    m_announceTimer.stop();
    announceChannels();
}

void Monitor::announceChannels()
{
    for (const AmpChannel &channel : m_channels)
        Q_EMIT m_adaptor.onAmpChannelStatusUpdate(channel.number, channel.status);
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
        announceChannelsSoon();
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
