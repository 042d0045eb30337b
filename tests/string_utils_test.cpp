#include <kest/utils/string_utils.h>

#include <cstdio>
#include <random>

#include <kest/platform/log.h>

#include "support/clean_test.h"

using namespace kest::utils;
using namespace std::string_literals;
using Strings = std::vector<std::string>;
using StringUtilsTest = kest::test::CleanTest;

// Takes the platform's place: the deliberate crash that comes back.
static int crashes = 0;
extern "C" void forceCrash() {
    ++crashes;
}

TEST_F(StringUtilsTest, FormatHasNoLimitAndSurvivesItsOwnFailure) {
    EXPECT_EQ(std::string(99998, '0') + "7\0x"s, format("%0*d%cx", 99999, 7, 0));
    crashes = 0;
    const char* none = nullptr;
    // The C locale lacks the euro sign.
    EXPECT_EQ("", format(none, 1) + format("%ls", L"\x20ac"));
    EXPECT_TRUE(crashes == 2 && kest::test::logTexts() == Strings(2, "Invalid state"));
}

TEST_F(StringUtilsTest, EditsAndCompares) {
    std::string s = " \t\v\0x\f\r\n "s;
    EXPECT_TRUE(&trim(s) == &s && s == "\v\0x\f"s);
    EXPECT_EQ("", lTrim(s = " \t\r\n") + rTrim(s = " \t\r\n"));
    EXPECT_EQ("AZ\xe4{az\xe4[", upperCase("aZ\xe4{") + lowerCase("aZ\xe4["));
    replaceAll(s = "aaac", "aa", "aab");
    replaceAll(s, "", "x");
    EXPECT_EQ("aabac", s);
    EXPECT_TRUE(startsWith(s, s) && startsWith(s, "") && !startsWith(s, s + "x"));
    EXPECT_TRUE(endsWith(s, "ac") && endsWith("", "") && !endsWith(s, "x" + s));
    EXPECT_EQ("127.0.0.9", getHostByName("127.0.0.9") + getHostByName("a b") + getHostByName(""));
}

TEST_F(StringUtilsTest, CutsAndJoinsOverItsOwnInput) {
    Strings out = {"a,:::b::"};
    split(out[0], "::", out);
    EXPECT_EQ((Strings{"a,", ":b", ""}), out);
    split(out[2], ":", out);
    split(out.at(0) += ":b", "", out);
    EXPECT_EQ(Strings{":b"}, out);
    tokenize(out[0] = "a,::b:", out, ":", true);
    tokenize(out[0], out, ",:", false);
    join(out[0], "|", out);
    EXPECT_EQ("a,::b:|a,|b|a|||b|", out[0]);
    join(out[0], out[1], 4, "a", "b", nullptr, "c");
    EXPECT_EQ("aa,b", out[0]);
}

TEST_F(StringUtilsTest, ShellTakesAnEscapedArgumentByteForByte) {
    std::mt19937 random(1);
    std::string word(100000, '\0'), told(2 * word.size(), '\0');
    for (char& c : word)
        c = static_cast<char>(1 + random() % 255);
    const std::string quoted = escapeShellArg(nullptr) + ' ' + escapeShellArg(word + "\0cut"s);
    FILE* pipe = popen(("printf '<%s>' " + quoted).c_str(), "r");
    told.resize(fread(told.data(), 1, told.size(), pipe));
    EXPECT_TRUE(pclose(pipe) == 0 && "<><" + word + ">" == told);
}

TEST_F(StringUtilsTest, Utf32KeepsEveryCharacterAndNamesWhatIsNoUtf8) {
    std::vector<uint32_t> out, expected = {'x', 0, 0xe9, 0x20ac, 0x1f600};
    ASSERT_TRUE(utf8_to_utf32(std::string(1 << 20, 'x') + "\0\u00e9\u20ac\U0001f600"s, out));
    EXPECT_EQ(expected, std::vector<uint32_t>(out.end() - 5, out.end()));
    EXPECT_TRUE(utf8_to_utf32("", out) && out.size() <= 1);
    for (const std::string bad : {"\xc3", "a\xe2\x82", "\xed\xa0\x80", "\xc0\xaf", "\x80"}) {
        EXPECT_TRUE(!utf8_to_utf32(bad, out) && out.size() == bad.size() + 1);
        EXPECT_EQ("Failed to convert UTF-8 to UTF-32, input:" + bad, kest::test::logTexts().back());
    }
}
