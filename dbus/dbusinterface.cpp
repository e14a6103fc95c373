// The link to the amplifier monitor: its announcements, logged and passed on as signals.
#include "dbus/dbusinterface.h"

#include "tal/talhandler.h"

#include "pamoninterface.h" // generated

#include <QDBusConnection>
#include <QDebug>

#include <utility>

DbusInterface::DbusInterface(TalHandler *parent)
    : QObject(parent),
      m_proxy(new ComOrvanePamonInterface(QStringLiteral("com.orvane.pamon"), QStringLiteral("/monitor"),
                                          QDBusConnection::systemBus(), this))
{
    connect(m_proxy, SIGNAL(onGpoUpdate(uint, QString, QString)), this,
            SLOT(dbusDoGpoUpdateSlot(uint, QString, QString)));
    connect(m_proxy, SIGNAL(onGpiUpdate(uint, QString)), this, SLOT(dbusDoGpiUpdateSlot(uint, QString)));
    connect(m_proxy, SIGNAL(onAmpChannelStatusUpdate(uint, uint)), this,
            SLOT(dbusDoAmpChannelStatusUpdateSlot(uint, uint)));
    connect(m_proxy, SIGNAL(onLetPrecenseUpdate(uint, uint, uint)), this,
            SLOT(dbusDoLetPrecenseUpdateSlot(uint, uint, uint)));
}

void DbusInterface::dbusDoGpoUpdateSlot(uint gpoIndex, QString state, QString systemState)
{
    Q_EMIT gpoUpdateSignal(gpoIndex, std::move(state), std::move(systemState));
}

void DbusInterface::dbusDoGpiUpdateSlot(uint gpiIndex, QString state)
{
    qDebug().noquote() << "dbusDoGpiUpdateSlot"
                       << "GPI:" << gpiIndex << "State:" << state;
    Q_EMIT gpiUpdateSignal(gpiIndex, std::move(state));
}

void DbusInterface::dbusDoAmpChannelStatusUpdateSlot(uint amp, uint status)
{
    qDebug().noquote() << "dbusDoAmpChannelStatusUpdateSlot"
                       << "Amp:" << amp << "Status:" << status;
    Q_EMIT ampChannelStatusUpdateSignal(amp, status);
}

// The labels are the monitor's; the client of these signals takes the first number as the channel.
void DbusInterface::dbusDoLetPrecenseUpdateSlot(uint let, uint channel, uint status)
{
    qDebug().noquote() << "dbusDoLetPrecenseUpdateSlot"
                       << "Let:" << let << "Channel:" << channel << "Status:" << status;
    Q_EMIT letPrecenseUpdateSignal(let, channel, status);
}
