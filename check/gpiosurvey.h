// The GPIO lines that a station model verifies, looked at without exporting any.
#pragma once

#include "gpio/gpiolines.h"

#include <QList>
#include <QString>
#include <QStringList>

struct GpioSurvey {
    bool exists = false;
    int lines = 0;            ///< that the model has
    QStringList unreadable;   ///< numbers of lines that read neither 0 nor 1
    QStringList missingChips; ///< ends of the labels of expanders that are not there
};

GpioSurvey surveyGpio(const QString &root, std::uint32_t model, bool expanders);
