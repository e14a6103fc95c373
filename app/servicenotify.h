// What the service manager hears of the daemon: that it is ready, that its event loop turns, that it ends.
#pragma once

/// Reports a state, e.g. "READY=1", to the service manager. Does nothing when NOTIFY_SOCKET is not in the environment,
/// and in a build without libsystemd.
void notifyService(const char *state);
