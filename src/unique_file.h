// Owner of one stream of the C library.
#pragma once

#include <cstdio>
#include <memory>

#include "unique_fd.h"

namespace kest::utils::detail {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, CloseFile>;

// A stream to read from, the new owner of the descriptor; null, with errno, when there is none.
inline UniqueFile streamOf(UniqueFd fd) {
    UniqueFile file(fdopen(fd.get(), "r"));
    if (file != nullptr) fd.release();
    return file;
}

}  // namespace kest::utils::detail
