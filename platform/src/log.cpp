#include <kest/platform/log.h>

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "keep_errno.h"
#include "uninterrupted.h"

namespace {

constexpr int kDefaultThreshold = 6;
constexpr size_t kLineCapacity = 2048;

struct Settings {
    bool toSyslog = false;
    int threshold = kDefaultThreshold;
};

Settings readSettings() {
    Settings settings;
    const char* target = std::getenv("KEST_LOG");
    settings.toSyslog = target != nullptr && std::strcmp(target, "syslog") == 0;
    const char* level = std::getenv("KEST_LOG_LEVEL");
    if (level != nullptr && level[0] >= '0' && level[0] <= '7' && level[1] == '\0') {
        settings.threshold = level[0] - '0';
    }
    return settings;
}

const char* levelName(int level) {
    static const char* const kNames[] = {"emerg",   "alert",  "crit", "error",
                                         "warning", "notice", "info", "debug"};
    return level >= 0 && level <= 7 ? kNames[level] : "?";
}

// Text that does not fit is cut, never overrun.
struct Line {
    char text[kLineCapacity];
    size_t length = 0;

    void grow(int wanted) {
        if (wanted < 0) return;
        const size_t room = sizeof(text) - length;
        const auto added = static_cast<size_t>(wanted);
        length += added < room ? added : room - 1;
    }

    __attribute__((format(printf, 2, 3))) void append(const char* format, ...) {
        va_list args;
        va_start(args, format);
        grow(vsnprintf(text + length, sizeof(text) - length, format, args));
        va_end(args);
    }

    // Values from outside must not forge a line of their own, nor command a terminal.
    void keepToOneLine() {
        for (size_t i = 0; i < length; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if ((byte < ' ' && byte != '\t') || byte == 0x7f) text[i] = '?';
        }
    }
};

// One write for the whole line: lines of several threads and processes do not mix.
void writeToStandardError(Line& line) {
    if (line.length == sizeof(line.text) - 1) --line.length;
    line.text[line.length++] = '\n';
    kest::utils::detail::writeAll(STDERR_FILENO, line.text, line.length);
}

}  // namespace

extern "C" void logInternal(const char* module, const char* sourceFile, const char* function,
                            int lineNumber, int level, int errnoValue, int /*reserved*/,
                            const char* format, ...) {
    static const Settings settings = readSettings();
    if (level > settings.threshold) return;

    const kest::utils::detail::KeepErrno keep;
    Line line;
    if (!settings.toSyslog) line.append("%s: ", levelName(level));
    line.append("%s %s:%d %s(): ", module, sourceFile, lineNumber, function);
    va_list args;
    va_start(args, format);
    line.grow(vsnprintf(line.text + line.length, sizeof(line.text) - line.length, format, args));
    va_end(args);
    if (errnoValue != 0) line.append(": %s (errno %d)", strerror(errnoValue), errnoValue);
    line.keepToOneLine();

    if (settings.toSyslog) {
        ::syslog(level, "%s", line.text);
    } else {
        writeToStandardError(line);
    }
}

extern "C" void forceCrash() {
    std::abort();
}
