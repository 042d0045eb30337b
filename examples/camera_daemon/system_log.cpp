#include "system_log.h"

#include <cerrno>

#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

namespace {

// Each try that finds no ring logs a line.
constexpr int64_t kTryAgainMs = 60000;

}  // namespace

bool SystemLog::start() {
    wanted_ = true;
    nextTryMs_ = nowMs() + kTryAgainMs;
    attached_ = ring_.Initialize();
    return attached_;
}

// A log daemon that ends takes the semaphores along.
bool SystemLog::lock() {
    if (!attached_ && (!wanted_ || nowMs() < nextTryMs_ || !start())) return false;
    if (ring_.Lock()) return true;
    if (errno == EINTR) return false;
    ring_.Close();
    attached_ = false;
    nextTryMs_ = nowMs();
    return false;
}

std::vector<std::string> SystemLog::take() {
    std::vector<std::string> messages;
    if (!lock()) return messages;
    // The daemon that writes the ring waits meanwhile: the texts are only put aside.
    ring_.ForEachNoLock(
        [](const char* text, unsigned int length, void* out) {
            static_cast<std::vector<std::string>*>(out)->emplace_back(text, length);
        },
        &messages);
    ring_.Unlock();
    for (std::string& message : messages)
        kest::utils::rTrim(message);
    return messages;
}
