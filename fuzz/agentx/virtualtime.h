// The time and the waiting of the agent library. Its clock moves when advance() is called and when the library waits
// for something that does not come; so no input takes longer than its work, and each one finds the same times.
#pragma once

#include <chrono>
#include <functional>

namespace virtualtime {
void advance(std::chrono::microseconds duration);

/// Sets what runs whenever the library looks for something to read, the other end of its sockets, and what runs when it
/// has waited for nothing.
void whileWaiting(std::function<void()> otherEnd, std::function<void()> inVain);
} // namespace virtualtime
