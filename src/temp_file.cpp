#include "temp_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "keep_errno.h"
#include "uninterrupted.h"

namespace kest::utils::detail {

TempFile::TempFile(std::string nameTemplate)
    : name_(std::move(nameTemplate)), fd_(mkostemp(name_.data(), O_CLOEXEC)) {
    if (!fd_.valid()) name_.clear();
}

TempFile::~TempFile() {
    const KeepErrno keep;
    if (valid()) unlink(name_.c_str());
}

bool TempFile::fill(const std::string& text, mode_t mode) {
    return writeAll(fd(), text.data(), text.size()) && fchmod(fd(), mode) == 0 && fsync(fd()) == 0;
}

bool TempFile::becomeLinkTo(const std::string& target) {
    fd_.reset();
    unlink(name_.c_str());
    return symlink(target.c_str(), name_.c_str()) == 0;
}

bool TempFile::replace(const char* target) {
    if (rename(name_.c_str(), target) != 0) return false;
    name_.clear();
    return true;
}

}  // namespace kest::utils::detail
