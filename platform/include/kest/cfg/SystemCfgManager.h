/// @file
/// The configuration store that all daemons of a device share. An object belongs to one thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include <kest/platform/api.h>

struct sqlite3;

namespace kest::cfg {

/// One look at the store, or one change of it: a transaction from init() to close().
///
/// @code
///     kest::cfg::SystemCfgManager store;
///     bool changed = false;
///     if (!store.init() || !store.set("sshd.status", 1, &changed)) return false;
///     if (changed) return store.close(true, false);
/// @endcode
///
/// Values are integers, keys are any strings. Others wait in init() while one has the store open,
/// so an object lives shortly. The default keeps the store in an SQLite database,
/// "/etc/kest/system.db" unless the environment variable `KEST_SYSTEM_CFG` names another absolute
/// path.
///
/// Every failure gives false and one log line. A change is either in the store for good, once
/// close() has returned true, or not at all, whatever happens to process, disk or power. In a child
/// made by `fork` an object of the parent fails and leaves the store alone.
class KEST_PLATFORM_API SystemCfgManager {
  public:
    SystemCfgManager();

    /// close(false, false)
    ~SystemCfgManager();

    SystemCfgManager(const SystemCfgManager&) = delete;
    SystemCfgManager& operator=(const SystemCfgManager&) = delete;

    /// Opens the store, makes it if it is missing (for its owner alone; not its folder), and
    /// begins. Waits up to 5 seconds for another who has it open. What had been begun is dropped.
    bool init();

    /// Reads a value.
    /// @param value    receives it; unchanged on failure and when the key is missing. May be null.
    /// @param missing  receives whether there is no such key, which is no failure; unchanged on
    ///                 failure. May be null.
    /// @return false also when the store holds something that is no `int`.
    bool get(const std::string& key, int* value, bool* missing);

    /// Sets a value; in force when close() commits.
    /// @param changed  receives whether the store held another value or none; unchanged on failure.
    ///                 May be null.
    bool set(const std::string& key, int value, bool* changed);

    /// Ends the transaction.
    /// @param commit   whether to keep what was set.
    /// @param reserved has no meaning; false.
    /// @return false when nothing was begun or when the store could not be written, in which case
    /// it
    ///         is as it was before init().
    bool close(bool commit, bool reserved);

  private:
    struct KEST_PLATFORM_LOCAL CloseDatabase {
        void operator()(sqlite3* database) const;
    };
    class KEST_PLATFORM_LOCAL Statement;

    KEST_PLATFORM_LOCAL bool open();
    KEST_PLATFORM_LOCAL bool begin();
    KEST_PLATFORM_LOCAL bool execute(const char* sql);
    KEST_PLATFORM_LOCAL bool ready(const char* caller) const;
    KEST_PLATFORM_LOCAL void fail(const char* caller, const char* what) const;

    std::string path_;
    std::unique_ptr<sqlite3, CloseDatabase> database_;
    pid_t owner_ = 0;
};

}  // namespace kest::cfg
