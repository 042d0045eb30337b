#include "pass_reclaimer.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "keep_errno.h"

namespace kest::utils::detail {
namespace {

// So many removals may pile up while a thread sleeps in Service() before it is woken to end its
// pass: other threads that add and remove tasks all day must not fill the memory of an idle loop.
constexpr size_t kNudgeThreshold = 512;

// Addresses that an epoll instance reports events with, as the kernel lists them. Empty where /proc
// is missing, with `known` false.
std::vector<unsigned long long> registeredAddresses(int epollFd, bool& known) {
    std::vector<unsigned long long> addresses;
    char path[48];
    snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", epollFd);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path, "re"), fclose);
    known = file != nullptr;
    char line[256];
    while (known && fgets(line, sizeof(line), file.get()) != nullptr) {
        unsigned long long address = 0;
        if (sscanf(line, "tfd: %*d events: %*x data: %llx", &address) == 1) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

}  // namespace

void PassReclaimer::retire(Removed removed, int epollFd) noexcept {
    if (passes_.load() == 0 && !removed.stray && !removed.epoll.valid()) return;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        // A pass counts itself before it loads the descriptor: without one, nobody has it.
        if (removed.epoll.valid() && passes_.load() != 0) {
            nudge(removed.epoll.get(), Nudge::kAll);
        }
        waiting_.push_back(std::move(removed));
        pending_.store(true);
        epollFd_ = epollFd;
        if (waiting_.size() >= kNudgeThreshold) nudge(epollFd, Nudge::kOne);
    }
    // The last pass may have ended before it could see the new entry.
    if (passes_.load() == 0) release();
}

void PassReclaimer::leave() {
    if (passes_.fetch_sub(1) == 1 && pending_.load()) release();
}

void PassReclaimer::release() {
    const KeepErrno keep;
    std::vector<Removed> batch;
    const std::unique_lock<std::mutex> guard(lock_);
    if (passes_.load() != 0) return;
    batch.swap(waiting_);
    pending_.store(false);
    nudge_.reset();
    keepStrays(batch);
}

// Leaves in `batch` what nobody names any more.
void PassReclaimer::keepStrays(std::vector<Removed>& batch) {
    const auto isStray = [](const Removed& entry) { return entry.stray; };
    if (strays_.empty() && std::none_of(batch.begin(), batch.end(), isStray)) return;

    for (Removed& entry : batch)
        strays_.push_back(std::move(entry));
    batch.clear();
    batch.swap(strays_);
    // With an epoll instance go all the registrations that were made in it.
    const auto lastEpoll = std::find_if(batch.rbegin(), batch.rend(),
                                        [](const Removed& entry) { return entry.epoll.valid(); });
    bool known = false;
    const auto addresses = registeredAddresses(epollFd_, known);
    for (auto entry = lastEpoll.base(); entry != batch.end(); ++entry) {
        const auto address = reinterpret_cast<uintptr_t>(entry->io.get());
        const auto found = std::find(addresses.begin(), addresses.end(), address);
        if (entry->stray && (!known || found != addresses.end())) {
            strays_.push_back(std::move(*entry));
        }
    }
}

// Makes waits of running passes return, with an event that names no task: one wait, or with an
// epoll instance that is retired every one, present and to come.
void PassReclaimer::nudge(int epollFd, Nudge whom) {
    if (epollFd < 0 || (whom == Nudge::kOne && nudge_.valid())) return;
    if (!nudge_.valid()) nudge_.reset(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event = {};
    event.events = EPOLLIN;
    if (whom == Nudge::kOne) event.events |= EPOLLONESHOT;
    event.data.ptr = nullptr;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, nudge_.get(), &event) != 0) {
        epoll_ctl(epollFd, EPOLL_CTL_MOD, nudge_.get(), &event);
    }
}

}  // namespace kest::utils::detail
