// The daemon's reports to the service manager: ready, event loop running, stopping.
#pragma once

/// Reports a state, e.g. "READY=1", to the service manager. Does nothing without NOTIFY_SOCKET in the environment and
/// in a build without libsystemd.
void notifyService(const char *state);
