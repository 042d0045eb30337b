#include <kest/utils/firmware.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include <kest/utils/exec.h>

namespace kest::utils {
namespace {

constexpr char kUpdateTool[] = "/usr/bin/fwupdate";
constexpr char kThirdParty[] = {'O', 'P', 'E', 'N'};
constexpr size_t kVersionSize = 128;

}  // namespace

bool ValidateFwHdr(File& /*image*/) {
    return sysExecSimple(kUpdateTool, "-h") == 0;
}

bool ValidateFw(File& /*image*/) {
    return sysExecSimple(kUpdateTool, "-c") == 0;
}

bool IsThirdPartyFw(File& image) {
    unsigned char magic[sizeof(kThirdParty)];
    return image.ReadBuffer(magic, sizeof(magic)) && image.SeekBegin() &&
           memcmp(magic, kThirdParty, sizeof(magic)) == 0;
}

std::string ExtractFwVersion(File& image) {
    unsigned char field[kVersionSize];
    if (!image.ReadBuffer(field, sizeof(kThirdParty)) || !image.ReadBuffer(field, sizeof(field)) ||
        !image.SeekBegin())
        return {};
    // Not every image ends the text within its field.
    std::string version(std::begin(field), std::find(std::begin(field), std::end(field), '\0'));
    const size_t first = version.find('.');
    if (first == std::string::npos) return version;
    const size_t second = version.find('.', first + 1);
    if (second == std::string::npos || second + 1 == version.size()) return version;
    return version.erase(first, second - first);
}

}  // namespace kest::utils
