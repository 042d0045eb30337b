/// @file
/// The event loop of a daemon: descriptors, timers and signals, served one pass at a time.
///
/// One thread calls Service() in a loop. Every other operation may be called from any thread and
/// from inside a callback.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include <kest/utils/api.h>

namespace kest::utils {

struct IoTask;
struct TimeoutTask;
namespace detail {
class PassReclaimer;
}

/// An epoll instance with its tasks.
///
/// @code
///     kest::utils::Scheduler scheduler;
///     if (!scheduler.Init()) return 1;
///     scheduler.AddIOTask(fd, EPOLLIN, [](int, int events, void*) { return serve(events); }, arg);
///     scheduler.AddTimerTask(1000, [](void*) { return tick(); }, arg);
///     while (running) scheduler.Service();
/// @endcode
///
/// **Ids.** Tasks are named by ids from one counter that restarts at 1 with every Init(); 0 is
/// never an id. A timer or signal handler takes two ids, the first for its descriptor's I/O task,
/// the second, which the caller gets, for itself.
///
/// **Callbacks** run on the thread that calls Service(), without any lock held. Their result is
/// ignored: a task stays until it is removed. A callback may remove its own or any other task, add
/// tasks, call Stop(), Init() and Service(). A task removed in a pass is not called any more in
/// that pass, and what its callback captured lives until the pass is over; outside a pass it is
/// released at once. A callback must not destroy the scheduler. Its exception leaves Service();
/// what else was ready is reported again by the next pass, unless its mode is edge-triggered or
/// one-shot.
///
/// **Other threads.** A task that another thread removes may be entered once more if Service() was
/// about to call it. A thread that waits in Service() wakes up when another one calls Stop() or
/// Init(), unless the process has no descriptor left for that.
///
/// Each failure writes one log line, as named with each function.
class KEST_API Scheduler {
  public:
    /// Forms of the callbacks; `events` is what the kernel reported, `id` the timer's.
    using IoCallback = std::function<bool(int fd, int events, void* arg)>;
    using TimerCallback = std::function<bool(unsigned long long id, void* arg)>;

    Scheduler();

    /// Stop(), then frees everything. No thread may be inside Service() any more.
    virtual ~Scheduler();

    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /// Creates the epoll instance. On a running scheduler it starts afresh: all tasks are dropped.
    /// @return false when there is no descriptor left; a running scheduler then runs on unchanged.
    bool Init();

    /// One pass: waits without time-out until a descriptor is ready, then calls the callbacks of up
    /// to 8 ready tasks. Further ready descriptors are reported by the next pass.
    /// @return false when the wait fails: not initialised, stopped, or interrupted by a signal
    ///         handler (`errno` is `EINTR`); the caller decides whether to go on.
    bool Service();

    /// Drops all tasks and closes the epoll instance. Descriptors of I/O tasks stay open, those of
    /// timers and signal handlers are closed; for each of the latter one warning is logged, as they
    /// close before they leave the epoll instance. May be called any number of times.
    /// @return true.
    bool Stop();

    /// Watches a descriptor.
    /// @param fd        stays the caller's; remove the task before closing it.
    /// @param mode      epoll event mask, passed on unchanged (`EPOLLIN`, `EPOLLOUT`, ...).
    /// @param callback  gets the descriptor, the events that the kernel reported (`EPOLLERR` and
    ///                  `EPOLLHUP` also unasked) and `arg`. An empty one throws out of Service().
    /// @param arg       passed to the callback as it is; never touched.
    /// @return the task's id, or 0 when epoll refuses the descriptor.
    unsigned long long AddIOTask(int fd, int mode, IoCallback callback, void* arg);

    /// The same with a plain function, which gets the **events** and `arg`, not the descriptor.
    unsigned long long AddIOTask(int fd, int mode, bool (*callback)(int events, void* arg),
                                 void* arg);

    /// Stops watching. The descriptor is not closed.
    /// @return false when the id is unknown, or when epoll does not know the descriptor any more
    ///         (the task is gone all the same).
    bool RemoveIOTask(unsigned long long id);

    /// Replaces the watched event mask.
    /// @return false when the id is unknown or epoll refuses; the old mask then stays.
    bool ChangeIOTaskMode(unsigned long long id, int mode);

    /// Starts a timer on `CLOCK_MONOTONIC`. Expiries that were missed are folded into one call.
    /// @param initialMs  milliseconds to the first expiry; 0 leaves the timer disarmed for ever.
    /// @param periodMs   milliseconds between later expiries; 0 makes a one-shot timer, which still
    ///                   has to be removed.
    /// @param callback   gets the timer's id and `arg`.
    /// @return the timer's id, or 0.
    unsigned long long AddTimerTask(unsigned int initialMs, unsigned int periodMs,
                                    TimerCallback callback, void* arg);

    /// The same with a plain function, which gets `arg` alone.
    unsigned long long AddTimerTask(unsigned int initialMs, unsigned int periodMs,
                                    bool (*callback)(void* arg), void* arg);

    /// The same with the first expiry one period from now.
    unsigned long long AddTimerTask(unsigned int periodMs, bool (*callback)(void* arg), void* arg);

    /// Removes a timer. @return false when the id is unknown.
    bool RemoveTimerTask(unsigned long long id);

    /// Delivers a signal through Service().
    ///
    /// Blocks the signal in the **calling thread** and leaves it blocked, also after removal; add
    /// handlers before starting threads, which inherit the mask. A signal raised several times
    /// before it is served is delivered once. `SIGKILL` and `SIGSTOP` are accepted and never come.
    /// The descriptor is inherited by programs that the process executes.
    /// @return the handler's id, or 0.
    unsigned long long AddSignalHandler(int signo, bool (*callback)(void* arg), void* arg);

    /// Removes a signal handler; the signal stays blocked. @return false when the id is unknown.
    bool RemoveSignalHandler(unsigned long long id);

  private:
    template <typename Task>
    using TaskMap = std::map<unsigned long long, std::unique_ptr<Task>>;

    template <typename Task>
    KEST_LOCAL unsigned long long claimId(const TaskMap<Task>& taken);
    KEST_LOCAL int registerIoTask(unsigned long long id, std::unique_ptr<IoTask>& task, int mode);
    KEST_LOCAL unsigned long long addTimeoutTask(std::unique_ptr<TimeoutTask> task,
                                                 bool (*trampoline)(int, void*),
                                                 const char* caller);
    KEST_LOCAL bool removeIoTask(unsigned long long id, std::unique_ptr<TimeoutTask> timeout);

    std::mutex lock_;  // guards the maps and the id counter
    unsigned long long nextId_ = 1;
    std::atomic<int> epoll_{-1};
    TaskMap<IoTask> ioTasks_;
    TaskMap<TimeoutTask> timerTasks_;
    std::unique_ptr<detail::PassReclaimer> passes_;
};

}  // namespace kest::utils
