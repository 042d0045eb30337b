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

    kest::ipc::IpcService service(endpoint);
    service.onRequest(std::move(handler));
    if (onInterrupt == 0 || onTerminate == 0 || service.init() != 0) return 1;
    const auto task = scheduler.AddIOTask(
        service.fd(), EPOLLIN, [&service](int, int, void*) { return service.service(); }, nullptr);
    if (task == 0) return 1;
    printf("answering: %s\n", endpoint);
    while (running && (scheduler.Service() || errno == EINTR))
        continue;

    scheduler.RemoveIOTask(task);
    scheduler.RemoveSignalHandler(onInterrupt);
    scheduler.RemoveSignalHandler(onTerminate);
    return running ? 1 : 0;
}
