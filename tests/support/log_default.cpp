// Logs a few lines through the platform's default; log_test looks at what arrives.

#include <cerrno>
#include <cstdlib>
#include <string>

#include <kest/platform/log.h>

int main() {
    if (std::getenv("LONG") != nullptr) {
        logInternal("kest_test", "log_default", "main", 0, 3, 0, 0, "%s",
                    ("\ttwo\nlines\x1b" + std::string(10000, 'x')).c_str());
        return 0;
    }
    errno = EBUSY;
    logInternal("kest_test", "log_default", "main", 1, 3, ENOENT, 0, "broken %d", 7);
    logInternal("kest_test", "log_default", "main", 2, 7, 0, 0, "detail");
    logInternal("kest_test", "log_default", "main", 3, 6, 0, 0, "fine");
    return errno == EBUSY ? 0 : 1;
}
