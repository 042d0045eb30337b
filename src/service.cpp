#include <kest/utils/service.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>

#include <kest/cfg/SystemCfgManager.h>
#include <kest/utils/file.h>
#include <kest/utils/fileutils.h>
#include <kest/utils/process.h>

#include "c_path.h"
#include "log.h"
#include "temp_file.h"

namespace kest::utils {
namespace {

constexpr char kInittab[] = "/etc/inittab";
constexpr off_t kLargestTable = 16 << 20;
constexpr pid_t kInit = 1;

struct Service {
    const char* name;
    const char* daemon;
    const char* key;
};

constexpr Service kServices[] = {
    {"ble", "kest_btadopt", "bled.status"},
    {"http", "lighttpd", "httpd.status"},
    {"ssh", "dropbear", "sshd.status"},
};

const Service* findService(const char* name, const char* caller) {
    for (const Service& service : kServices) {
        if (name != nullptr && strcmp(service.name, name) == 0) return &service;
    }
    KEST_LOG_AS(caller, KEST_ERROR, 0, "Unknown service");
    return nullptr;
}

// The store is free again before the slow steps that follow.
bool storeStatus(const char* key, bool enable) {
    constexpr char kCaller[] = "EnableDisableServiceImpl";
    cfg::SystemCfgManager store;
    if (!store.init()) {
        KEST_LOG_AS(kCaller, KEST_ERROR, 0, "Failed init systemcfg");
        return false;
    }
    bool changed = false;
    if (store.set(key, enable ? 1 : 0, &changed) && (!changed || store.close(true, false))) {
        return true;
    }
    KEST_LOG_AS(kCaller, KEST_ERROR, 0, "Failed to change %s", key);
    return false;
}

bool EnableDisableServiceImpl(const char* name, bool enable) {
    const Service* service = findService(name, __func__);
    if (service == nullptr || !storeStatus(service->key, enable)) return false;
    return enable ? enableDaemon(service->daemon) : disableDaemon(service->daemon, true);
}

// Only the length of the program's name is compared; the name itself may stand further on.
bool isLineOf(std::string_view line, const std::string& daemon) {
    const size_t colon = line.rfind(':');
    if (colon == std::string_view::npos) return false;
    const std::string_view process = line.substr(colon + 1);
    const std::string_view program = process.substr(0, process.find(' '));
    const size_t base = program.rfind('/') + 1;  // npos + 1 is 0
    return program.size() - base == daemon.size() &&
           process.find(daemon, base) != std::string_view::npos;
}

std::string editTable(const std::string& table, const std::string& daemon, bool enable) {
    std::string edited;
    for (size_t start = 0; start < table.size();) {
        const size_t end = std::min(table.find('\n', start), table.size());
        std::string_view line(table.data() + start, end - start);
        start = end + 1;
        if (isLineOf(line, daemon)) {
            if (enable) line.remove_prefix(line.find_first_not_of('#'));
            if (!enable) edited += '#';
        }
        edited.append(line).append(1, '\n');
    }
    return edited;
}

bool fail(int error) {
    errno = error;
    return false;
}

// The whole table, or nothing: whoever gives a part of it to init stops the services in the rest.
bool readTable(std::string& table, struct stat& stats) {
    File file;
    if (!file.Initialize(kInittab, File::Read, detail::kSafeOpen)) return false;
    stats = file.Stats();
    if (!S_ISREG(stats.st_mode)) return fail(EINVAL);
    if (stats.st_size > kLargestTable) return fail(EFBIG);
    if (!file.ReadStringAll(table)) return false;
    return table.size() == static_cast<size_t>(stats.st_size) || fail(EAGAIN);
}

// The new table with the old one's mode and owner. Only one that is not there counts as empty: a
// lack of descriptors must not cost the device its services.
bool makeTable(detail::TempFile& temp, const std::string& daemon, bool enable) {
    if (!fileExists(kInittab, true)) return errno == ENOENT;
    std::string table;
    struct stat stats = {};
    return readTable(table, stats) && fchown(temp.fd(), stats.st_uid, stats.st_gid) == 0 &&
           temp.fill(editTable(table, daemon, enable), stats.st_mode & 07777);
}

bool inittabEnableDaemon(const std::string& daemon, bool enable) {
    if (daemon.empty()) {  // its lines would be comments
        KEST_LOG(KEST_ERROR, 0, "Invalid arguments");
        return fail(EINVAL);
    }
    static std::mutex oneAtATime;
    const std::lock_guard<std::mutex> lock(oneAtATime);
    detail::TempFile temp("/tmp/inittab-XXXXXX");
    if (!temp.valid()) {
        KEST_LOG(KEST_ERROR, errno, "Failed to create temp file");
        return false;
    }
    if (!makeTable(temp, daemon, enable) || !temp.replace(kInittab)) {
        KEST_LOG(KEST_ERROR, errno, "Failed to overwrite %s", kInittab);
        return false;
    }
    syncDir("/etc");
    if (kill(kInit, SIGHUP) != 0) {
        KEST_LOG(KEST_ERROR, errno, "Failed to send signal");
        return false;
    }
    return true;
}

}  // namespace

const std::vector<std::string>& ListServices() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> list;
        for (const Service& service : kServices)
            list.push_back(service.name);
        return list;
    }();
    return names;
}

bool EnableService(const char* service) {
    return EnableDisableServiceImpl(service, true);
}

bool EnableService(const std::string& service) {
    return EnableService(detail::cPath(service));
}

bool DisableService(const char* service) {
    return EnableDisableServiceImpl(service, false);
}

bool DisableService(const std::string& service) {
    return DisableService(detail::cPath(service));
}

bool ServiceStatus(const char* name, int& status) {
    const Service* service = findService(name, __func__);
    if (service == nullptr) return false;
    cfg::SystemCfgManager store;
    if (!store.init()) {
        KEST_LOG(KEST_ERROR, 0, "Failed to ini cfgMgr");
        return false;
    }
    int value = 0;
    bool missing = false;
    if (!store.get(service->key, &value, &missing)) {
        KEST_LOG(KEST_ERROR, 0, "Failed to get %s", service->key);
        return false;
    }
    if (missing) {
        KEST_LOG(KEST_ERROR, 0, "%s is missing", service->key);
        return false;
    }
    status = value;
    return true;
}

bool ServiceStatus(const std::string& service, int& status) {
    return ServiceStatus(detail::cPath(service), status);
}

bool enableDaemon(const std::string& daemon) {
    return inittabEnableDaemon(daemon, true);
}

bool disableDaemon(const std::string& daemon, bool killIt) {
    if (!inittabEnableDaemon(daemon, false)) {
        KEST_LOG(KEST_ERROR, errno, "Failed to disable daemon: %s", daemon.c_str());
        return false;
    }
    if (killIt && !kill_process_by_name(daemon, SIGTERM)) {
        KEST_LOG(KEST_ERROR, 0, "Failed to kill daemon process: %s", daemon.c_str());
        return false;
    }
    return true;
}

}  // namespace kest::utils
