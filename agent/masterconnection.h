// How the agent library connects to the master agent, and sends to it.
#pragma once

#include "agent/netsnmp.h"

#include <cstddef>

/// Makes each attempt of the library at its default address end soon: a master whose queue of connections is full is
/// refused instead of waited for, and one pass of the library makes one attempt at most. The library repeats an attempt
/// every ping interval; one that lasts longer would be followed by the next without end. To be called between
/// init_agent() and init_snmp().
void boundAttempts();

/// The session is open. Cancels every alarm of the library that would open one: one too many is left when the master
/// hangs up during an attempt, and complains every ping interval from then on. From here sending does not wait for the
/// master to read: what the connection does not take is queued, in order. snmpd does not read while it sends, so both
/// sides would wait for each other for ever otherwise.
void masterSessionOpened(netsnmp_transport *transport);

/// Discards the queue, and leaves the next attempt to another pass.
void masterSessionLost();

/// A pass of the library begins: it may make its attempt.
void allowAttempt();

/// What is queued for the master, in bytes.
std::size_t queuedOutput();

/// Sends what the connection takes now of what is queued. True when it took some.
bool flushOutput();
