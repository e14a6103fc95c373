// How the agent library connects to the master agent.
#pragma once

/// Limits the time of each attempt to connect to the default socket: it fails if the master's connection queue is full,
/// and the library makes at most one attempt in a pass. The library repeats attempts every ping interval, so longer
/// ones would follow each other endlessly. Call between init_agent() and init_snmp().
void boundAttempts();

/// A pass of the library begins: it may make an attempt.
void allowAttempt();

/// The session is open: cancels all alarms of the library that would open one. If the master closes the connection
/// during an attempt, one alarm too many remains, which would log an error every ping interval.
void cancelAttempts();

/// The session was lost in this pass; a later pass opens the next one.
void postponeAttempt();
