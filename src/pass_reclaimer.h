// Decides when what was taken out of a scheduler may be freed.
//
// epoll_wait copies the addresses of ready tasks out of the kernel; from then until the end of the
// pass a removed task may still be named, and its callback may even be the one that removes it. The
// same holds for the epoll descriptor, which a thread may have loaded and not yet waited on. So
// everything removed while a pass is on stays until the last pass is over.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "scheduler_tasks.h"
#include "unique_fd.h"

namespace kest::utils::detail {

// What one removal takes out.
struct Removed {
    std::unique_ptr<IoTask> io;
    std::unique_ptr<TimeoutTask> timeout;
    UniqueFd epoll;
    // The kernel refused to forget `io`: its descriptor was closed too early, and the registration
    // lives on if a duplicate of the descriptor does.
    bool stray = false;
};

class PassReclaimer {
  public:
    // A pass of Service(), from before the wait to after the last callback.
    class Pass {
      public:
        explicit Pass(PassReclaimer& owner) : owner_(owner) { owner_.passes_.fetch_add(1); }
        ~Pass() { owner_.leave(); }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

      private:
        PassReclaimer& owner_;
    };

    // Frees at once when no pass is on. To be called after the task has left the epoll instance
    // `epollFd`, and without the scheduler's lock: what a callback captured may call back when it
    // goes. Ends the process when it cannot note the task: better than a dangling pointer.
    void retire(Removed removed, int epollFd) noexcept;

  private:
    enum class Nudge { kOne, kAll };

    void leave();
    void release();
    void keepStrays(std::vector<Removed>& batch);
    void nudge(int epollFd, Nudge whom);

    std::atomic<unsigned> passes_{0};
    std::atomic<bool> pending_{false};  // waiting_ is not empty
    std::mutex lock_;                   // guards what follows
    std::vector<Removed> waiting_;
    std::vector<Removed> strays_;
    UniqueFd nudge_;
    int epollFd_ = -1;
};

}  // namespace kest::utils::detail
