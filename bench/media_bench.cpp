// Colour differences, volume and WAV reading, beside the published formula, memcpy and libsndfile.
//
// Cases are named "<pattern>/<contestant>/<parameters>". One iteration is
//   ciede2000  one pair of colours; `formula` is CIE 142-2001 written down step by step
//   volume     one block of samples, scaled in place; `memcpy` copies as many bytes to another
//   wav        one file by path, its samples in a new vector
#include <benchmark/benchmark.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <kest/utils/color.h>
#include <kest/utils/sound.h>

#include "require.h"

namespace {

using kest::utils::File;
using kest::utils::color::diff_ciede2000;
using kest::utils::color::Lab;
using kest::utils::color::YUV;
using Bytes = std::vector<unsigned char>;

constexpr double kPi = 3.141592653589793;

double cosine(double degrees) {
    return std::cos(degrees * kPi / 180);
}

double hueOf(double a, double b) {
    if (a == 0 && b == 0) return 0;
    const double degrees = std::atan2(b, a) * 180 / kPi;
    return degrees < 0 ? degrees + 360 : degrees;
}

// CIE 142-2001 with the two hue rules of Sharma, Wu and Dalal, in the order of the publication.
double formula(const Lab& one, const Lab& two) {
    const double c1 = std::sqrt(one.a * one.a + one.b * one.b);
    const double c2 = std::sqrt(two.a * two.a + two.b * two.b);
    const double meanC7 = std::pow((c1 + c2) / 2, 7.0);
    const double g = 0.5 * (1 - std::sqrt(meanC7 / (meanC7 + 6103515625.0)));
    const double a1 = (1 + g) * one.a;
    const double a2 = (1 + g) * two.a;
    const double chroma1 = std::sqrt(a1 * a1 + one.b * one.b);
    const double chroma2 = std::sqrt(a2 * a2 + two.b * two.b);
    const double hue1 = hueOf(a1, one.b);
    const double hue2 = hueOf(a2, two.b);

    const bool grey = chroma1 * chroma2 == 0;
    const bool wide = std::fabs(hue1 - hue2) > 180;
    double hueStep = grey ? 0 : hue2 - hue1;
    if (!grey && wide) hueStep += hue2 > hue1 ? -360 : 360;
    const double dL = two.L - one.L;
    const double dC = chroma2 - chroma1;
    const double dH = 2 * std::sqrt(chroma1 * chroma2) * std::sin(hueStep * kPi / 360);

    const double meanL = (one.L + two.L) / 2;
    const double meanC = (chroma1 + chroma2) / 2;
    double hue = hue1 + hue2;
    if (!grey && wide) hue += hue < 360 ? 360 : -360;
    if (!grey) hue /= 2;
    const double t = 1 - 0.17 * cosine(hue - 30) + 0.24 * cosine(2 * hue) +
                     0.32 * cosine(3 * hue + 6) - 0.20 * cosine(4 * hue - 63);
    const double turn = 30 * std::exp(-std::pow((hue - 275) / 25, 2));
    const double c7 = std::pow(meanC, 7.0);
    const double rC = 2 * std::sqrt(c7 / (c7 + 6103515625.0));
    const double square = (meanL - 50) * (meanL - 50);
    const double sL = 1 + 0.015 * square / std::sqrt(20 + square);
    const double sC = 1 + 0.045 * meanC;
    const double sH = 1 + 0.015 * meanC * t;
    const double rT = -std::sin(2 * turn * kPi / 180) * rC;
    return std::sqrt(dL / sL * (dL / sL) + dC / sC * (dC / sC) + dH / sH * (dH / sH) +
                     rT * (dC / sC) * (dH / sH));
}

// Colours all over the space; both contestants agree on their differences.
const std::vector<Lab>& colors() {
    static const std::vector<Lab> all = [] {
        std::mt19937 random(1);
        std::uniform_real_distribution<double> lightness(0, 100);
        std::uniform_real_distribution<double> axis(-100, 100);
        std::vector<Lab> made(4097);
        for (Lab& color : made)
            color = {lightness(random), axis(random), axis(random)};
        for (size_t i = 1; i < made.size(); ++i) {
            const double error =
                diff_ciede2000(made[i - 1], made[i]) - formula(made[i - 1], made[i]);
            require(std::fabs(error) < 1e-10, "the results differ");
        }
        return made;
    }();
    return all;
}

template <typename Difference>
void forEachPair(benchmark::State& state, Difference difference) {
    const std::vector<Lab>& all = colors();
    size_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(difference(all[index], all[index + 1]));
        index = (index + 1) % (all.size() - 1);
    }
    state.SetItemsProcessed(state.iterations());
}

void pairsOurs(benchmark::State& state) {
    forEachPair(state, diff_ciede2000<Lab>);
}

void pairsFormula(benchmark::State& state) {
    forEachPair(state, formula);
}

// Two blocks that do not stand at one offset of a page, which slows copying down.
class Blocks {
  public:
    explicit Blocks(benchmark::State& state)
        : size_(static_cast<size_t>(state.range(0))),
          memory_(std::aligned_alloc(kPage, 2 * size_ + kPage)) {
        std::memset(memory_, 'x', 2 * size_ + kPage);
    }
    ~Blocks() { std::free(memory_); }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    unsigned char* first() const { return static_cast<unsigned char*>(memory_); }
    unsigned char* second() const { return first() + size_ + kPage / 2; }
    size_t size() const { return size_; }

  private:
    static constexpr size_t kPage = 4096;
    size_t size_;
    void* memory_;
};

void volumeOurs(benchmark::State& state) {
    const Blocks blocks(state);
    for (auto _ : state) {
        setWavVolume(blocks.first(), static_cast<int>(blocks.size()), -99);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) / 2);
}

void volumeMemcpy(benchmark::State& state) {
    const Blocks blocks(state);
    for (auto _ : state) {
        std::memcpy(blocks.second(), blocks.first(), blocks.size());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) / 2);
}

// A stereo file with so many bytes of samples; gone with its object.
class Sample {
  public:
    explicit Sample(benchmark::State& state) {
        ::close(::mkstemp(path_));
        const Bytes samples(static_cast<size_t>(state.range(0)), 'x');
        File file;
        require(file.Initialize(path_, File::Truncate) && writeWavHeader(file, 2, 48000) &&
                    file.WriteBuffer(samples.data(), samples.size()) && finalizeWavHeader(file),
                "sample file");
    }
    ~Sample() { ::unlink(path_); }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;
    const char* path() const { return path_; }

  private:
    char path_[32] = "/tmp/kest-media-bench-XXXXXX";
};

void wavOurs(benchmark::State& state) {
    const Sample sample(state);
    for (auto _ : state) {
        Bytes data;
        require(readWav(sample.path(), data, 0, 0, 0), "readWav");
        benchmark::DoNotOptimize(data.data());
    }
}

struct Closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

// With sf_read_raw(), which converts nothing, as we convert nothing.
void wavSndfile(benchmark::State& state) {
    const Sample sample(state);
    for (auto _ : state) {
        SF_INFO info = {};
        const std::unique_ptr<SNDFILE, Closer> file(sf_open(sample.path(), SFM_READ, &info));
        require(file != nullptr, "sf_open");
        Bytes data(static_cast<size_t>(info.frames * info.channels) * 2);
        const auto size = static_cast<sf_count_t>(data.size());
        require(sf_read_raw(file.get(), data.data(), size) == size, "sf_read_raw");
        benchmark::DoNotOptimize(data.data());
    }
}

// 20 ms of 16 kHz mono, 20 and 100 ms of 48 kHz stereo, and more than a cache holds.
void blocks(benchmark::internal::Benchmark* each) {
    each->Arg(640)->Arg(3840)->Arg(19200)->Arg(16 << 20);
}

void sizes(benchmark::internal::Benchmark* each) {
    each->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20);
}

BENCHMARK(pairsOurs)->Name("ciede2000/ours");
BENCHMARK(pairsFormula)->Name("ciede2000/formula");
BENCHMARK(volumeOurs)->Name("volume/ours")->Apply(blocks);
BENCHMARK(volumeMemcpy)->Name("volume/memcpy")->Apply(blocks);
BENCHMARK(wavOurs)->Name("wav/ours")->Apply(sizes);
BENCHMARK(wavSndfile)->Name("wav/sndfile")->Apply(sizes);

}  // namespace
