// The interface of OpenSSL 1.1: its MD5 functions look nothing up and allocate nothing in a call.
#define OPENSSL_API_COMPAT 0x10100000L

#include <kest/utils/hash.h>

#include <fcntl.h>
#include <openssl/md5.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "log.h"
#include "uninterrupted.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

// One read of the kernel's generator: short enough for every kernel and for signals in between.
constexpr unsigned int kLargestRead = 1 << 20;

constexpr unsigned int kSaltLength = 16;

// The generator of POSIX's srand48 and lrand48, which is shared by the whole process there.
class Rand48 {
  public:
    explicit Rand48(uint32_t seed) : state_(uint64_t{seed} << 16 | 0x330E) {}

    uint32_t next() {
        state_ = (state_ * 0x5DEECE66D + 0xB) & ((uint64_t{1} << 48) - 1);
        return static_cast<uint32_t>(state_ >> 17);
    }

  private:
    uint64_t state_;
};

uint32_t clockNanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_nsec);
}

// The two digits of each byte.
struct HexDigits {
    char of[256][2] = {};

    constexpr HexDigits() {
        constexpr char kDigits[] = "0123456789abcdef";
        for (unsigned byte = 0; byte < 256; ++byte) {
            of[byte][0] = kDigits[byte >> 4];
            of[byte][1] = kDigits[byte & 15];
        }
    }
};
constexpr HexDigits kHexDigits;

}  // namespace

std::string bin2hex(const unsigned char* data, unsigned int len, const std::string& separator,
                    char fill) {
    std::string text;
    if (data == nullptr || len == 0 || len > text.max_size() / (2 + separator.size())) return text;
    text.resize(size_t{len} * 2 + (size_t{len} - 1) * separator.size());

    char* const begin = text.data();
    const size_t step = 2 + separator.size();
    for (size_t i = 0; i < len; ++i)
        memcpy(begin + i * step, kHexDigits.of[data[i]], 2);
    for (size_t i = 1; i < len && !separator.empty(); ++i)
        std::copy(separator.begin(), separator.end(), begin + i * step - separator.size());
    for (size_t i = 0; i < len && fill != '0'; ++i)
        if (data[i] < 16) begin[i * step] = fill;
    return text;
}

bool bin2Hex(const unsigned char* data, unsigned int len, std::string& out) {
    out = bin2hex(data, len, std::string(), '0');
    return true;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers have always handed over a copy
std::vector<unsigned char> hex2bin(std::string hex) {
    std::vector<unsigned char> bytes;
    if (hex.size() > 1) bytes.reserve(hex.size() - 1);
    return bytes;
}

bool MD5(const char* data, unsigned int len, unsigned char* digest) {
    MD5_CTX context;
    const char* failure = nullptr;
    if (MD5_Init(&context) != 1) {
        failure = "Failed to init MD5";
    } else if ((data == nullptr && len != 0) || MD5_Update(&context, data, len) != 1) {
        failure = "Failed to compute MD5";
    } else if (digest == nullptr || MD5_Final(digest, &context) != 1) {
        failure = "Failed to get MD5 hash";
    }
    if (failure == nullptr) return true;
    KEST_LOG(KEST_ERROR, 0, "%s", failure);
    return false;
}

bool randomBytes(unsigned char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) return false;
    const detail::UniqueFd source(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!source.valid()) return false;
    while (len > 0) {
        const ssize_t got = detail::uninterrupted(
            [&] { return read(source.get(), buf, std::min(len, kLargestRead)); });
        // What ends is not the generator, and would be read for ever.
        if (got <= 0) return false;
        buf += got;
        len -= static_cast<unsigned int>(got);
    }
    return true;
}

std::string randomAlphaNumericString(const std::string& prefix, unsigned int count) {
    char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    constexpr uint32_t kCharacters = sizeof(alphabet) - 1;
    Rand48 shuffler(clockNanoseconds());
    for (uint32_t i = kCharacters; i > 0; --i)
        std::swap(alphabet[i - 1], alphabet[shuffler.next() % i]);

    Rand48 picker(clockNanoseconds());
    std::string text = prefix;
    text.append(count, '\0');
    for (size_t i = prefix.size(); i < text.size(); ++i)
        text[i] = alphabet[picker.next() % kCharacters];
    return text;
}

std::string generateSalt() {
    constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    srand(static_cast<unsigned int>(time(nullptr)));
    std::string salt = "$6$";
    for (unsigned int i = 0; i < kSaltLength; ++i)
        salt += kCharacters[static_cast<size_t>(rand()) % (sizeof(kCharacters) - 1)];
    return salt += '$';
}

std::string generateHash(const char* key, const std::string& salt) {
    if (key == nullptr) return std::string();
    // crypt gives its result in a buffer that all threads share.
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    const char* const hash = crypt(key, salt.c_str());
    return hash == nullptr ? std::string() : std::string(hash);
}

}  // namespace kest::utils
