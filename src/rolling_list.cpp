#include <kest/utils/rolling_list.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

IRollingListItem::~IRollingListItem() = default;

RollingListItemFile::RollingListItemFile(const std::string& path, bool deleteOnDestroy)
    : RollingListItemFile(path, static_cast<uint64_t>(nowMs()), deleteOnDestroy) {}

RollingListItemFile::RollingListItemFile(const std::string& path, uint64_t timestamp,
                                         bool deleteOnDestroy)
    : path_(path), timestamp_(timestamp), deleteOnDestroy_(deleteOnDestroy) {}

RollingListItemFile::~RollingListItemFile() {
    if (deleteOnDestroy_) unlink(path_.c_str());
}

uint64_t RollingListItemFile::age() const {
    return timestamp_;
}

RollingList::~RollingList() {
    RollingList::clear();
}

void RollingList::limitListSize(int n) {
    maxSize_ = n;
}

void RollingList::limitItemMaxAge(int ms) {
    if (minAge_ == 0 || minAge_ <= ms) maxAge_ = ms;
}

void RollingList::limitItemMinAge(int ms) {
    if (maxAge_ == 0 || maxAge_ >= ms) minAge_ = ms;
}

// Whether the item came into being within the last `ms` milliseconds, or in the future.
bool RollingList::isYounger(const IRollingListItem& item, int ms) const {
    const int64_t limit = nowMs() - ms;
    // Just after boot the limit lies before the clock's beginning: nothing is that old.
    return limit <= 0 || item.age() >= static_cast<uint64_t>(limit);
}

bool RollingList::service() {
    while (maxSize_ != 0 && count_ > 0 && count_ > maxSize_) {
        if (minAge_ != 0 && isYounger(*items_.front(), minAge_)) break;
        deleteFront();
    }
    while (maxAge_ != 0 && count_ > 0 && !isYounger(*items_.front(), maxAge_))
        deleteFront();
    return true;
}

int RollingList::count() const {
    return count_;
}

std::list<IRollingListItem*>& RollingList::list() {
    return items_;
}

void RollingList::deleteFront() {
    if (count_ == 0) return;
    // Out of the list before its destructor runs, which may call back.
    const std::unique_ptr<IRollingListItem> oldest(items_.front());
    items_.pop_front();
    --count_;
}

void RollingList::clear() {
    while (count_ > 0) {
        // The destructor means our own. NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
        deleteFront();
    }
}

bool RollingList::append(IRollingListItem* item) {
    if (item == nullptr) return false;
    std::unique_ptr<IRollingListItem> owner(item);
    items_.push_back(item);
    static_cast<void>(owner.release());
    ++count_;
    return service();
}

RollingFileList::RollingFileList(bool deleteFiles) : deleteFiles_(deleteFiles) {}

bool RollingFileList::append(const std::string& path) {
    return append(new RollingListItemFile(path, deleteFiles_));
}

namespace {

// The text with its shell pattern characters made ordinary.
std::string literally(const std::string& text) {
    std::string pattern;
    for (const char c : text) {
        if (c == '*' || c == '?' || c == '[' || c == '\\' || c == '~') pattern += '\\';
        pattern += c;
    }
    return pattern;
}

}  // namespace

ResourceFilenameRoller::ResourceFilenameRoller(std::string folder, std::string prefix,
                                               std::string suffix, unsigned limit)
    : folder_(std::move(folder)),
      prefix_(std::move(prefix)),
      suffix_(std::move(suffix)),
      limit_(std::max(limit, 1U)) {}

std::string ResourceFilenameRoller::filename(unsigned number) const {
    const auto width = static_cast<int>(std::to_string(limit_ - 1).size());
    return prefix_ + kest::utils::format("%0*u", width, number) + suffix_;
}

std::string ResourceFilenameRoller::path(const std::string& name) const {
    if (folder_.empty()) return name;
    return folder_.back() == '/' ? folder_ + name : folder_ + "/" + name;
}

std::string ResourceFilenameRoller::getFilename() const {
    return filename(number_);
}

std::string ResourceFilenameRoller::getPath() const {
    return path(getFilename());
}

void ResourceFilenameRoller::incrementFilename() {
    number_ = (number_ + 1) % limit_;
}

// A pattern cannot say "digits only" or "below the limit"; the name itself can.
bool ResourceFilenameRoller::isOurs(const std::string& entry) const {
    const std::string digits = entry.substr(path(prefix_).size());
    const unsigned long long number = strtoull(digits.c_str(), nullptr, 10);
    return number < limit_ && entry == path(filename(static_cast<unsigned>(number)));
}

int ResourceFilenameRoller::cleanCwd() {
    number_ = 0;
    std::vector<std::string> found;
    kest::utils::glob(literally(path(prefix_)).append("[0-9]*").append(literally(suffix_)).c_str(),
                      found);
    int removed = 0;
    int error = 0;
    for (const std::string& entry : found) {
        if (!isOurs(entry)) continue;
        if (unlink(entry.c_str()) == 0) {
            ++removed;
        } else if (errno != ENOENT) {
            error = errno;
        }
    }
    if (error == 0) return removed;
    errno = error;
    return -1;
}
