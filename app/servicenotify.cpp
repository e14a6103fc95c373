// The service manager's socket, through libsystemd where the build has it.
#include "app/servicenotify.h"

#ifdef KVSNMP_WITH_SYSTEMD
#    include <systemd/sd-daemon.h>
#endif

void notifyService([[maybe_unused]] const char *state)
{
#ifdef KVSNMP_WITH_SYSTEMD
    sd_notify(0, state); // a manager that cannot be reached notices by itself that nothing arrives
#endif
}
