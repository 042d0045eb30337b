/// @file
/// Looks at a firmware image before it is installed. Two functions leave the judgement to the
/// system's update tool, two read the image's header (layout in docs/firmware.md).
///
/// They keep no state; a File belongs to one thread at a time.
#pragma once

#include <string>

#include <kest/utils/api.h>
#include <kest/utils/file.h>

namespace kest::utils {

/// @name Checks by the update tool
/// Run "/usr/bin/fwupdate" with "-h" for the header or "-c" for the whole image, and wait for its
/// end, however long it takes. The tool finds the image by itself: `image` is not looked at.
/// @return whether the tool exits with status 0. Logs one line when it cannot be run or is killed.
/// @{
KEST_API bool ValidateFwHdr(File& image);
KEST_API bool ValidateFw(File& image);
/// @}

/// Whether the image is a third party's: whether the next four bytes are "OPEN". The file has to
/// stand at its beginning, and stands there again when they could be read.
/// @return false also, after one log line, when the file cannot be read or set back.
KEST_API bool IsThirdPartyFw(File& image);

/// The version in the header without its second field: "A.B.v1.2.3" gives "A.v1.2.3". A text that
/// has nothing behind its first or second dot, or lacks them, comes as it is.
///
/// The file has to stand at its beginning, and stands there again on success.
/// @return at most 128 bytes of any value but 0; empty, after one log line, when the file ends
///         within the header or cannot be read or set back.
KEST_API std::string ExtractFwVersion(File& image);

}  // namespace kest::utils
