// Standard output and standard error of the daemon: written at once, and never a reason to stop or to end.
#pragma once

/// Makes standard output line-buffered, ignores SIGPIPE, and keeps a reader that does not read from blocking the
/// process: a line that finds no room is dropped. To be called before anything is printed. Leaves errno as it was.
void prepareStandardStreams();
