// Base64 by tables: characters in pairs, groups of digits with one look-up each.

#include <endian.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <kest/utils/hash.h>

namespace kest::utils {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Kinds of characters that are no digits, in the top byte of a table's entry.
constexpr uint32_t kPadding = 254;
constexpr uint32_t kNotBase64 = 255;
constexpr uint32_t kNoDigit = uint32_t{1} << 31;

// A digit's share of the group's three bytes, the first of them lowest.
constexpr uint32_t share(uint32_t digit, unsigned place) {
    const uint32_t bits = digit << (18 - 6 * place);
    return bits >> 16 | (bits & 0xff00) | (bits & 0xff) << 16;
}

#if defined(__OPTIMIZE_SIZE__)

// One look-up a digit: a third of the speed for a 40th of the tables.
struct Digits {
    uint8_t of[256] = {};

    constexpr Digits() {
        for (uint8_t& digit : of)
            digit = kNotBase64;
        for (uint8_t digit = 0; digit < 64; ++digit)
            of[static_cast<unsigned char>(kAlphabet[digit])] = digit;
        of[static_cast<unsigned char>('=')] = kPadding;
    }
};
constexpr Digits kDigits;

inline void putPair(unsigned char* out, uint64_t bits) {
    out[0] = static_cast<unsigned char>(kAlphabet[bits >> 6 & 63]);
    out[1] = static_cast<unsigned char>(kAlphabet[bits & 63]);
}

inline uint32_t shareOf(unsigned char character, unsigned place) {
    const uint32_t digit = kDigits.of[character];
    if (digit == kNotBase64) return kNotBase64 << 24;
    return share(digit & 63, place) | (digit == kPadding ? kPadding << 24 : 0);
}

#else

// The two characters for every 12 bits. Twice as fast as single characters, for 8 KiB.
struct Pairs {
    char of[4096][2] = {};

    constexpr Pairs() {
        for (unsigned bits = 0; bits < 4096; ++bits) {
            of[bits][0] = kAlphabet[bits >> 6];
            of[bits][1] = kAlphabet[bits & 63];
        }
    }
};
constexpr Pairs kPairs;

inline void putPair(unsigned char* out, uint64_t bits) {
    memcpy(out, kPairs.of[bits & 4095], 2);
}

// For each place in a group and each character its share, so that a group is four look-ups and
// three ORs.
struct Shares {
    uint32_t at[4][256] = {};

    constexpr Shares() {
        for (unsigned place = 0; place < 4; ++place) {
            for (uint32_t& entry : at[place])
                entry = kNotBase64 << 24;
            for (uint32_t digit = 0; digit < 64; ++digit)
                at[place][static_cast<unsigned char>(kAlphabet[digit])] = share(digit, place);
            at[place][static_cast<unsigned char>('=')] =
                kPadding << 24 | share(kPadding & 63, place);
        }
    }
};
constexpr Shares kShares;

inline uint32_t shareOf(unsigned char character, unsigned place) {
    return kShares.at[place][character];
}

#endif

inline uint64_t loadBigEndian(const unsigned char* in) {
    uint64_t bits;
    memcpy(&bits, in, sizeof(bits));
    return be64toh(bits);
}

// All bytes in full groups. Returns where the output ends.
unsigned char* encodeGroups(const unsigned char* in, const unsigned char* end, unsigned char* out) {
    // Eight bytes are read for the six that are used.
    for (; end - in >= 8; in += 6, out += 8) {
        const uint64_t bits = loadBigEndian(in);
        putPair(out, bits >> 52);
        putPair(out + 2, bits >> 40);
        putPair(out + 4, bits >> 28);
        putPair(out + 6, bits >> 16);
    }
    for (; end - in >= 3; in += 3, out += 4) {
        const uint32_t bits = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
        putPair(out, bits >> 12);
        putPair(out + 2, bits);
    }
    return out;
}

void encodeRest(const unsigned char* in, unsigned int rest, unsigned char* out) {
    if (rest == 0) return;
    const uint32_t bits = uint32_t{in[0]} << 16 | (rest == 2 ? uint32_t{in[1]} << 8 : 0);
    putPair(out, bits >> 12);
    putPair(out + 2, bits);
    out[3] = '=';
    if (rest == 1) out[2] = '=';
}

inline uint32_t group(const unsigned char* in) {
    return shareOf(in[0], 0) | shareOf(in[1], 1) | shareOf(in[2], 2) | shareOf(in[3], 3);
}

// The same with one load of four characters. Turns of both keep loads and shifts equally busy.
inline uint32_t groupOfWord(const unsigned char* in) {
    uint32_t word;
    memcpy(&word, in, sizeof(word));
    word = le32toh(word);
    return shareOf(word & 255, 0) | shareOf(word >> 8 & 255, 1) | shareOf(word >> 16 & 255, 2) |
           shareOf(static_cast<unsigned char>(word >> 24), 3);
}

inline void putWord(unsigned char* out, uint32_t word) {
    word = htole32(word);
    memcpy(out, &word, sizeof(word));
}

// The groups before the first that is not made of digits only. Returns how many others are left.
size_t decodeDigits(const unsigned char* in, size_t groups, unsigned char* out) {
    for (; groups >= 4; groups -= 4, in += 16, out += 12) {
        const uint32_t first = group(in);
        const uint32_t second = groupOfWord(in + 4);
        const uint32_t third = group(in + 8);
        const uint32_t fourth = groupOfWord(in + 12);
        if (((first | second | third | fourth) & kNoDigit) != 0) break;
        putWord(out, first | second << 24);
        putWord(out + 4, second >> 8 | third << 16);
        putWord(out + 8, third >> 16 | fourth << 8);
    }
    for (; groups != 0; --groups, in += 4, out += 3) {
        const uint32_t bits = group(in);
        if ((bits & kNoDigit) != 0) break;
        const uint16_t low = htole16(static_cast<uint16_t>(bits));
        memcpy(out, &low, sizeof(low));
        out[2] = static_cast<unsigned char>(bits >> 16);
    }
    return groups;
}

// One group of any characters. Returns the bytes written, fewer than 3 at the end of the text, or
// -1.
int decodeGroup(const unsigned char* in, unsigned char* out) {
    const uint32_t third = shareOf(in[2], 2) >> 24;
    const uint32_t fourth = shareOf(in[3], 3) >> 24;
    if (shareOf(in[0], 0) >> 24 == kNotBase64 || shareOf(in[1], 1) >> 24 == kNotBase64 ||
        third == kNotBase64 || fourth == kNotBase64) {
        return -1;
    }
    const uint32_t bits = group(in);
    const int count = third == kPadding ? 1 : fourth == kPadding ? 2 : 3;
    for (int i = 0; i < count; ++i)
        out[i] = static_cast<unsigned char>(bits >> 8 * i);
    return count;
}

}  // namespace

unsigned int b64(const unsigned char* in, unsigned int inLen, unsigned char* out,
                 unsigned int& outLen) {
    if (in == nullptr || inLen == 0) return 0;
    const unsigned int rest = inLen % 3;
    const unsigned int groups = inLen / 3 + (rest != 0 ? 1 : 0);
    if (groups > UINT_MAX / 4) return 0;
    const unsigned int needed = groups * 4;
    if (out == nullptr || outLen < needed) {
        outLen = needed;
        return 0;
    }
    encodeRest(in + inLen - rest, rest, encodeGroups(in, in + inLen - rest, out));
    return needed;
}

unsigned int unb64(const unsigned char* in, unsigned int inLen, unsigned char* out,
                   unsigned int& outLen) {
    if (in == nullptr || inLen == 0 || inLen % 4 != 0) return 0;
    const unsigned int needed = inLen / 4 * 3;
    if (out == nullptr || outLen < needed) {
        outLen = needed;
        return 0;
    }
    size_t left = inLen / 4;
    size_t written = 0;
    while (true) {
        const size_t done = left;
        left = decodeDigits(in, left, out + written);
        in += (done - left) * 4;
        written += (done - left) * 3;
        if (left == 0) return static_cast<unsigned int>(written);
        const int count = decodeGroup(in, out + written);
        if (count < 0) return 0;
        written += static_cast<size_t>(count);
        if (count < 3 || --left == 0) return static_cast<unsigned int>(written);
        in += 4;
    }
}

}  // namespace kest::utils
