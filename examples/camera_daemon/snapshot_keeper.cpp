#include "snapshot_keeper.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>

namespace {

constexpr char kPattern[] = "\\.jpg$";
constexpr char kSuffix[] = ".jpg";

const std::string& pathOf(const IRollingListItem* item) {
    return static_cast<const RollingListItemFile*>(item)->path();
}

}  // namespace

SnapshotList::SnapshotList(std::function<void(const std::string& path)> onDropped)
    : RollingFileList(false), onDropped_(std::move(onDropped)) {}

void SnapshotList::deleteFront() {
    if (count() == 0) return;
    const std::string oldest = pathOf(list().front());
    // A name that was used again belongs to the newer snapshot.
    const bool usedAgain =
        std::any_of(std::next(list().begin()), list().end(),
                    [&](const IRollingListItem* item) { return pathOf(item) == oldest; });
    if (!usedAgain) {
        unlink(oldest.c_str());
        onDropped_(oldest);
    }
    RollingFileList::deleteFront();
}

SnapshotKeeper::SnapshotKeeper(kest::utils::Scheduler& scheduler, OnEvent onEvent)
    : scheduler_(scheduler),
      onEvent_(std::move(onEvent)),
      snapshots_([this](const std::string& path) { onEvent_("dropped", path); }) {}

SnapshotKeeper::~SnapshotKeeper() {
    unwatch();
}

bool SnapshotKeeper::start(const Settings& settings) {
    folder_ = settings.folder;
    snapshots_.limitListSize(settings.mostFiles);
    snapshots_.limitItemMaxAge(settings.longestAgeMs);
    return watch();
}

bool SnapshotKeeper::watch() {
    // A snapshot counts when it is complete: closed after writing, or moved into the folder. A
    // folder that is moved away would be watched at its new place.
    const uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVE_SELF;
    const bool watching = listener_.start(folder_, kPattern, events, this);
    if (watching) {
        ioTask_ = scheduler_.AddIOTask(
            listener_.fd(), EPOLLIN, [this](int, int, void*) { return listener_.service(0); },
            nullptr);
    }
    if (ioTask_ == 0) {
        listener_.stop();
        return false;
    }
    // Only now, so that none slips through between the look and the watch.
    lookThrough();
    return true;
}

void SnapshotKeeper::unwatch() {
    if (ioTask_ == 0) return;
    scheduler_.RemoveIOTask(std::exchange(ioTask_, 0));
    listener_.stop();
}

void SnapshotKeeper::service() {
    snapshots_.service();
    if (ioTask_ == 0 && kest::utils::isDir(folder_)) watch();
}

// Snapshots of which no event tells: older ones, and those whose event was lost. The oldest first.
void SnapshotKeeper::lookThrough() {
    std::map<std::string, bool> entries;
    std::multimap<uint64_t, std::string> found;
    kest::utils::listFolder(folder_, entries, false);
    for (const auto& entry : entries) {
        const std::string path = folder_ + "/" + kest::utils::basename_safe(entry.first);
        uint64_t stamp = 0;
        if (kest::utils::endsWith(path, kSuffix) && kest::utils::isFile(path) && !isListed(path) &&
            kest::utils::lastModTime(path, stamp)) {
            found.emplace(stamp, path);
        }
    }
    for (const auto& snapshot : found)
        keep(snapshot.second);
}

bool SnapshotKeeper::isListed(const std::string& path) {
    return std::any_of(snapshots_.list().begin(), snapshots_.list().end(),
                       [&](const IRollingListItem* item) { return pathOf(item) == path; });
}

void SnapshotKeeper::keep(const std::string& path) {
    onEvent_("kept", path);
    snapshots_.append(path);
}

void SnapshotKeeper::onInodeEvent(const std::string& name, uint32_t mask) {
    if (!name.empty()) {
        keep(folder_ + "/" + name);
    } else if ((mask & IN_Q_OVERFLOW) != 0) {
        onEvent_("overflow", folder_);
        lookThrough();
    } else if ((mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
        onEvent_("gone", folder_);
        unwatch();
    }
}
