#include "support/clean_test.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>

namespace kest::test {
namespace {

// What leaks has the lowest number that was free; valgrind and others have their own far above.
constexpr int kHighest = 1024;

// Real-time signals included; the two that the C library keeps for itself are never blocked.
void expectSameMask(const sigset_t& before) {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    for (int signo = 1; signo <= SIGRTMAX; ++signo)
        EXPECT_EQ(sigismember(&before, signo), sigismember(&now, signo)) << "signal " << signo;
}

}  // namespace

std::set<int> openDescriptors() {
    std::set<int> numbers;
    for (int fd = 0; fd < kHighest; ++fd)
        if (fcntl(fd, F_GETFD) != -1) numbers.insert(fd);
    return numbers;
}

void CleanTest::SetUp() {
    clearLog();
    descriptors_ = openDescriptors();
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
}

void CleanTest::TearDown() {
    EXPECT_EQ(descriptors_, openDescriptors()) << "descriptors leaked or closed";
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child was left";
    EXPECT_EQ(ECHILD, errno);
    expectSameMask(mask_);
}

}  // namespace kest::test
