// The amplifier monitor's service on D-Bus: com.orvane.pamon, object /monitor.
#pragma once

#include <QDBusAbstractAdaptor>
#include <QObject>
#include <QString>
#include <QTimer>

namespace simulator {

/// The object on the bus; its members are spelled as in the interface.
class MonitorAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvane.pamon")
    Q_PROPERTY(bool pamonInterfacUp READ pamonInterfacUp)

public:
    explicit MonitorAdaptor(QObject *parent) : QDBusAbstractAdaptor(parent) {}

    bool pamonInterfacUp() const { return true; }

public Q_SLOTS:
    void doPaUiDbusConnected() {}

Q_SIGNALS:
    void onAmpChannelStatusUpdate(uint channel, uint status);
    void onGpiUpdate(uint gpiIndex, const QString &gpiState);
    void onGpoUpdate(uint gpoIndex, const QString &gpoState, const QString &systemState);
    void onLetPrecenseUpdate(uint first, uint channel, uint status);
    void onPowerConsumptionUpdate(uint ch1PowerConsumption, uint ch2PowerConsumption);
};

/// Keeps the service on its bus: without a bus, or while another owns the name, it retries every second.
class Monitor : public QObject {
    Q_OBJECT

public:
    enum class Bus { System, Session };

    Monitor(QObject *parent, Bus bus);
    ~Monitor() override;

    /// Connects now, and again after each loss of the bus.
    void start();

    bool isUp() const { return m_up; }
    /// The object for signals.
    MonitorAdaptor &adaptor() { return m_adaptor; }
    /// Returns when the bus has read the emitted signals; false if it has not within a second.
    bool flush();

private Q_SLOTS:
    void check();

private:
    bool connectBus(QString &error);

    Bus m_bus;
    MonitorAdaptor m_adaptor;
    QTimer m_timer;
    bool m_up = false;
    QString m_lastError; // printed once, not every second
};

} // namespace simulator
