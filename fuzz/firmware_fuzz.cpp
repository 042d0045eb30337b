// The header of a firmware image. A file under /proc holds the input.
#include <kest/utils/file.h>
#include <kest/utils/firmware.h>

#include <string>

#include "support/fuzz.h"

void kest::fuzz::fuzz(std::string_view input) {
    setProcFiles(input);
    utils::File file;
    CHECK(file.Initialize("/proc/image", utils::File::Read));
    const std::string version = utils::ExtractFwVersion(file);
    CHECK(version.size() <= 128 && version.find('\0') == version.npos);

    utils::File again;
    CHECK(again.Initialize("/proc/image", utils::File::Read));
    CHECK(utils::IsThirdPartyFw(again) == (input.substr(0, 4) == "OPEN"));
}
