// The scheduler's tasks. The epoll registration of a task carries the address of its IoTask.
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "unique_fd.h"

namespace kest::utils {

struct IoTask {
    IoTask(int descriptor, std::function<bool(int, int, void*)> function, void* argument)
        : fd(descriptor), callback(std::move(function)), arg(argument) {}

    const int fd;                      // the caller's
    std::atomic<bool> removed{false};  // a running pass may still name the task: skip it
    const std::function<bool(int fd, int events, void* arg)> callback;
    void* const arg;
};

// A timer or signal handler, the owner of its descriptor.
struct TimeoutTask {
    using Callback = std::function<bool(unsigned long long id, void* arg)>;

    TimeoutTask(int descriptor, Callback function, void* argument)
        : fd(descriptor), callback(std::move(function)), arg(argument) {}
    TimeoutTask(int descriptor, bool (*function)(void*), void* argument)
        : TimeoutTask(descriptor, wrap(function), argument) {}
    TimeoutTask(const TimeoutTask&) = delete;
    TimeoutTask& operator=(const TimeoutTask&) = delete;
    ~TimeoutTask() { close(); }

    // A null function becomes an empty callback, whose call throws instead of crashing.
    static Callback wrap(bool (*function)(void*)) {
        if (function == nullptr) return nullptr;
        return [function](unsigned long long, void* argument) { return function(argument); };
    }

    // Brackets a use of the descriptor. The descriptor of a task that another thread removes in
    // between is closed by the last user, so that nobody reads from a number that has meanwhile
    // been given to another file.
    bool beginUse() {
        unsigned state = use_.load();
        while ((state & kClosed) == 0) {
            if (use_.compare_exchange_weak(state, state + kOneUser)) return true;
        }
        return false;
    }
    void endUse() {
        if (use_.fetch_sub(kOneUser) == (kOneUser | kClosed)) closeDescriptor();
    }
    void close() {
        if (use_.fetch_or(kClosed) == 0) closeDescriptor();
    }

    const int fd;
    const Callback callback;
    void* const arg;
    int signo = 0;  // of a signal handler
    unsigned long long ioTaskId = 0;
    unsigned long long timerId = 0;

  private:
    static constexpr unsigned kClosed = 1;
    static constexpr unsigned kOneUser = 2;

    void closeDescriptor() const { detail::UniqueFd(fd).reset(); }

    std::atomic<unsigned> use_{0};
};

}  // namespace kest::utils
