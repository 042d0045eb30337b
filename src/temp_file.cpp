#include "temp_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kest::utils::detail {

TempFile::TempFile(std::string nameTemplate)
    : name_(std::move(nameTemplate)), fd_(mkostemp(name_.data(), O_CLOEXEC)) {
    if (!fd_.valid()) name_.clear();
}

TempFile::~TempFile() {
    const int savedErrno = errno;
    if (valid()) unlink(name_.c_str());
    errno = savedErrno;
}

bool TempFile::fill(const std::string& text, mode_t mode) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd(), text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) done += static_cast<size_t>(written);
    }
    return fchmod(fd(), mode) == 0 && fsync(fd()) == 0;
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
