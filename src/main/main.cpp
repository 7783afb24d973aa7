// SPDX-License-Identifier: MIT
// The daemon's entry point: from the PID file to the parked main thread.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "PMTUDApp.h"
#include "QVLog.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "cfg.h"
#include "qv_exception.h"

int main() {
    int exitStatus = 0;

    // Only the lock matters, and it ends with the process: the file is never written or closed.
    const int pidFile = open("/var/run/pmtud.pid", O_RDWR | O_CREAT, 0666);
    if (flock(pidFile, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        // Only reported: the second instance runs too.
        QV_LOG(ERROR, 52) << "another instance is already running";
    }

    cfg_init();
    cfg_add_pid("pmtud");
    updateTZ();

    try {
        VlanConfig cfg;
        PMTUDApp app(&cfg, getShmWrapperApp());
        // If the queues cannot be attached, the process keeps running, without receiving anything,
        // until it is killed.
        app.run();
        while (true) usleep(500);
    } catch (qv::exception& e) {
        QV_LOG(ERROR, 75) << e.what();
        exitStatus = 1;
    } catch (...) {
        QV_LOG(ERROR, 79) << "unknown exception caught";
        exitStatus = 1;
    }

    QV_LOG(WARNING, 84) << "Exiting app";
    cfg_clear_pid();
    return exitStatus;
}
