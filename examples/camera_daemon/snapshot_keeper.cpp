#include "snapshot_keeper.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

SnapshotList::SnapshotList(std::function<void(const std::string& path)> onDropped)
    : RollingFileList(false), onDropped_(std::move(onDropped)) {}

void SnapshotList::deleteFront() {
    if (count() == 0) return;
    const auto pathOf = [](const IRollingListItem* item) {
        return static_cast<const RollingListItemFile*>(item)->path();
    };
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
    if (ioTask_ != 0) scheduler_.RemoveIOTask(ioTask_);
}

bool SnapshotKeeper::start(const Settings& settings) {
    folder_ = settings.folder;
    snapshots_.limitListSize(settings.mostFiles);
    snapshots_.limitItemMaxAge(settings.longestAgeMs);
    // A snapshot counts when it is complete: closed after writing, or moved into the folder.
    if (!listener_.start(folder_, "\\.jpg$", IN_CLOSE_WRITE | IN_MOVED_TO, this)) return false;
    ioTask_ = scheduler_.AddIOTask(
        listener_.fd(), EPOLLIN, [this](int, int, void*) { return listener_.service(0); }, nullptr);
    return ioTask_ != 0;
}

void SnapshotKeeper::service() {
    snapshots_.service();
}

void SnapshotKeeper::onInodeEvent(const std::string& name, uint32_t /*mask*/) {
    if (name.empty()) return;
    const std::string path = folder_ + "/" + name;
    onEvent_("kept", path);
    snapshots_.append(path);
}
