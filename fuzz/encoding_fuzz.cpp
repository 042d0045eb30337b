// base64 and hexadecimal text, and the checks of settings.
#include <kest/utils/hash.h>
#include <kest/utils/validation.h>

#include <string>
#include <vector>

#include "support/fuzz.h"

namespace kest::fuzz {
namespace {

using Bytes = std::vector<unsigned char>;
using Coder = unsigned int (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int&);

// Room is asked for first, and is exactly that: a byte more is found.
Bytes code(Coder coder, const Bytes& in) {
    unsigned int room = 0;
    CHECK(coder(in.data(), static_cast<unsigned>(in.size()), nullptr, room) == 0);
    Bytes out(room);
    out.resize(coder(in.data(), static_cast<unsigned>(in.size()), out.data(), room));
    return out;
}

void checkSettings(const std::string& value) {
    using namespace utils;
    const bool cut = value.find('\0') != value.npos;
    const bool results[] = {
        psk_valid(value, false),          ssid_valid(value, false),
        domain_name_valid(value, false),  ipv4_address_valid(value, false, true),
        ipv4_netmask_valid(value, false), uuid_valid(value, false),
        username_valid(value, false)};
    for (const bool valid : results)
        CHECK(!valid || !cut);
    CHECK(!ipv4_address_valid(value, true, false) || results[3]);
}

}  // namespace

void fuzz(std::string_view input) {
    const Bytes bytes(input.begin(), input.end());
    CHECK(code(utils::unb64, code(utils::b64, bytes)) == bytes);
    CHECK(code(utils::unb64, bytes).size() <= bytes.size() / 4 * 3);
    const auto size = static_cast<unsigned>(bytes.size());
    CHECK(utils::bin2hex(bytes.data(), size, "", '0').size() == 2 * bytes.size());
    CHECK(utils::hex2bin(std::string(input)).empty());
    checkSettings(std::string(input));
}

}  // namespace kest::fuzz
