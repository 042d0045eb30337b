#include <kest/cfg/SystemCfgManager.h>

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <mutex>

#include "log.h"
#include "unique_fd.h"

namespace kest::cfg {
namespace {

constexpr char kDefaultPath[] = "/etc/kest/system.db";
constexpr int kBusyTimeoutMs = 5000;

// The value may be what another program put there.
constexpr char kCreate[] =
    "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL)";
constexpr char kGet[] = "SELECT value FROM settings WHERE key = ?1";
constexpr char kSet[] =
    "INSERT INTO settings(key, value) VALUES(?1, ?2)"
    " ON CONFLICT(key) DO UPDATE SET value = ?2 WHERE value IS NOT ?2";

std::string configuredPath() {
    const char* const configured = getenv("KEST_SYSTEM_CFG");
    return configured == nullptr ? kDefaultPath : configured;
}

// Settings are nobody else's business; SQLite would make a file that everybody reads. Touches no
// file that is there: to close a descriptor of it is to give up this process's locks on it.
void createPrivately(const std::string& path) {
    utils::detail::UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

}  // namespace

// A prepared statement with the key bound.
class SystemCfgManager::Statement {
  public:
    Statement(sqlite3* database, const char* sql, const std::string& key) {
        if (sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr) != SQLITE_OK) return;
        sqlite3_bind_text64(statement_, 1, key.data(), key.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bindValue(int value) { sqlite3_bind_int(statement_, 2, value); }

    // SQLITE_ROW, SQLITE_DONE, or an error, also that of the preparation.
    int step() { return sqlite3_step(statement_); }

    // The row's value; false when it is no int.
    bool read(int* value) {
        const sqlite3_int64 stored = sqlite3_column_int64(statement_, 0);
        if (sqlite3_column_type(statement_, 0) != SQLITE_INTEGER || stored < INT_MIN ||
            stored > INT_MAX) {
            return false;
        }
        if (value != nullptr) *value = static_cast<int>(stored);
        return true;
    }

  private:
    sqlite3_stmt* statement_ = nullptr;
};

void SystemCfgManager::CloseDatabase::operator()(sqlite3* database) const {
    sqlite3_close(database);
}

SystemCfgManager::SystemCfgManager() = default;

SystemCfgManager::~SystemCfgManager() {
    if (owner_ != getpid()) {
        // To close it here would roll the parent's transaction back.
        (void)database_.release();
        return;
    }
    if (database_ != nullptr) close(false, false);
}

void SystemCfgManager::fail(const char* caller, const char* what) const {
    KEST_LOG_AS(caller, KEST_ERROR, sqlite3_system_errno(database_.get()), "%s %s: %s", what,
                path_.c_str(), sqlite3_errmsg(database_.get()));
}

bool SystemCfgManager::ready(const char* caller) const {
    // SQLite ends the transaction by itself after some failures; what came then would not be
    // undone.
    if (database_ != nullptr && owner_ == getpid() &&
        sqlite3_get_autocommit(database_.get()) == 0) {
        return true;
    }
    KEST_LOG_AS(caller, KEST_ERROR, 0, "The configuration store is not open");
    return false;
}

bool SystemCfgManager::execute(const char* sql) {
    return sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool SystemCfgManager::open() {
    // No other thread may have the new file open, and locked, before its first descriptor is
    // closed.
    static std::mutex creating;
    const std::lock_guard<std::mutex> guard(creating);
    createPrivately(path_);
    sqlite3* opened = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(path_.c_str(), &opened, flags, nullptr);
    database_.reset(opened);
    return result == SQLITE_OK && sqlite3_busy_timeout(opened, kBusyTimeoutMs) == SQLITE_OK;
}

bool SystemCfgManager::begin() {
    // Extra: after a power failure the folder, too, must say that the transaction is over.
    if (!execute("PRAGMA synchronous = EXTRA")) return false;
    // A store that cannot be written can be read all the same.
    if (sqlite3_db_readonly(database_.get(), "main") == 1)
        return execute("BEGIN; SELECT count(*) FROM settings");
    // At once for writing: of two who have read, only one could go on to write.
    return execute("BEGIN IMMEDIATE") && execute(kCreate);
}

bool SystemCfgManager::init() {
    if (owner_ != getpid()) {
        (void)database_.release();
        owner_ = getpid();
    }
    database_.reset();
    path_ = configuredPath();
    if (path_.empty() || path_[0] != '/') {
        KEST_LOG(KEST_ERROR, 0, "The path of the configuration store is not absolute: %s",
                 path_.c_str());
        return false;
    }
    if (open() && begin()) return true;
    fail("init", "Failed to open");
    database_.reset();
    return false;
}

bool SystemCfgManager::get(const std::string& key, int* value, bool* missing) {
    if (!ready(__func__)) return false;
    Statement statement(database_.get(), kGet, key);
    const int result = statement.step();
    if (result == SQLITE_ROW && !statement.read(value)) {
        KEST_LOG(KEST_ERROR, 0, "%s in %s is no int", key.c_str(), path_.c_str());
        return false;
    }
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        fail(__func__, "Failed to read");
        return false;
    }
    if (missing != nullptr) *missing = result == SQLITE_DONE;
    return true;
}

bool SystemCfgManager::set(const std::string& key, int value, bool* changed) {
    if (!ready(__func__)) return false;
    Statement statement(database_.get(), kSet, key);
    statement.bindValue(value);
    const int result = statement.step();
    if (result != SQLITE_DONE) {
        fail(__func__, "Failed to write");
        return false;
    }
    if (changed != nullptr) *changed = sqlite3_changes(database_.get()) > 0;
    return true;
}

bool SystemCfgManager::close(bool commit, bool /*reserved*/) {
    if (!ready(__func__)) return false;
    const bool kept = !commit || execute("COMMIT");
    if (!kept) fail(__func__, "Failed to write");
    // Rolls back what is not committed.
    database_.reset();
    return kept;
}

}  // namespace kest::cfg
