#include <kest/utils/crashdumps.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <kest/utils/fileutils.h>
#include <kest/utils/procfs.h>
#include <kest/utils/string_utils.h>

#include "log.h"

namespace kest::utils {

CrashDumpHandler gCrashDumper;

namespace {

constexpr const char* kBaseFolder = "/tmp/crashdumps/";
constexpr const char* kCountVariable = "CRASH_DUMPS_COUNT";
constexpr int kDefaultCount = 3;
constexpr unsigned kMaxCount = 100;
constexpr size_t kNameLength = 10;
constexpr size_t kStackSize = 8192;
constexpr int kHandledSignals[] = {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS};

char* newText(const std::string& text) {
    char* const copy = new char[text.size() + 1];
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// Makes a new stack the calling thread's alternate one.
bool beginStack(stack_t& stack) {
    std::unique_ptr<char[]> memory(new (std::nothrow) char[kStackSize]);
    stack_t wanted = {};
    wanted.ss_sp = memory.get();
    wanted.ss_size = kStackSize;
    if (!memory || sigaltstack(&wanted, nullptr) != 0) return false;
    memory.release();
    stack = wanted;
    return true;
}

// Frees a stack that the calling thread uses or nobody does. Where another thread may still crash
// on it, or this one runs on it, it stays.
void endStack(stack_t& stack) {
    stack_t current = {};
    if (stack.ss_sp == nullptr || sigaltstack(nullptr, &current) != 0) return;
    if (current.ss_sp != stack.ss_sp) return;
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    if (sigaltstack(&none, nullptr) != 0) return;
    delete[] static_cast<char*>(stack.ss_sp);
    stack = {};
}

struct ThreadStack {
    stack_t stack = {};
    ~ThreadStack() { endStack(stack); }
};

// Name of the running program, for a folder of its own.
bool programName(std::string& name) {
    std::string program;
    std::string path;
    std::vector<std::string> arguments;
    if (!ReadCommandLine(program, arguments) || !normalizePath(program, path)) return false;
    name = basename_safe(path);
    // These would number, and evict, the folders of others.
    return !name.empty() && name != "." && name != "..";
}

int foldersToKeep() {
    const char* const text = getenv(kCountVariable);
    if (text == nullptr) return kDefaultCount;
    const int count = atoi(text);
    if (count == 0) {
        KEST_LOG_AS("GetCrashDumpFolder", KEST_WARNING, 0,
                    "CRASH_DUMPS_COUNT env variable is not a number or less or equal to 0. Using "
                    "the default value of 1");
        return 1;
    }
    // A negative count is one that is too big, and keeps the most.
    if (static_cast<unsigned>(count) > kMaxCount) {
        KEST_LOG_AS("GetCrashDumpFolder", KEST_WARNING, 0,
                    "CRASH_DUMPS_COUNT env variable is bigger than allowed max (100). Capping to "
                    "100");
        return static_cast<int>(kMaxCount);
    }
    return count;
}

// Names of the numbered folders, the highest number first.
bool listNumbered(const std::string& folder, std::vector<std::string>& names) {
    dirent** entries = nullptr;
    const int count =
        scandir(folder.c_str(), &entries, CrashDumpHandler::crash_dump_folder_filer, alphasort);
    if (count < 0) {
        KEST_LOG_AS("GetCrashDumpFolder", KEST_ERROR, errno, "Unable to scan folder `%s`",
                    folder.c_str());
        return false;
    }
    for (int i = count - 1; i >= 0; --i) {
        names.push_back(entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return true;
}

// Deletes the oldest folders until there is room for one more.
void evict(const std::string& folder, std::vector<std::string>& names, size_t keep) {
    while (names.size() >= keep) {
        const std::string path = folder + "/" + names.back();
        names.pop_back();
        if (rmRf(path)) continue;
        KEST_LOG_AS("GetCrashDumpFolder", KEST_WARNING, 0, "Unable to evict folder `%s`",
                    path.c_str());
    }
}

}  // namespace

CrashDumpHandler::~CrashDumpHandler() {
    endStack(stack_);
    delete[] std::exchange(pidText_, nullptr);
    delete[] std::exchange(folderText_, nullptr);
    // The signals stay with the handler, which looks at the global object: the stores above count.
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

int CrashDumpHandler::crash_dump_folder_filer(const dirent* entry) {
    const std::string name = entry->d_name;
    return entry->d_type == DT_DIR && name.size() == kNameLength &&
           name.find_first_not_of("0123456789") == std::string::npos &&
           name == format("%010d", atoi(name.c_str()));
}

bool CrashDumpHandler::GetCrashDumpFolder(const char* folder, std::string& out) {
    if (folder != nullptr) return normalizePath(folder, out);
    std::string program;
    if (!programName(program)) return false;
    const auto keep = static_cast<size_t>(foldersToKeep());
    out = kBaseFolder + program;
    std::vector<std::string> names;
    if (!mkdirP(out, false) || !listNumbered(out, names)) return false;
    evict(out, names, keep);
    // Wider than int, for the folder after the last number that fits into one.
    const long long number = names.empty() ? 1 : atoi(names.front().c_str()) + 1LL;
    out = format("%s/%010lld", out.c_str(), number);
    return mkdirP(out, false);
}

bool CrashDumpHandler::openReport(const std::string& path) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    if (stackFd_ >= 0) ::close(stackFd_);
    stackFd_ = fd;
    return true;
}

void CrashDumpHandler::keepTexts(const std::string& folder) {
    delete[] std::exchange(pidText_,
                           newText(format("%llu", static_cast<unsigned long long>(::getpid()))));
    delete[] std::exchange(folderText_, newText(folder));
}

bool CrashDumpHandler::installStack() {
    stack_t old = stack_;
    if (!beginStack(stack_)) return false;
    delete[] static_cast<char*>(old.ss_sp);
    return true;
}

bool CrashDumpHandler::installSignals() {
    static_assert(std::size(kHandledSignals) == kSignals, "one slot per signal");
    struct sigaction action = {};
    action.sa_sigaction = DumpStackWrapper;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < kSignals; ++i) {
        Slot& slot = slots_[i];
        struct sigaction previous = {};
        // Before it can arrive: without a slot the handler would return to a fault for ever.
        const int known = std::exchange(slot.signo, kHandledSignals[i]);
        if (sigaction(slot.signo, &action, &previous) != 0) {
            slot.signo = known;
            return false;
        }
        // After a second installation the handler must not hand on to itself.
        if (previous.sa_sigaction != DumpStackWrapper) slot.previous = previous;
    }
    return true;
}

bool InstallCrashDumpHandler(const char* folder) {
    CrashDumpHandler& dumper = gCrashDumper;
    if (!dumper.map_.GetMemoryMap(0)) {
        KEST_LOG(KEST_ERROR, 0, "Unable to read the memory map.");
        return false;
    }
    std::string path;
    if (!dumper.GetCrashDumpFolder(folder, path)) {
        KEST_LOG(KEST_ERROR, 0, "Unable to compute the dump folder");
        return false;
    }
    const std::string reportPath = path + "/stack";
    if (!dumper.openReport(reportPath)) {
        KEST_LOG(KEST_ERROR, errno, "Unable to create stack file to `%s`", reportPath.c_str());
        return false;
    }
    dumper.keepTexts(path);
    if (!dumper.installStack()) {
        KEST_LOG(KEST_ERROR, errno, "Unable to allocate alternate signaling stack");
        return false;
    }
    if (!dumper.installSignals()) {
        KEST_LOG(KEST_ERROR, errno, "sigaction failed");
        return false;
    }
    return true;
}

bool InstallCrashDumpStack() {
    thread_local ThreadStack own;
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) return true;
    if (beginStack(own.stack)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to allocate alternate signaling stack");
    return false;
}

}  // namespace kest::utils
