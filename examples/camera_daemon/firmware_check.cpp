#include "firmware_check.h"

#include <algorithm>

#include <kest/utils/file.h>
#include <kest/utils/fileutils.h>
#include <kest/utils/firmware.h>

using kest::utils::File;

std::string checkFirmware(const std::string& path) {
    File image;
    // A FIFO would be opened only when somebody writes to it.
    if (!kest::utils::isFile(path) || !image.Initialize(path, File::Read))
        return "firmware missing";
    if (kest::utils::IsThirdPartyFw(image)) return "firmware refused: not the maker's";
    // The cheap look comes first. The tool finds the image by itself.
    std::string version = kest::utils::ExtractFwVersion(image);
    if (version.empty()) return "firmware refused: no version";
    if (!kest::utils::ValidateFwHdr(image)) return "firmware refused: bad header";
    if (!kest::utils::ValidateFw(image)) return "firmware refused: damaged";
    // The version goes to logs and terminals, and an image may hold any bytes.
    std::replace_if(
        version.begin(), version.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return "firmware good, version " + version;
}
