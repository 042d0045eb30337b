#include <kest/utils/scheduler.h>

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <iterator>
#include <utility>

#include "log.h"
#include "pass_reclaimer.h"
#include "scheduler_tasks.h"
#include "uninterrupted.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

using detail::PassReclaimer;
using detail::Removed;
using detail::UniqueFd;

constexpr int kEventsPerPass = 8;

// A null function becomes an empty callback, whose call throws instead of crashing.
Scheduler::IoCallback wrap(bool (*callback)(int, void*)) {
    if (callback == nullptr) return nullptr;
    return [callback](int, int events, void* arg) { return callback(events, arg); };
}

timespec milliseconds(unsigned int ms) {
    timespec time = {};
    time.tv_sec = static_cast<time_t>(ms / 1000);
    time.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    return time;
}

bool readExpiryCount(TimeoutTask& task) {
    if (!task.beginUse()) return false;
    uint64_t expiries = 0;
    const auto got =
        detail::uninterrupted([&] { return ::read(task.fd, &expiries, sizeof(expiries)); });
    task.endUse();
    return got != -1;
}

bool onTimer(int /*events*/, void* arg) {
    auto& task = *static_cast<TimeoutTask*>(arg);
    if (!readExpiryCount(task)) return false;
    task.callback(task.timerId, task.arg);
    return true;
}

// Takes one pending signal off the queue. A read of the signal descriptor would take the same one,
// but would wait for ever when a second handler or another thread was faster.
bool takePendingSignal(int signo) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signo);
    const timespec noWait = {};
    return detail::uninterrupted([&] { return sigtimedwait(&mask, nullptr, &noWait); }) != -1;
}

bool onSignal(int /*events*/, void* arg) {
    auto& task = *static_cast<TimeoutTask*>(arg);
    if (!takePendingSignal(task.signo)) return false;
    task.callback(task.timerId, task.arg);
    return true;
}

// Blocks the signal in this thread and makes a descriptor that is readable while it is pending.
UniqueFd openSignal(int signo) {
    sigset_t mask;
    if (sigemptyset(&mask) == -1) {
        KEST_LOG_AS("AddSignalHandler", KEST_ERROR, errno, "Failed to empty mask");
        return UniqueFd();
    }
    if (sigaddset(&mask, signo) == -1) {
        KEST_LOG_AS("AddSignalHandler", KEST_ERROR, errno, "Failed to add mask");
        return UniqueFd();
    }
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) == -1) {
        KEST_LOG_AS("AddSignalHandler", KEST_ERROR, errno, "Failed to proc mask");
        return UniqueFd();
    }
    UniqueFd fd(signalfd(-1, &mask, 0));
    if (!fd.valid()) {
        KEST_LOG_AS("AddSignalHandler", KEST_ERROR, errno, "Failed to create signal FD");
    }
    return fd;
}

UniqueFd openTimer(unsigned int initialMs, unsigned int periodMs) {
    UniqueFd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!fd.valid()) {
        KEST_LOG_AS("AddTimerTask", KEST_ERROR, errno, "Failed to create timer");
        return fd;
    }
    itimerspec schedule = {};
    schedule.it_value = milliseconds(initialMs);
    schedule.it_interval = milliseconds(periodMs);
    if (timerfd_settime(fd.get(), 0, &schedule, nullptr) == -1) {
        KEST_LOG_AS("AddTimerTask", KEST_ERROR, errno, "Failed to settime");
        fd.reset();
    }
    return fd;
}

int unregister(int epollFd, int fd) {
    epoll_event event = {};
    return epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, &event);
}

// Ids grow, so the newest task is the last one: it, and an id that nobody has yet, are found
// without a search, however many tasks there are.
template <typename Map>
auto findTask(Map& tasks, unsigned long long id) {
    if (tasks.empty() || tasks.rbegin()->first < id) return tasks.end();
    if (tasks.rbegin()->first == id) return std::prev(tasks.end());
    return tasks.find(id);
}

epoll_event eventOf(IoTask* task, int mode) {
    epoll_event event = {};
    event.events = static_cast<uint32_t>(mode);
    event.data.ptr = task;
    return event;
}

}  // namespace

Scheduler::Scheduler() : passes_(std::make_unique<PassReclaimer>()) {}

Scheduler::~Scheduler() {
    Stop();
}

bool Scheduler::Init() {
    UniqueFd fresh(epoll_create1(EPOLL_CLOEXEC));
    if (!fresh.valid()) {
        KEST_LOG(KEST_ERROR, errno, "Failed to create epoll");
        return false;
    }
    // Another thread may be starting the scheduler as well; the later one wins.
    int stopped = -1;
    do {
        Stop();
        stopped = -1;
    } while (!epoll_.compare_exchange_strong(stopped, fresh.get()));
    fresh.release();
    return true;
}

bool Scheduler::Service() {
    const PassReclaimer::Pass pass(*passes_);
    epoll_event ready[kEventsPerPass];
    const int count = epoll_wait(epoll_.load(), ready, kEventsPerPass, -1);
    if (count == -1) {
        // Callers tell an interruption by errno, whatever a device's logging does to it.
        const int error = errno;
        KEST_LOG(KEST_ERROR, error, "Failed to wait epoll");
        errno = error;
        return false;
    }
    for (int i = 0; i < count; ++i) {
        // Among many tasks the next one has left the cache: let it come while this one works.
        if (i + 1 < count) __builtin_prefetch(ready[i + 1].data.ptr);
        const auto* task = static_cast<const IoTask*>(ready[i].data.ptr);
        // No task: the reclaimer wants this pass to end.
        if (task == nullptr || task->removed.load()) continue;
        task->callback(task->fd, static_cast<int>(ready[i].events), task->arg);
    }
    return true;
}

bool Scheduler::Stop() {
    UniqueFd epoll;
    TaskMap<IoTask> ioTasks;
    TaskMap<TimeoutTask> timerTasks;
    {
        // The instance goes together with its tasks: other threads may set up a new one at once,
        // and what they add to that must not be taken for a task of this.
        const std::lock_guard<std::mutex> guard(lock_);
        epoll.reset(epoll_.exchange(-1));
        if (!epoll.valid()) return true;
        nextId_ = 1;
        ioTasks.swap(ioTasks_);
        timerTasks.swap(timerTasks_);
    }
    for (auto& [id, task] : timerTasks) {
        if (task != nullptr) task->close();
    }
    for (auto& [id, task] : ioTasks) {
        if (unregister(epoll.get(), task->fd) == -1) {
            KEST_LOG(KEST_WARNING, errno, "Failed to del fd");
        }
        task->removed.store(true);
    }
    const int epollFd = epoll.get();
    for (auto& [id, task] : timerTasks)
        passes_->retire({nullptr, std::move(task), UniqueFd(), false}, epollFd);
    for (auto& [id, task] : ioTasks)
        passes_->retire({std::move(task), nullptr, UniqueFd(), false}, epollFd);
    passes_->retire({nullptr, nullptr, std::move(epoll), false}, -1);
    return true;
}

// Takes the next free id; 0 and ids in use are skipped when the counter wraps round.
template <typename Task>
unsigned long long Scheduler::claimId(const TaskMap<Task>& taken) {
    unsigned long long candidate = 0;
    do {
        candidate = nextId_++;
    } while (candidate == 0 || findTask(taken, candidate) != taken.end());
    return candidate;
}

// Enters the task and hands it to the kernel; 0, or the errno of the refusal, and the caller keeps
// the task. To be called with the lock held: the task is either registered and seen by Stop(), or
// refused.
int Scheduler::registerIoTask(unsigned long long id, std::unique_ptr<IoTask>& task, int mode) {
    IoTask* const registered = task.get();
    // Entered before the kernel knows it: an insertion that throws must not leave the address
    // there.
    const auto entry = ioTasks_.emplace_hint(ioTasks_.end(), id, std::move(task));
    epoll_event event = eventOf(registered, mode);
    if (epoll_ctl(epoll_.load(), EPOLL_CTL_ADD, registered->fd, &event) == 0) return 0;

    const int error = errno;
    task = std::move(entry->second);
    ioTasks_.erase(entry);
    return error;
}

unsigned long long Scheduler::AddIOTask(int fd, int mode, IoCallback callback, void* arg) {
    auto task = std::make_unique<IoTask>(fd, std::move(callback), arg);
    unsigned long long id = 0;
    int error = 0;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const unsigned long long idBefore = nextId_;
        id = claimId(ioTasks_);
        error = registerIoTask(id, task, mode);
        if (error != 0) nextId_ = idBefore;
    }
    if (error == 0) return id;
    KEST_LOG(KEST_ERROR, error, "Failed to add task");
    return 0;
}

unsigned long long Scheduler::AddIOTask(int fd, int mode, bool (*callback)(int, void*), void* arg) {
    return AddIOTask(fd, mode, wrap(callback), arg);
}

bool Scheduler::RemoveIOTask(unsigned long long id) {
    return removeIoTask(id, nullptr);
}

// Removes an I/O task together with the timer or signal handler that it served, if any.
bool Scheduler::removeIoTask(unsigned long long id, std::unique_ptr<TimeoutTask> timeout) {
    Removed removed;
    removed.timeout = std::move(timeout);
    int error = 0;
    int epollFd = -1;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto entry = findTask(ioTasks_, id);
        // Ids start again with Init(): another thread may meanwhile have given that of a timer to
        // another task.
        if (entry != ioTasks_.end() &&
            (removed.timeout == nullptr || entry->second->arg == removed.timeout.get())) {
            removed.io = std::move(entry->second);
            ioTasks_.erase(entry);
            epollFd = epoll_.load();
            removed.stray = unregister(epollFd, removed.io->fd) == -1;
            error = errno;
            removed.io->removed.store(true);
        }
    }
    const bool known = removed.io != nullptr;
    const bool clean = known && !removed.stray;
    if (!known) {
        KEST_LOG_AS("RemoveIOTask", KEST_ERROR, 0, "Invalid id %u", static_cast<unsigned int>(id));
    } else if (!clean) {
        KEST_LOG_AS("RemoveIOTask", KEST_ERROR, error, "Failed to del task");
    }
    if (removed.timeout != nullptr) removed.timeout->close();
    passes_->retire(std::move(removed), epollFd);
    return clean;
}

bool Scheduler::ChangeIOTaskMode(unsigned long long id, int mode) {
    bool known = false;
    bool changed = false;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto entry = findTask(ioTasks_, id);
        known = entry != ioTasks_.end();
        if (known) {
            IoTask* const task = entry->second.get();
            epoll_event event = eventOf(task, mode);
            changed = epoll_ctl(epoll_.load(), EPOLL_CTL_MOD, task->fd, &event) == 0;
        }
    }
    if (!known) {
        KEST_LOG(KEST_ERROR, 0, "Invalid id %llu", id);
    } else if (!changed) {
        KEST_LOG(KEST_ERROR, errno, "Failed to del task");
    }
    return changed;
}

unsigned long long Scheduler::AddTimerTask(unsigned int initialMs, unsigned int periodMs,
                                           TimerCallback callback, void* arg) {
    UniqueFd fd = openTimer(initialMs, periodMs);
    if (!fd.valid()) return 0;
    auto task = std::make_unique<TimeoutTask>(fd.get(), std::move(callback), arg);
    fd.release();
    return addTimeoutTask(std::move(task), onTimer, "AddTimerTask");
}

unsigned long long Scheduler::AddTimerTask(unsigned int initialMs, unsigned int periodMs,
                                           bool (*callback)(void*), void* arg) {
    return AddTimerTask(initialMs, periodMs, TimeoutTask::wrap(callback), arg);
}

unsigned long long Scheduler::AddTimerTask(unsigned int periodMs, bool (*callback)(void*),
                                           void* arg) {
    return AddTimerTask(periodMs, periodMs, callback, arg);
}

unsigned long long Scheduler::AddSignalHandler(int signo, bool (*callback)(void*), void* arg) {
    UniqueFd fd = openSignal(signo);
    if (!fd.valid()) return 0;
    auto task = std::make_unique<TimeoutTask>(fd.get(), callback, arg);
    fd.release();
    task->signo = signo;
    return addTimeoutTask(std::move(task), onSignal, "AddSignalHandler");
}

unsigned long long Scheduler::addTimeoutTask(std::unique_ptr<TimeoutTask> task,
                                             bool (*trampoline)(int, void*), const char* caller) {
    auto io = std::make_unique<IoTask>(task->fd, wrap(trampoline), task.get());
    unsigned long long id = 0;
    int error = 0;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const unsigned long long idBefore = nextId_;
        // Both ids are settled before the kernel knows the descriptor: another thread may serve it
        // at once.
        const unsigned long long ioTaskId = claimId(ioTasks_);
        id = claimId(timerTasks_);
        task->ioTaskId = ioTaskId;
        task->timerId = id;
        const auto entry = timerTasks_.emplace_hint(timerTasks_.end(), id, std::move(task));
        error = registerIoTask(ioTaskId, io, EPOLLIN);
        if (error != 0) {
            task = std::move(entry->second);
            timerTasks_.erase(entry);
            nextId_ = idBefore;
        }
    }
    if (error == 0) return id;
    KEST_LOG_AS("AddIOTask", KEST_ERROR, error, "Failed to add task");
    KEST_LOG_AS(caller, KEST_ERROR, 0, "Failed to add task");
    return 0;
}

bool Scheduler::RemoveTimerTask(unsigned long long id) {
    std::unique_ptr<TimeoutTask> task;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto entry = findTask(timerTasks_, id);
        if (entry != timerTasks_.end() && entry->second != nullptr) {
            task = std::move(entry->second);
            timerTasks_.erase(entry);
        }
    }
    if (task == nullptr) {
        KEST_LOG(KEST_ERROR, 0, "Invalid id %llu", id);
        return false;
    }
    const unsigned long long ioTaskId = task->ioTaskId;
    removeIoTask(ioTaskId, std::move(task));
    return true;
}

bool Scheduler::RemoveSignalHandler(unsigned long long id) {
    std::unique_ptr<TimeoutTask> task;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        // An unknown id leaves an empty entry, which keeps the id from being issued.
        task = std::move(timerTasks_[id]);
        if (task != nullptr) timerTasks_.erase(id);
    }
    if (task == nullptr) {
        KEST_LOG(KEST_ERROR, 0, "Invalid id");
        return false;
    }
    const unsigned long long ioTaskId = task->ioTaskId;
    removeIoTask(ioTaskId, std::move(task));
    return true;
}

}  // namespace kest::utils
