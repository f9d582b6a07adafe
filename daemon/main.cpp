// kelpd: the feed daemon's entry. Either the one-shot support-data client,
// or the daemon: device services up, detach with the lock, run the loop,
// and tear down in reverse order.
#include "daemon/kd_daemon.h"
#include "daemon/kd_diag.h"
#include "daemon/kd_mainloop.h"
#include "platform/csock.h"
#include "platform/dsldstat.h"
#include "platform/kd_paths.h"
#include "platform/localzone.h"
#include "platform/process.h"
#include "platform/timeout.h"
#include "util/kd_log.h"

#include <unistd.h>

int main(int argc, char **argv)
{
    if (kd_scan_args(argc, argv))
        return create_supportdata();
    setpgmname(cmd);
    localzone_init();
    csock_init();
    crashdump_init(argv[0]);
    timeout_init();
    dsldstat_init();
    int32_t code = daemonize();
    if (code == 0) {
        code = main_loop();
        // The working directory is the run directory by now.
        unlink(KD_PID_FILE);
    }
    dsldstat_exit();
    timeout_exit();
    csock_exit();
    KD_LOG(2, LOG_INFO, "shutting down with exit code %d", code);
    return code;
}
