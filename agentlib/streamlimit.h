// Limits the length of messages on the connection to the master agent.
#pragma once

#include "agentlib/netsnmp.h"

#include <cstddef>

/// The library's maximum, here and in the master. It drops a longer message without an answer; a master without an
/// answer repeats its request for 6 s and then closes the session.
inline constexpr std::size_t longestMessage = 65536;

/// Requests are refused while more than this is queued for the master, in bytes.
inline constexpr std::size_t mostQueued = 262144;

/// No request is read after so many bytes until the library has answered what it has. A name needs 60 bytes here, and a
/// kilobyte in the library.
inline constexpr std::size_t mostPending = 65536;

/// The master may leave this many questions in a row unanswered. The library waits a second for each answer, and asks
/// one question for each registration when it opens a session.
inline constexpr int mostUnanswered = 3;

/// Sends the refusal that the library does not send, "too big" at the first name: removes a request of the master that
/// is too long from the stream and refuses it, and replaces an answer that is too long by the refusal. Ends the
/// connection if the master does not answer. Call once for each new connection; there is only one at a time. `session`,
/// which may be null, belongs to the library.
void limitStream(netsnmp_transport &transport, netsnmp_session *session);
