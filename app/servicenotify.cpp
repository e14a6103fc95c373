// Reports to the service manager's socket, in builds with libsystemd.
#include "app/servicenotify.h"

#ifdef KVSNMP_WITH_SYSTEMD
#    include <systemd/sd-daemon.h>
#endif

void notifyService([[maybe_unused]] const char *state)
{
#ifdef KVSNMP_WITH_SYSTEMD
    sd_notify(0, state); // errors are ignored: the manager notices missing reports
#endif
}
