// Attributes of devices under /sys: small text files with one value each. Nothing here logs.
#pragma once

#include <string>
#include <vector>

#include "unique_fd.h"

namespace kest::utils::detail {

enum class Answer {
    Yes,
    No,      // there is no such device or attribute, or no more
    NotNow,  // the driver has no value at hand; errno says why
    Failed,  // errno says why
};

// Entries of a folder of devices whose names start with `prefix`, by length, then by alphabet.
Answer listDevices(const char* folder, const std::string& prefix, std::vector<std::string>& names);

Answer openAttribute(const std::string& path, UniqueFd& fd);

// Value of an attribute without white space around it; untouched unless the answer is Yes.
Answer readAttribute(const std::string& path, std::string& value);
// From an open attribute, which the kernel asks the device for anew.
Answer readAttribute(int fd, std::string& value);

// Digits with an optional sign and an optional decimal point, whatever the locale. Refuses numbers
// beyond a million millions either way, which no device has a use for; `value` is untouched then.
bool parseDecimal(const std::string& text, double& value);

}  // namespace kest::utils::detail
