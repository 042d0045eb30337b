#include <kest/utils/validation.h>

#include <regex.h>

#include <cstddef>
#include <string>

#include "log.h"

namespace kest::utils {
namespace {

// Within brackets a backslash is a character like any other, and anchors bind to one alternative:
// what these accept is settled, surprises included.
constexpr char kPsk[] = R"(^[ -~]{8,64}$)";
constexpr char kSsid[] = R"(^.{1,32}$)";
constexpr char kDomainName[] =
    R"(^([a-zA-Z0-9]([a-zA-Z0-9\-]{0,61}[a-zA-Z0-9])?\.)+[a-zA-Z]{1,6}$)";
constexpr char kIpv4Address[] =
    R"(^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)";
constexpr char kIpv4Netmask[] = R"(^(254|252|248|240|224|192|128)\.0\.0\.0)"
                                R"(|255\.(254|252|248|240|224|192|128|0)\.0\.0)"
                                R"(|255\.255\.(254|252|248|240|224|192|128|0)\.0)"
                                R"(|255\.255\.255\.(254|252|248|240|224|192|128|0))";
constexpr char kUuid[] = R"([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})";
constexpr char kUsername[] = R"(^[a-z][-a-z0-9]{0,63}$)";

constexpr size_t kLongestDomainName = 253;

bool is_valid(const char* pattern, const std::string& value, bool silent) {
    regex_t compiled;
    if (regcomp(&compiled, pattern, REG_EXTENDED | REG_NOSUB) != 0) return false;
    // regexec stops at a NUL: what follows would pass unseen.
    const bool matches = value.find('\0') == std::string::npos &&
                         regexec(&compiled, value.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    // The value, although the text says pattern: that is what one looks for in a log.
    if (!matches && !silent)
        KEST_LOG(KEST_ERROR, 0, "Failed to match regex, pattern = %s", value.c_str());
    return matches;
}

}  // namespace

bool psk_valid(const std::string& value, bool silent) {
    return is_valid(kPsk, value, silent);
}

bool ssid_valid(const std::string& value, bool silent) {
    return is_valid(kSsid, value, silent);
}

bool domain_name_valid(const std::string& value, bool silent) {
    return value.size() <= kLongestDomainName && is_valid(kDomainName, value, silent);
}

bool ipv4_address_valid(const std::string& value, bool silent, bool allowAllZeroes) {
    if (!allowAllZeroes && value == "0.0.0.0") {
        if (!silent) KEST_LOG(KEST_ERROR, 0, "IPv4 address is all-zeroes");
        return false;
    }
    return is_valid(kIpv4Address, value, silent);
}

bool ipv4_netmask_valid(const std::string& value, bool silent) {
    return is_valid(kIpv4Netmask, value, silent);
}

bool uuid_valid(const std::string& value, bool silent) {
    return is_valid(kUuid, value, silent);
}

bool username_valid(const std::string& value, bool silent) {
    return is_valid(kUsername, value, silent);
}

}  // namespace kest::utils
