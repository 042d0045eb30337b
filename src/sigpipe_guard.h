// Keeps SIGPIPE away from the process while this thread writes to pipes and sockets whose readers
// may have gone. Neither the disposition nor a signal that was pending before is touched.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>

#include "keep_errno.h"
#include "uninterrupted.h"

namespace kest::utils::detail {

class SigpipeGuard {
  public:
    SigpipeGuard() {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &oldMask_);
        sigset_t pending;
        wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    ~SigpipeGuard() {
        const KeepErrno keep;
        if (mayBeRaised_ && !wasPending_) takePending();
        pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
    }

    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    ssize_t write(int fd, const void* data, size_t size) {
        const ssize_t written = ::write(fd, data, size);
        // Readers that leave in the middle of a write raise the signal although bytes were written.
        mayBeRaised_ = mayBeRaised_ || written < static_cast<ssize_t>(size);
        return written;
    }

  private:
    // The kernel directs the signal at the writing thread, so it is pending here or nowhere.
    void takePending() const {
        const timespec noWait = {};
        uninterrupted([&] { return sigtimedwait(&sigpipe_, nullptr, &noWait); });
    }

    sigset_t sigpipe_;
    sigset_t oldMask_;
    bool wasPending_ = false;
    bool mayBeRaised_ = false;
};

}  // namespace kest::utils::detail
