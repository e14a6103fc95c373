// The connection to the amplifier monitor: logs its announcements and passes them on as signals.
#pragma once

#include <QObject>
#include <QString>

class ComOrvanePamonInterface;
class TalHandler;

/// The environment variable with the address of the system bus, and the default address.
inline constexpr char systemBusVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
inline constexpr char defaultSystemBus[] = "unix:path=/var/run/dbus/system_bus_socket";

inline constexpr char monitorName[] = "com.orvane.pamon"; ///< the amplifier monitor, on that bus

class DbusInterface : public QObject {
    Q_OBJECT

public:
    /// Listens on the system bus from now on. Without a bus or a service there are no announcements; this is no error.
    explicit DbusInterface(TalHandler *parent);

Q_SIGNALS:
    void gpoUpdateSignal(uint gpoIndex, QString state, QString systemState);
    void gpiUpdateSignal(uint, QString);
    void ampChannelStatusUpdateSignal(uint, uint status);
    void letPrecenseUpdateSignal(uint, uint channel, uint status);

public Q_SLOTS:
    void dbusDoGpoUpdateSlot(uint gpoIndex, QString state, QString systemState);
    void dbusDoGpiUpdateSlot(uint gpiIndex, QString state);
    void dbusDoAmpChannelStatusUpdateSlot(uint amp, uint status);
    void dbusDoLetPrecenseUpdateSlot(uint let, uint channel, uint status);

private:
    ComOrvanePamonInterface *m_proxy; ///< child of this object
};
