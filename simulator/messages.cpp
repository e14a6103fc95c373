// talservice's messages to the user.
#include "simulator/messages.h"

#include <cstdio>

namespace simulator {

void say(const QString &text)
{
    std::fprintf(stderr, "talservice: %s\n", qUtf8Printable(text));
}

} // namespace simulator
