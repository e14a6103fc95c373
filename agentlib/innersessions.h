// How the agent library passes requests of the master to its agent, and the answers back.
#pragma once

/// Counts the messages that the library passes to itself, instead of a byte in a pipe for each. A pipe holds one byte
/// while messages wait, so that the event loop or a select() of the library finds them. Call when a session to the
/// master opens.
void bypassPipes();

/// The library uses its pipes again. Call when the session to the master ends: the library may close one of the two.
void restorePipes();

/// True while a request or an answer waits.
bool hasInnerMessages();

/// Serves requests that the library has taken from the master, without the select() and the alarms of another pass.
/// Some may stay for the next turn of the event loop.
void serveTaken();

/// Reads a descriptor of the library that is readable, and serves the requests that it takes from it, without a pass of
/// the library. False, without an effect, if only a pass can read the descriptor.
bool serveReadable(int descriptor);
