// How the agent library connects to the master agent.
#pragma once

/// Makes each attempt of the library at its default socket end soon: a master whose queue of connections is full is
/// refused instead of waited for, and in one pass of the library one attempt is made at most. The library repeats an
/// attempt every ping interval; one that lasts longer would be followed by the next without end. To be called between
/// init_agent() and init_snmp().
void boundAttempts();

/// A pass of the library begins: it may make its attempt.
void allowAttempt();

/// The session is open: cancels all alarms of the library that would open one. One too many is left when the master
/// hangs up in the middle of an attempt, and complains every ping interval from then on.
void cancelAttempts();

/// The session was lost in this pass; the attempt to open the next one is left to another pass.
void postponeAttempt();
