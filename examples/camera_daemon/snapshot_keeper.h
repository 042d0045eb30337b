// Watches a folder for new snapshots and keeps the newest of them, also of those that are there
// when it starts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <kest/utils/inode_listener.h>
#include <kest/utils/rolling_list.h>
#include <kest/utils/scheduler.h>

// Removes the file of what it drops and tells about it, unless a newer snapshot has that name.
// Files that are still listed at the end stay.
class SnapshotList : public RollingFileList {
  public:
    explicit SnapshotList(std::function<void(const std::string& path)> onDropped);
    void deleteFront() override;

  private:
    std::function<void(const std::string& path)> onDropped_;
};

class SnapshotKeeper : private kest::utils::IInodeNotifier {
  public:
    using OnEvent = std::function<void(const char* what, const std::string& path)>;

    struct Settings {
        std::string folder;
        int mostFiles = 100;
        int longestAgeMs = 24 * 3600 * 1000;
    };

    SnapshotKeeper(kest::utils::Scheduler& scheduler, OnEvent onEvent);
    ~SnapshotKeeper() override;
    SnapshotKeeper(const SnapshotKeeper&) = delete;
    SnapshotKeeper& operator=(const SnapshotKeeper&) = delete;

    bool start(const Settings& settings);

    // Drops what has grown too old meanwhile, and looks whether a folder that was removed is back.
    // Call it now and then.
    void service();

  private:
    void onInodeEvent(const std::string& name, uint32_t mask) override;
    bool watch();
    void unwatch();
    void lookThrough();
    bool isListed(const std::string& path);
    void keep(const std::string& path);

    kest::utils::Scheduler& scheduler_;
    const OnEvent onEvent_;
    std::string folder_;
    kest::utils::InodeListener listener_;
    SnapshotList snapshots_;
    unsigned long long ioTask_ = 0;
};
