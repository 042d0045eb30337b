#include <kest/utils/threadpriority.h>

#include <sched.h>
#include <unistd.h>

#include <cerrno>

#include "log.h"

namespace kest::utils {

bool SetRealTimePriority(int pid, int priority) {
    if (pid == 0) pid = getpid();
    if (priority < 0) priority = sched_get_priority_max(SCHED_RR);
    sched_param parameters = {};
    parameters.sched_priority = priority;
    if (sched_setscheduler(pid, SCHED_RR, &parameters) != 0) {
        KEST_LOG(KEST_ERROR, errno, "Unable to set priority to %d", priority);
        return false;
    }
    KEST_LOG(KEST_INFO, 0, "Pid %llu has priority %d", static_cast<unsigned long long>(pid),
             priority);
    return true;
}

}  // namespace kest::utils
