// A new file that is to take another one's place, removed again unless it has done so.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace kest::utils::detail {

class TempFile {
  public:
    // A path whose last six letters are "XXXXXX". The file is its owner's alone at first.
    explicit TempFile(std::string nameTemplate);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    bool valid() const { return !name_.empty(); }
    int fd() const { return fd_.get(); }

    // Content and mode, on the disk before the name is: a power failure must not leave an empty
    // file in the target's place. The functions give false with errno.
    bool fill(const std::string& text, mode_t mode);

    // Leaves the name, which was unique a moment ago, to a link.
    bool becomeLinkTo(const std::string& target);

    bool replace(const char* target);

  private:
    std::string name_;
    UniqueFd fd_;
};

}  // namespace kest::utils::detail
