// Reads the control inputs, control outputs and relays of the station models, one line each second.
#pragma once

#include "gpio/gpiolines.h"

#include <QObject>
#include <QTimer>

#include <array>
#include <vector>

class Gpio;
class TalHandler;

class GpioControl : public QObject {
    Q_OBJECT

public:
    /// Creates the lines of the model; slotGpioVerifyStart() starts to read them. `talHandler` has to outlive this
    /// object.
    GpioControl(QObject *parent, std::uint32_t modelNumber, const char *modelText, TalHandler *talHandler);
    ~GpioControl() override;

Q_SIGNALS:
    void signalSetControlInputStatus(uint gpioId, uint status);
    void signalSetControlOutputStatus(uint gpioId, uint status);
    void signalSetRelayStatus(uint relayId, uint status);

public Q_SLOTS:
    /// One step of the check cycle: reads one line and reports it.
    void gpioCheckTimeout();
    void connectTal();
    /// `gpioType` is 1 for an input, 2 for an output, 3 for an unused line.
    void slotSetGpioType(uint gpioId, uint gpioType);
    /// Starts the check cycle, which never ends.
    void slotGpioVerifyStart();

protected:
    void checkGpio(uint gpioId);
    void checkRelay(uint relayId);

private:
    struct GpioEntry {
        std::uint32_t type = 0; ///< 0 until the data service reports it
        Gpio *line = nullptr;
    };

    Gpio *createLine(int number, Expander expander);

    std::uint32_t m_modelNumber;
    bool m_hasExpanders;
    TalHandler *m_talHandler;
    std::uint32_t m_step = 0;
    std::vector<GpioEntry> m_gpios;         ///< by GPIO id: 6, or 14 with the expanders
    std::array<Gpio *, maxRelays> m_relays; ///< by relay id; null without such a relay
    QTimer m_checkTimer{this};
};
