// talservice's messages to the user.
#pragma once

#include <QString>

namespace simulator {

/// One line on standard error: "talservice: TEXT".
void say(const QString &text);

} // namespace simulator
