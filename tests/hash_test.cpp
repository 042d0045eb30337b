#include <kest/utils/hash.h>

#include <openssl/evp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <future>

#include "support/clean_test.h"
#include "support/limited.h"

using namespace kest::utils;
using namespace std::string_literals;
using HashTest = kest::test::CleanTest;
using testing::ElementsAre, testing::MatchesRegex;

// In place of the real ones: what reads give, what time it is.
static std::vector<long> reads;
static long nanoseconds = 0;

extern "C" ssize_t read(int fd, void* buffer, size_t length) {
    if (reads.empty()) return syscall(SYS_read, fd, buffer, length);
    const long result = reads.front();
    reads.erase(reads.begin());
    if (result > 0) memset(buffer, static_cast<int>(result), static_cast<size_t>(result));
    errno = static_cast<int>(-result);
    return std::max(result, -1L);
}
extern "C" int clock_gettime(clockid_t /*clock*/, timespec* now) noexcept {
    return *now = {7, nanoseconds++}, 0;
}

static unsigned char* bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

// In room of exactly the size that the function asks for, behind which nothing may change.
static std::string convert(decltype(b64)* function, std::string in) {
    const auto length = static_cast<unsigned>(in.size());
    unsigned room = 0;
    EXPECT_EQ(0u, function(bytes(in), length, nullptr, room));
    std::vector<unsigned char> out(room--, 0xee);
    EXPECT_TRUE(function(bytes(in), length, out.data(), room) == 0 && room == out.size());
    const unsigned written = function(bytes(in), length, out.data(), room);
    EXPECT_TRUE(written == 0 || written == out.size() || out[written] == 0xee);
    return std::string(out.begin(), out.begin() + written);
}

TEST_F(HashTest, Base64AgreesWithItsPeerAtEveryLength) {
    for (unsigned length = 1; length < 200; ++length) {
        std::string in(length, '\0'), peer(length * 2 + 8, '\0');
        ASSERT_TRUE(randomBytes(bytes(in), length));
        const int peers = EVP_EncodeBlock(bytes(peer), bytes(in), static_cast<int>(length));
        ASSERT_EQ(peer.substr(0, static_cast<size_t>(peers)), convert(b64, in));
        ASSERT_EQ(in, convert(unb64, convert(b64, in)));
    }
}

TEST_F(HashTest, PaddingAndForeignBytesInEveryPlace) {
    const std::string good = "TWFuTWFu";
    for (size_t at = 0; at < 9; at += 4) {
        const auto decoded = [&](const std::string& text) {
            return convert(unb64, good.substr(at) + text).substr((8 - at) / 4 * 3);
        };
        EXPECT_EQ("MMaM", decoded("TQ==") + decoded("TWE=TWFu") + decoded("TQ=x!!!!"));
        EXPECT_EQ("\xf8\x03\xe0", decoded("=A==") + decoded("A=A="));
        for (unsigned i = 0; i < 4 * 256; ++i) {
            const auto c = static_cast<char>(i / 4);
            const bool fine = strchr("=+/", c) != nullptr ? c != 0 : i < 512 && isalnum(c);
            const std::string text = std::string("TQQQ").replace(i % 4, 1, 1, c);
            EXPECT_NE(fine, convert(unb64, good.substr(at) + text + good).empty()) << text;
        }
    }
}

TEST_F(HashTest, SizesDoNotWrap) {
    unsigned char in = 'x';
    unsigned room = 77;
    for (const unsigned length : {0u, 3221225470u, UINT_MAX})
        EXPECT_EQ(0u, b64(&in, length, nullptr, room) + unb64(&in, length | 1, nullptr, room));
    EXPECT_EQ(0u,
              b64(nullptr, 3, &in, room) + unb64(nullptr, 4, &in, room) + unb64(&in, 0, &in, room));
    EXPECT_EQ(77u, room);
    EXPECT_TRUE(b64(&in, 3221225469, nullptr, room) == 0 && room == UINT_MAX - 3);
    EXPECT_TRUE(unb64(&in, UINT_MAX - 3, nullptr, room) == 0 && room == 3221225469);
}

TEST_F(HashTest, HexadecimalAndMd5) {
    const unsigned char data[] = {0x0a, 0xff, 0x00, 0x10};
    EXPECT_EQ("0a:ff:00:10 a, ff,  0", bin2hex(data, 4, ":", '0') + bin2hex(data, 3, ", ", ' '));
    EXPECT_EQ("", bin2hex(data, 0, ":", '0') + bin2hex(nullptr, UINT_MAX, ":", '0'));
    EXPECT_TRUE(hex2bin("0a0b").empty() && hex2bin("0a0b").capacity() >= 3 && hex2bin("").empty());
    unsigned char digest[16];
    const char* none = nullptr;
    std::string text;
    EXPECT_TRUE(MD5("message digest", 14, digest) && bin2Hex(digest, 16, text));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", text);
    EXPECT_FALSE(!MD5(none, 0, digest) || MD5(none, 1, digest) || MD5("", 0, nullptr));
    EXPECT_THAT(kest::test::logTexts(),
                ElementsAre("Failed to compute MD5", "Failed to get MD5 hash"));
}

TEST_F(HashTest, RandomBytesComeInPiecesOrNotAtAll) {
    unsigned char buffer[8] = {};
    reads = {3, -EINTR, 2, 3};
    EXPECT_TRUE(randomBytes(buffer, 8));
    EXPECT_THAT(buffer, ElementsAre(3, 3, 3, 2, 2, 3, 3, 3));
    EXPECT_FALSE((reads = {3, 0}, randomBytes(buffer, 8)) ||
                 (reads = {-EIO}, randomBytes(buffer, 8)));
    const kest::test::Limited noDescriptors(RLIMIT_NOFILE, 0);
    EXPECT_FALSE(randomBytes(buffer, 8) || randomBytes(nullptr, 8) || randomBytes(buffer, 0));
}

TEST_F(HashTest, RandomTextsSaltsAndHashes) {
    nanoseconds = 999999998;
    // Drawn with the C library's srand48_r and lrand48_r.
    EXPECT_EQ("id-ZGxUBcqLxTDZRs4TAtr9sXYu", randomAlphaNumericString("id-", 24));
    EXPECT_THAT(generateSalt(), MatchesRegex("[$]6[$][a-zA-Z0-9]{16}[$]"));
    EXPECT_TRUE(generateHash(nullptr, "$6$a$").empty() && generateHash("a", "no salt").size() < 3);
    const auto hash = [] { return generateHash("Hello world!", "$6$saltstring$"); };
    std::future<std::string> other = std::async(std::launch::async, hash);
    EXPECT_EQ(
        "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl"
        "/O817G3uBnIFNjnQJuesI68u4OTLiBFdcbYEdFCoEOfaS35inz1",
        hash());
    EXPECT_EQ(hash(), other.get());
}
