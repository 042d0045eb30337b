// A function in a child process of its own.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <utility>

namespace kest::test {

// Its exit status is 0 when nothing failed in it. Killed with the object at the latest.
class Child {
  public:
    explicit Child(const std::function<void()>& main) : pid_(fork()) {
        if (pid_ != 0) return;
        main();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    ~Child() { end(SIGKILL); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Its wait status; with 0 for the signal it ends by itself.
    int end(int signo = 0) {
        int status = -1;
        if (pid_ > 0 && kill(pid_, signo) == 0) waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }

  private:
    pid_t pid_ = -1;
};

}  // namespace kest::test
