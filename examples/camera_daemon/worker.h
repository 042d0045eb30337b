// A thread for what takes its time, so that the event loop does not wait for it: a tool, an answer
// of another daemon.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <kest/utils/scheduler.h>

#include "descriptor.h"

class Worker {
  public:
    using Job = std::function<std::string()>;
    using Done = std::function<void(const std::string& result)>;

    explicit Worker(kest::utils::Scheduler& scheduler);

    // Waits for the job under way; those behind it are not begun.
    ~Worker();

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Call it when the signal handlers are added: the thread inherits the signals that they block.
    bool start();

    // Runs the job on the thread, one after the other, and `done` on the scheduler's. False when
    // too many jobs wait.
    bool run(Job job, Done done);

  private:
    struct Task {
        Job job;
        Done done;
        std::string result;
    };

    void work();
    void deliver();

    kest::utils::Scheduler& scheduler_;
    Descriptor news_;  // eventfd: there is something in finished_
    unsigned long long ioTask_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> waiting_;
    std::deque<Task> finished_;
    bool ending_ = false;
    std::thread thread_;
};
