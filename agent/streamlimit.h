// The longest message that passes the connection to the master agent.
#pragma once

#include "agent/netsnmp.h"

#include <cstddef>

/// The most that the library takes, here and in the master. It drops a longer message without an answer; a master that
/// gets none repeats its request for 6 s and then closes the session.
inline constexpr std::size_t longestMessage = 65536;

/// While more than this waits for the master to read, in bytes, its requests are refused.
inline constexpr std::size_t mostQueued = 262144;

/// Questions to the master in a row that it may leave unanswered. The library waits a second for each answer, and asks
/// one question for each registration when it opens a session.
inline constexpr int mostUnanswered = 3;

/// Answers for the library where it would be silent, with "too big" at the first name: a request from the master that
/// is too long is taken off the stream and refused, an answer that is too long is replaced by the refusal. Ends the
/// connection to a master that does not answer. To be called once for each new connection, of which there is one at a
/// time. `session`, which may be null, is the library's.
void limitStream(netsnmp_transport &transport, netsnmp_session *session);
