#include <kest/utils/validation.h>

#include <clocale>

#include "support/clean_test.h"

using namespace kest::utils;
using namespace std::string_literals;
using ValidationTest = kest::test::CleanTest;
using testing::ElementsAre;

static const std::string uuid = "01234567-89ab-cdef-0123-456789abcdef", label(63, 'a');
static const std::string name = label + "." + label + "." + label + "." + std::string(54, 'a');
static const auto address = [](const std::string& value, bool silent) {
    return ipv4_address_valid(value, silent, value == "0.0.0.0");
};
static const struct {
    bool (*valid)(const std::string&, bool);
    std::vector<std::string> good, bad;
} kCases[] = {
    {psk_valid, {" chars~8", label + "a"}, {"7 chars", label + "ab", "tab\there", "12345678\n"}},
    {ssid_valid, {"a", "\n", std::string(32, '\xff')}, {"", std::string(33, 'a')}},
    {domain_name_valid, {"a.b", "x-1.a.museum", "a\\b.com", name + ".museum"}, {"host", "-a.com"}},
    {domain_name_valid, {label + ".com"}, {"a-.com", "a..com", "a.c0m", "a.museums", "a" + name}},
    {address, {"192.168.0.255", "01.02.03.04", "0.0.0.0"}, {"256.1.1.1", "1.2.3", "1.2.3.0004"}},
    {ipv4_netmask_valid, {"128.0.0.0", "254.0.0.0."}, {"0.0.0.0", "a 254.0.0.0", "255x0x0x0"}},
    {ipv4_netmask_valid, {"a 255.0.0.0", "255.255.255.0; a"}, {"255.255.255.255", "255.0.255.0"}},
    {uuid_valid, {uuid, "{" + uuid + "}"}, {"01234567-89AB-cdef-0123-456789abcdef", ""}},
    {username_valid, {"a", "a-", "z" + label}, {"", "9a", "-a", "aB", "z" + label + "9", "a\n"}},
};

TEST_F(ValidationTest, PatternsStandAsTheyAre) {
    for (const auto& c : kCases) {
        for (const std::string& value : c.good)
            EXPECT_TRUE(c.valid(value, false) && !c.valid(value + "\0; rm"s, true)) << value;
        EXPECT_THAT(kest::test::logTexts(), ElementsAre());
        for (const std::string& value : c.bad) {
            EXPECT_FALSE(c.valid(value, true) || c.valid(value, false)) << value;
            EXPECT_THAT(kest::test::logTexts(),
                        ElementsAre("Failed to match regex, pattern = " + value));
            kest::test::clearLog();
        }
    }
    EXPECT_FALSE(domain_name_valid("a" + name + ".museum", false));
    EXPECT_FALSE(address("0.0.0.0"s + '\0', true) || ipv4_address_valid("0.0.0.0", true, false));
    EXPECT_THAT(kest::test::logTexts(), ElementsAre());
    EXPECT_FALSE(ipv4_address_valid("0.0.0.0", false, false));
    EXPECT_THAT(kest::test::logTexts(), ElementsAre("IPv4 address is all-zeroes"));
}

TEST_F(ValidationTest, OneMegabyteInAnyLocale) {
    const std::pair<const char*, char> values[] = {{"C.UTF-8", '\xff'}, {"C", 'a'}};
    for (const auto& [locale, c] : values) {
        setlocale(LC_ALL, locale);
        for (const auto& check : kCases)
            EXPECT_FALSE(check.valid(std::string(1 << 20, c), true));
    }
}
