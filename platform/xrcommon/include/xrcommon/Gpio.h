// One GPIO line of the platform library.
#pragma once

#include <QObject>

#include <memory>

/// Line numbers; any number may be cast to it.
enum Gpios : int {};
enum GpioDirections : int { GPIO_DIRECTION_IN = 0, GPIO_DIRECTION_OUT = 1, GPIO_DIRECTION_AS_IS = 2 };
enum GpioEdges : int { GPIO_EDGE_NONE = 0, GPIO_EDGE_RISING = 1, GPIO_EDGE_FALLING = 2, GPIO_EDGE_BOTH = 3 };

/// A line under the GPIO root folder (`XR_GPIO_ROOT`, else `/sys/class/gpio`; looked up when the object is made).
/// The line is not touched before it is first read, because only then it is known which chip it sits on; with a
/// direction other than "as it is", direction and edge are written whenever it is found anew.
class Gpio : public QObject {
    Q_OBJECT

public:
    Gpio(QObject *parent, Gpios id, GpioDirections direction, GpioEdges edge);
    ~Gpio() override;

    void setI2c0021(); ///< the line sits on the expander at I2C address 0x21
    void setI2c0022(); ///< the line sits on the expander at I2C address 0x22

    /// 0 or 1, or 255 when the line cannot be read. Reads the line's value file once; while the line is there, the only
    /// other files are label and base of its expander, which may have come back with another base. A line that is
    /// missing is exported, once each time it goes.
    uint getGpioInOutValue();

private:
    class Line;
    std::unique_ptr<Line> m_line;
};
