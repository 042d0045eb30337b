#include "worker.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <system_error>
#include <utility>

namespace {

// Whoever asks faster than we can answer is told so, not remembered.
constexpr size_t kMostWaiting = 16;

}  // namespace

Worker::Worker(kest::utils::Scheduler& scheduler) : scheduler_(scheduler) {}

Worker::~Worker() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
    if (ioTask_ != 0) scheduler_.RemoveIOTask(ioTask_);
}

bool Worker::start() {
    news_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!news_.valid()) return false;
    ioTask_ = scheduler_.AddIOTask(
        news_.get(), EPOLLIN,
        [this](int, int, void*) {
            deliver();
            return true;
        },
        nullptr);
    if (ioTask_ == 0) return false;
    try {
        thread_ = std::thread([this] { work(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

bool Worker::run(Job job, Done done) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waiting_.size() >= kMostWaiting) return false;
        waiting_.push_back({std::move(job), std::move(done), {}});
    }
    changed_.notify_one();
    return true;
}

void Worker::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        if (ending_) return;
        Task task = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        task.result = task.job();
        lock.lock();
        finished_.push_back(std::move(task));
        eventfd_write(news_.get(), 1);
    }
}

void Worker::deliver() {
    eventfd_t count = 0;
    eventfd_read(news_.get(), &count);
    std::deque<Task> finished;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        finished.swap(finished_);
    }
    for (const Task& task : finished)
        task.done(task.result);
}
