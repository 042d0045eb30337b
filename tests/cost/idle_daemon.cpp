// A daemon with nothing to do: a scheduler with one task of each kind. scripts/size measures it,
// and ends it.

#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <kest/utils/scheduler.h>

int main() {
    kest::utils::Scheduler scheduler;
    const auto idle = [](void*) { return true; };
    const auto ready = [](void*) { return write(STDOUT_FILENO, "ready\n", 6) == 6; };
    const auto input = [](int, void*) { return true; };
    if (!scheduler.Init() || scheduler.AddIOTask(STDIN_FILENO, EPOLLIN, input, nullptr) == 0 ||
        scheduler.AddTimerTask(1, 0, ready, nullptr) == 0 ||
        scheduler.AddSignalHandler(SIGHUP, idle, nullptr) == 0) {
        return 1;
    }
    while (scheduler.Service()) {
    }
    return 1;
}
