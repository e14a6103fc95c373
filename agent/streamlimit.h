// Limits the length of messages on the connection to the master agent.
#pragma once

#include "agent/netsnmp.h"

#include <cstddef>

/// The library's maximum, here and in the master. It drops a longer message without an answer; a master without an
/// answer repeats its request for 6 s and then closes the session.
inline constexpr std::size_t longestMessage = 65536;

/// Sends the refusal that the library does not send, "too big" at the first name: removes a request of the master that
/// is too long from the stream and refuses it, and replaces an answer that is too long by the refusal. Call once for
/// each new connection; there is only one at a time.
void limitStream(netsnmp_transport &transport);
