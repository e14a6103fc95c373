// Standard output and standard error of the daemon: written at once, without blocking or ending it.
#pragma once

/// Makes standard output line-buffered, ignores SIGPIPE, and drops a line for which there is no room, so that a stalled
/// reader does not block the process. Call before anything is printed. Preserves errno.
void prepareStandardStreams();
