// How the agent library connects to the master agent, and sends to it.
#pragma once

#include "agentlib/netsnmp.h"

#include <cstddef>
#include <vector>

/// Limits the time of each attempt to connect to the default address: it fails if the master's connection queue is
/// full, and the library makes at most one attempt in a pass. The library repeats attempts every ping interval, so
/// longer ones would follow each other endlessly. Call between init_agent() and init_snmp().
void boundAttempts();

/// Null for a session that is not open.
netsnmp_transport *transportOf(netsnmp_session *session);

/// The session is open: cancels all alarms of the library that would open one. If the master closes the connection
/// during an attempt, one alarm too many remains, which would log an error every ping interval. From now on, sending
/// queues whatever the connection does not accept, in order. snmpd does not read while it sends, so without a queue
/// both sides could wait for each other forever. Reading does not wait either.
void masterSessionOpened(netsnmp_transport *transport);

/// Discards the queue; a later pass opens the next session.
void masterSessionLost();

/// A pass of the library begins: it may make an attempt.
void allowAttempt();

/// Size of the queue, in bytes.
std::size_t queuedOutput();

/// Sends as much of the queue as the connection accepts now. True if that was anything.
bool flushOutput();

/// True if the descriptors of awaitedDescriptors() may have changed since the last call: only opening or closing a
/// connection to the master changes them.
bool takeDescriptorsChanged();

/// Replaces the content by all descriptors that the library currently waits for, ascending: the connection and its
/// internal pipes. Call after init_agent().
void awaitedDescriptors(std::vector<int> &descriptors);

/// True for the connection while a session is open: the library may read it at any time.
bool neverWaits(int descriptor);
