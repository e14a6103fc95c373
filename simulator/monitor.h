// The amplifier monitor's service on D-Bus: com.orvane.pamon, object /monitor.
#pragma once

#include <QDBusAbstractAdaptor>
#include <QObject>
#include <QString>
#include <QTimer>
#include <vector>

namespace simulator {

class DataTree;

/// An amplifier channel of a model.
struct AmpChannel {
    uint number = 0;        ///< counts from 0
    std::vector<uint> lets; ///< its line end transponders, counted from 1
    uint status = 2;        ///< the last one announced; at first in operation
};

/// The channels that a tree configures: its lines ch1, ch2.
std::vector<AmpChannel> ampChannelsOf(const DataTree &tree);

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
    /// The monitored channels; none at first.
    const std::vector<AmpChannel> &channels() const { return m_channels; }
    void setChannels(std::vector<AmpChannel> channels) { m_channels = std::move(channels); }
    void announceChannel(uint number, uint status);
    /// Announces the channels now if they are to be announced soon.
    void announcePending();
    /// The object for signals.
    MonitorAdaptor &adaptor() { return m_adaptor; }
    /// Returns when the bus has read the emitted signals; false if it has not within a second.
    bool flush();

public Q_SLOTS:
    /// Announces the status of each channel soon: a daemon that has just started does not know it.
    void announceChannelsSoon() { m_announceTimer.start(); }

private Q_SLOTS:
    void check();
    void announceChannels();

private:
    bool connectBus(QString &error);

    Bus m_bus;
    MonitorAdaptor m_adaptor;
    std::vector<AmpChannel> m_channels;
    QTimer m_timer;
    QTimer m_announceTimer;
    bool m_up = false;
    QString m_lastError; // printed once, not every second
};

} // namespace simulator
