#include "system_log.h"

#include <kest/utils/string_utils.h>

bool SystemLog::start() {
    attached_ = ring_.Initialize();
    return attached_;
}

std::vector<std::string> SystemLog::take() {
    std::vector<std::string> messages;
    if (!attached_) return messages;
    // The daemon that writes the ring waits meanwhile: the texts are only put aside.
    ring_.ForEach(
        [](const char* text, unsigned int length, void* out) {
            static_cast<std::vector<std::string>*>(out)->emplace_back(text, length);
        },
        &messages);
    for (std::string& message : messages)
        kest::utils::rTrim(message);
    return messages;
}
