#include "sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <kest/utils/string_utils.h>

#include "c_path.h"
#include "digit.h"
#include "uninterrupted.h"
#include "unique_dir.h"

namespace kest::utils::detail {
namespace {

// Attributes that matter to us have one line.
constexpr size_t kLongestValue = 1024;
constexpr size_t kMostDevices = 1024;
constexpr double kLargestNumber = 1e12;

Answer byErrno() {
    switch (errno) {
        case ENOENT:
        case ENODEV:
        case ENXIO:
            return Answer::No;
        case EAGAIN:
        case ENODATA:
            return Answer::NotNow;
        default:
            return Answer::Failed;
    }
}

// device9 before device10.
bool comesBefore(const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

}  // namespace

Answer listDevices(const char* folder, const std::string& prefix, std::vector<std::string>& names) {
    names.clear();
    const UniqueDir dir(opendir(folder));
    if (dir == nullptr) return byErrno();
    while (names.size() < kMostDevices) {
        const dirent* entry = readdir(dir.get());
        if (entry == nullptr) break;
        std::string name = entry->d_name;
        if (isDots(*entry) || !startsWith(name, prefix)) continue;
        const auto place = std::upper_bound(names.begin(), names.end(), name, comesBefore);
        names.insert(place, std::move(name));
    }
    return Answer::Yes;
}

Answer openAttribute(const std::string& path, UniqueFd& fd) {
    fd.reset(open(cPath(path), O_RDONLY | kSafeOpen));
    return fd.valid() ? Answer::Yes : byErrno();
}

Answer readAttribute(const std::string& path, std::string& value) {
    UniqueFd fd;
    const Answer answer = openAttribute(path, fd);
    return answer == Answer::Yes ? readAttribute(fd.get(), value) : answer;
}

Answer readAttribute(int fd, std::string& value) {
    char text[kLongestValue];
    const ssize_t got = uninterrupted([&] { return pread(fd, text, sizeof(text), 0); });
    if (got < 0) return byErrno();
    value.assign(text, static_cast<size_t>(got));
    trim(value);
    return Answer::Yes;
}

bool parseDecimal(const std::string& text, double& value) {
    const bool negative = text[0] == '-';
    size_t at = negative || text[0] == '+' ? 1 : 0;
    double number = 0;
    double unit = 1;
    bool digits = false;
    bool fraction = false;
    for (; at < text.size(); ++at) {
        if (text[at] == '.' && !fraction) {
            fraction = true;
            continue;
        }
        if (!isDigit(text[at])) return false;
        digits = true;
        // Further digits would only cost what is exact so far.
        if (fraction && unit >= kLargestNumber) continue;
        number = number * 10 + (text[at] - '0');
        if (fraction) unit *= 10;
        if (number / unit > kLargestNumber) return false;
    }
    if (digits) value = (negative ? -number : number) / unit;
    return digits;
}

}  // namespace kest::utils::detail
