// Virtual time for the agent library. Its clock only moves with advance() and when the library waits in vain. So no
// input waits in real time, and each input sees the same times.
#pragma once

#include <chrono>
#include <functional>

namespace virtualtime {
void advance(std::chrono::microseconds duration);

/// Sets the functions that run when the library checks for data to read (the other end of its sockets), and when it has
/// waited in vain.
void whileWaiting(std::function<void()> otherEnd, std::function<void()> inVain);
} // namespace virtualtime
