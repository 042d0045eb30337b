#include "support/clean_test.h"

#include <dirent.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>

namespace kest::test {
namespace {

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
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return numbers;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') numbers.insert(std::atoi(entry->d_name));
    }
    numbers.erase(dirfd(dir));
    closedir(dir);
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
