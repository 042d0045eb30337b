#include <kest/utils/sound.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>

#include "log.h"

namespace {

using kest::utils::ByteOrder;
using kest::utils::File;
using Bytes = std::vector<unsigned char>;

constexpr unsigned int kBitsPerSample = 16;
constexpr unsigned int kHeaderSize = 44;
constexpr unsigned int kRiffSizeOffset = 4;
constexpr unsigned int kDataSizeOffset = 40;
// From "RIFF" to the bits per sample: what every format chunk has, whatever its size.
constexpr unsigned int kFormatEnd = 36;
constexpr unsigned int kPlainFormatSize = 16;
constexpr unsigned int kLargestFormatSize = 40;
constexpr unsigned int kChunkHeaderSize = 8;
// Nobody writes so many; a file of nothing but empty chunks must not hold the daemon.
constexpr int kMaxChunks = 4096;
// Read at a time from what cannot tell its size.
constexpr size_t kPipeStep = 1 << 20;
constexpr char kFailed[] = "Failed to read WAV header";

struct WavInfo {
    unsigned short channels = 0;
    unsigned int sampleRate = 0;
    unsigned int dataSize = 0;
};

unsigned short get16(const unsigned char* bytes) {
    return static_cast<unsigned short>(bytes[0] | bytes[1] << 8);
}

unsigned int get32(const unsigned char* bytes) {
    return get16(bytes) | static_cast<unsigned int>(get16(bytes + 2)) << 16;
}

void put16(unsigned char* bytes, unsigned int value) {
    bytes[0] = static_cast<unsigned char>(value);
    bytes[1] = static_cast<unsigned char>(value >> 8);
}

void put32(unsigned char* bytes, unsigned int value) {
    put16(bytes, value);
    put16(bytes + 2, value >> 16);
}

bool hasTag(const unsigned char* bytes, const char* tag) {
    return std::memcmp(bytes, tag, 4) == 0;
}

// These parsers give nullptr, or what to say about the file.

const char* parseFormat(File& file, WavInfo& info) {
    unsigned char head[kFormatEnd];
    if (!file.ReadBuffer(head, sizeof(head)) || !hasTag(head, "RIFF") ||
        !hasTag(head + 8, "WAVE") || !hasTag(head + 12, "fmt ")) {
        return kFailed;
    }
    const unsigned int size = get32(head + 16);
    if ((size != kPlainFormatSize && size != 18 && size != kLargestFormatSize) ||
        get16(head + 20) != 1) {
        return kFailed;
    }
    if (get16(head + 34) != kBitsPerSample) {
        return "Failed to read WAV header: not a 16 bps source";
    }
    info.channels = get16(head + 22);
    info.sampleRate = get32(head + 24);
    unsigned char rest[kLargestFormatSize - kPlainFormatSize];
    return file.ReadBuffer(rest, size - kPlainFormatSize) ? nullptr : kFailed;
}

const char* findData(File& file, WavInfo& info) {
    for (int chunk = 0; chunk < kMaxChunks; ++chunk) {
        unsigned char head[kChunkHeaderSize] = {};
        const bool whole = file.ReadBuffer(head, sizeof(head));
        info.dataSize = get32(head + 4);
        if (hasTag(head, "data")) return whole ? nullptr : kFailed;
        if (!whole || !file.SeekAhead(info.dataSize)) break;
    }
    return "Failed to read WAV header: data section not found";
}

bool readWavHeaderInternal(File& file, WavInfo& info) {
    const char* failure = parseFormat(file, info);
    if (failure == nullptr) failure = findData(file, info);
    if (failure == nullptr) return true;
    KEST_LOG(KEST_ERROR, 0, "%s", failure);
    return false;
}

bool openWav(File& file, const std::string& path, const char* caller) {
    if (file.Initialize(path, File::Read)) return true;
    KEST_LOG_AS(caller, KEST_ERROR, errno, "Failed to open WAV file");
    return false;
}

// The size is a promise. A file shows at once whether it can be kept; a pipe shows it byte by byte.
bool readContents(File& file, unsigned int size, Bytes& data) {
    const bool regular = S_ISREG(file.Stats().st_mode);
    if (regular && file.Cursor() + size > file.Size()) return false;
    const size_t step = regular ? size : kPipeStep;
    // Vectors that grow keep their old bytes, and ask for more than they need.
    if (data.capacity() < size) Bytes().swap(data);
    for (size_t done = 0; done < size; done = data.size()) {
        data.resize(done + std::min(step, size - done));
        if (!file.ReadBuffer(data.data() + done, data.size() - done)) return false;
    }
    data.resize(size);
    return true;
}

bool readOrEmpty(File& file, unsigned int size, Bytes& data) {
    try {
        if (readContents(file, size, data)) return true;
    } catch (const std::exception&) {
        // More than there is memory for.
    }
    Bytes().swap(data);
    return false;
}

// One sample after the other; `Product` holds the largest product.
template <typename Product>
void scaleEach(unsigned char* samples, size_t count, int volume) {
    for (; count > 0; --count, samples += sizeof(int16_t)) {
        int16_t sample = 0;
        std::memcpy(&sample, samples, sizeof(sample));
        const Product wanted = Product{sample} * volume / 100;
        sample = static_cast<int16_t>(std::clamp<Product>(wanted, INT16_MIN, INT16_MAX));
        std::memcpy(samples, &sample, sizeof(sample));
    }
}

#if defined(__SSE2__) || defined(__ARM_NEON)

using Samples = int16_t __attribute__((vector_size(16)));
using Products = uint16_t __attribute__((vector_size(16)));
constexpr size_t kSamples = sizeof(Samples) / sizeof(int16_t);

// Parts of 16 bits, so that no lane has to be widened: s = 100 t + w gives s v / 100 = t v + w v /
// 100 with both terms of one sign. s v alone overflows; w v, the difference of two products, does
// not.
void scale(Samples& samples, int16_t percent) {
    const auto factor = static_cast<uint16_t>(percent);
    const auto hundredfold = static_cast<uint16_t>(percent * 100);
    const Samples hundreds = samples / 100;
    const Products rest = reinterpret_cast<Products>(samples) * factor -
                          reinterpret_cast<Products>(hundreds) * hundredfold;
    samples = hundreds * percent + reinterpret_cast<Samples>(rest) / 100;
}

void scaleAll(unsigned char* samples, size_t count, int16_t percent) {
    Samples block = {};
    for (; count >= kSamples; count -= kSamples, samples += sizeof(block)) {
        std::memcpy(&block, samples, sizeof(block));
        scale(block, percent);
        std::memcpy(samples, &block, sizeof(block));
    }
    if (count == 0) return;
    std::memcpy(&block, samples, count * sizeof(int16_t));
    scale(block, percent);
    std::memcpy(samples, &block, count * sizeof(int16_t));
}

#else

// Without lanes of 16 bits, vector code would do all its steps for each sample by itself.
void scaleAll(unsigned char* samples, size_t count, int16_t percent) {
    scaleEach<int>(samples, count, percent);
}

#endif

}  // namespace

bool writeWavHeader(File& file, unsigned short channels, unsigned int sampleRate) {
    unsigned char header[kHeaderSize] = {
        'R', 'I', 'F', 'F', 0,  0, 0, 0,  // size of the file
        'W', 'A', 'V', 'E',               //
        'f', 'm', 't', ' ', 16, 0, 0, 0,  //
        1,   0,   0,   0,                 // PCM, channels
        0,   0,   0,   0,                 // sample rate
        0,   0,   0,   0,                 // byte rate
        0,   0,                           // block align
        16,  0,                           // bits per sample
        'd', 'a', 't', 'a', 0,  0, 0, 0,  // size of the samples
    };
    const unsigned int blockAlign = channels * (kBitsPerSample / 8);
    put16(header + 22, channels);
    put32(header + 24, sampleRate);
    put32(header + 28, sampleRate * blockAlign);
    put16(header + 32, blockAlign);
    file.WriteBuffer(header, sizeof(header));
    return true;
}

bool finalizeWavHeader(File& file) {
    const unsigned long long size = file.Cursor();
    if (size <= kHeaderSize) {
        KEST_LOG(KEST_ERROR, 0, "EMPTY WAV");
        return false;
    }
    const auto sizeWithout = [size](unsigned int head) {
        return static_cast<unsigned int>(std::min<unsigned long long>(size - head, UINT32_MAX));
    };
    const bool written = file.SeekTo(kDataSizeOffset) &&
                         file.WriteUI32(sizeWithout(kHeaderSize), ByteOrder::Little) &&
                         file.SeekTo(kRiffSizeOffset) &&
                         file.WriteUI32(sizeWithout(kChunkHeaderSize), ByteOrder::Little);
    if (written) return true;
    // `file` has logged which of them failed, and why.
    KEST_LOG(KEST_ERROR, 0, "Internal error");
    return false;
}

bool readWavHeader(const std::string& path, unsigned short& channels, unsigned int& sampleRate,
                   unsigned int& dataSize) {
    File file;
    WavInfo info;
    if (!openWav(file, path, __func__) || !readWavHeaderInternal(file, info)) return false;
    channels = info.channels;
    sampleRate = info.sampleRate;
    dataSize = info.dataSize;
    return true;
}

bool readWav(const std::string& path, Bytes& data, unsigned short channels, unsigned int sampleRate,
             unsigned int maxSize) {
    File file;
    WavInfo info;
    if (!openWav(file, path, __func__)) return false;
    const char* failure = nullptr;
    if (!readWavHeaderInternal(file, info)) {
        failure = kFailed;
    } else if (channels != 0 && channels != info.channels) {
        failure = "Invalid channels";
    } else if (sampleRate != 0 && sampleRate != info.sampleRate) {
        failure = "Invalid sample rate";
    } else if (maxSize != 0 && info.dataSize > maxSize) {
        KEST_LOG(KEST_ERROR, 0, "WAV too large, dataSz=%d, expectMax=%d",
                 static_cast<int>(info.dataSize), static_cast<int>(maxSize));
        return false;
    } else if (!readOrEmpty(file, info.dataSize, data)) {
        failure = "Failed to read WAV contents";
    }
    if (failure == nullptr) return true;
    KEST_LOG(KEST_ERROR, 0, "%s", failure);
    return false;
}

void setWavVolume(unsigned char* samples, int length, int volume) {
    if (volume == 100) return;
    if (volume > 100) {
        KEST_LOG(KEST_WARNING, 0, "Invalid volume chosen for the track: %d", volume);
        return;
    }
    const size_t count = length > 0 ? static_cast<size_t>(length) / sizeof(int16_t) : 0;
    if (volume > -100) {
        scaleAll(samples, count, static_cast<int16_t>(volume));
    } else {
        scaleEach<long long>(samples, count, volume);
    }
}
