// Standard output and standard error of the daemon: written without blocking or ending it.
#pragma once

/// Makes standard output line-buffered, ignores SIGPIPE, and drops a line for which there is no room, so that a stalled
/// reader does not block the process. Call before anything is printed. Preserves errno.
void prepareStandardStreams();

/// From now on a standard output that nobody reads line by line (a file, the null device) holds lines until fflush(),
/// the exit or a full buffer. A message of Qt and the signal of a crash write them first. SIGKILL loses them, and so
/// does a stack overflow. Pipes, sockets and terminals still get each line at once. Call after
/// prepareStandardStreams().
void holdStandardOutput();
