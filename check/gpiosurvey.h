// Checks the GPIO lines of a station model without exporting any.
#pragma once

#include "gpio/gpiolines.h"

#include <QList>
#include <QString>
#include <QStringList>

struct GpioSurvey {
    bool exists = false;
    int lines = 0;            ///< of the model
    QStringList unreadable;   ///< numbers of lines with a value other than 0 or 1
    QStringList missingChips; ///< ends of the labels of missing expanders
};

GpioSurvey surveyGpio(const QString &root, std::uint32_t model, bool expanders);
