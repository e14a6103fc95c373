// One GPIO line of the platform library.
#pragma once

#include <QObject>

#include <memory>

/// Line numbers; any number may be cast to it.
enum Gpios : int {};
enum GpioDirections : int { GPIO_DIRECTION_IN = 0, GPIO_DIRECTION_OUT = 1, GPIO_DIRECTION_AS_IS = 2 };
enum GpioEdges : int { GPIO_EDGE_NONE = 0, GPIO_EDGE_RISING = 1, GPIO_EDGE_FALLING = 2, GPIO_EDGE_BOTH = 3 };

/// A line below the GPIO root folder (`XR_GPIO_ROOT`, otherwise `/sys/class/gpio`; looked up when the object is
/// created). The line is not accessed before its first read, because its chip is unknown until then. With a direction
/// other than "as is", direction and edge are written each time the line is found again.
class Gpio : public QObject {
    Q_OBJECT

public:
    Gpio(QObject *parent, Gpios id, GpioDirections direction, GpioEdges edge);
    ~Gpio() override;

    void setI2c0021(); ///< the line is on the expander at I2C address 0x21
    void setI2c0022(); ///< the line is on the expander at I2C address 0x22

    /// 0 or 1, or 255 if the line cannot be read. Reads the line's value file once. While the line exists, it reads
    /// only two other files, label and base of its expander, which may have returned with another base. Exports a
    /// missing line, once each time it disappears.
    uint getGpioInOutValue();

private:
    class Line;
    std::unique_ptr<Line> m_line;
};
