// What talservice tells the person who started it.
#include "simulator/messages.h"

#include <cstdio>

namespace simulator {

void say(const QString &text)
{
    std::fprintf(stderr, "talservice: %s\n", qUtf8Printable(text));
}

} // namespace simulator
