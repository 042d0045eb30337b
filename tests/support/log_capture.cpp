#include "support/log_capture.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <kest/platform/log.h>

namespace kest::test {
namespace {

// Lines may come before main() and after it.
struct Log {
    std::mutex mutex;
    std::vector<LogLine> lines;
};

Log& captured() {
    static Log instance;
    return instance;
}

}  // namespace

std::vector<LogLine> logLines() {
    std::lock_guard<std::mutex> guard(captured().mutex);
    return captured().lines;
}

std::vector<std::string> logTexts() {
    std::vector<std::string> texts;
    for (const LogLine& line : logLines())
        texts.push_back(line.text);
    return texts;
}

void clearLog() {
    std::lock_guard<std::mutex> guard(captured().mutex);
    captured().lines.clear();
}

}  // namespace kest::test

extern "C" void logInternal(const char* module, const char* sourceFile, const char* function,
                            int /*line*/, int level, int errnoValue, int /*reserved*/,
                            const char* format, ...) {
    const int savedErrno = errno;
    char* text = nullptr;
    va_list args;
    va_start(args, format);
    if (vasprintf(&text, format, args) < 0) text = strdup("(bad format)");
    va_end(args);
    kest::test::LogLine entry{module, sourceFile, function, level, errnoValue, text};
    free(text);
    auto& log = kest::test::captured();
    std::lock_guard<std::mutex> guard(log.mutex);
    log.lines.push_back(std::move(entry));
    errno = savedErrno;
}
