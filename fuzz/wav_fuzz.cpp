// WAV files, which a user may upload. A file under /proc holds the input.
#include <kest/utils/sound.h>

#include <vector>

#include "support/fuzz.h"

void kest::fuzz::fuzz(std::string_view input) {
    setProcFiles(input);
    unsigned short channels = 0;
    unsigned int rate = 0;
    unsigned int size = 0;
    const bool header = readWavHeader("/proc/wav", channels, rate, size);
    std::vector<unsigned char> samples;
    if (readWav("/proc/wav", samples, 0, 0, 0)) {
        CHECK(header && samples.size() == size && size < input.size());
        CHECK(readWav("/proc/wav", samples, channels, rate, size));
    }
    // At an odd address, with any number of bytes.
    std::vector<unsigned char> bytes(input.begin(), input.end());
    if (bytes.size() < 2) return;
    const int volume = static_cast<signed char>(bytes[0]) * 2;
    setWavVolume(bytes.data() + 1, static_cast<int>(bytes.size()) - 1, volume);
}
