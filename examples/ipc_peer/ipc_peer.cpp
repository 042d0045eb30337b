#include "ipc_peer.h"

#include <signal.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include <kest/utils/scheduler.h>

namespace {

bool end(void* running) {
    *static_cast<bool*>(running) = false;
    return true;
}

// Until `running` is taken back; false when it breaks off before.
bool answer(kest::utils::Scheduler& scheduler, const char* endpoint,
            kest::ipc::IpcService::Handler handler, const bool& running) {
    kest::ipc::IpcService service(endpoint);
    service.onRequest(std::move(handler));
    if (service.init() != 0) return false;
    const auto task = scheduler.AddIOTask(
        service.fd(), EPOLLIN, [&service](int, int, void*) { return service.service(); }, nullptr);
    if (task == 0) return false;
    printf("answering: %s\n", endpoint);
    while (running && (scheduler.Service() || errno == EINTR))
        continue;
    scheduler.RemoveIOTask(task);
    return !running;
}

}  // namespace

int answerUntilEnded(const char* endpoint, kest::ipc::IpcService::Handler handler) {
    // Each line is to be seen when it happens, also through a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    bool running = true;
    kest::utils::Scheduler scheduler;
    if (!scheduler.Init()) return 1;
    // Before the service starts: a signal must not end a program that has its endpoint open.
    const auto onInterrupt = scheduler.AddSignalHandler(SIGINT, end, &running);
    const auto onTerminate = scheduler.AddSignalHandler(SIGTERM, end, &running);

    const bool finished = onInterrupt != 0 && onTerminate != 0 &&
                          answer(scheduler, endpoint, std::move(handler), running);
    scheduler.RemoveSignalHandler(onInterrupt);
    scheduler.RemoveSignalHandler(onTerminate);
    return finished ? 0 : 1;
}
