#include "sound_recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <utility>

#include <kest/utils/sound.h>
#include <kest/utils/string_utils.h>

namespace {

constexpr unsigned kSampleRate = 16000;
constexpr unsigned kBlockMs = 100;
constexpr size_t kBlockSamples = kSampleRate * kBlockMs / 1000;
constexpr size_t kSampleSize = 2;
constexpr double kToneHz = 1000;
constexpr double kTonePeak = 32767;
constexpr double kTwoPi = 6.283185307179586;

}  // namespace

SoundRecorder::SoundRecorder(kest::utils::Scheduler& scheduler, Settings settings)
    : scheduler_(scheduler), settings_(std::move(settings)) {}

SoundRecorder::~SoundRecorder() {
    if (timer_ == 0) return;
    stop();
    unlink((settings_.file + ".part").c_str());
}

void SoundRecorder::record(OnEnd onEnd) {
    if (settings_.file.empty() || timer_ != 0) {
        onEnd(timer_ != 0 ? "recording already" : "no file to record to");
        return;
    }
    onEnd_ = std::move(onEnd);
    samples_ = 0;
    half_.clear();
    blocksLeft_ = settings_.lengthMs / kBlockMs;
    if (!begin()) end();
}

bool SoundRecorder::begin() {
    // Should nobody write to the FIFO yet, it has nothing to read: that is the end of the input.
    if (!settings_.input.empty()) {
        input_ = Descriptor(open(settings_.input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (!input_.valid()) return false;
    }
    if (!file_.Initialize(settings_.file + ".part", kest::utils::File::Truncate) ||
        !writeWavHeader(file_, 1, kSampleRate)) {
        return false;
    }
    timer_ = scheduler_.AddTimerTask(
        kBlockMs, kBlockMs,
        [this](unsigned long long, void*) {
            recordBlock();
            return true;
        },
        nullptr);
    return timer_ != 0;
}

void SoundRecorder::recordBlock() {
    if (blocksLeft_ == 0) return end();
    --blocksLeft_;
    block_.resize(kBlockSamples * kSampleSize);
    const size_t bytes = input_.valid() ? readInput() : makeTone();
    setWavVolume(block_.data(), static_cast<int>(bytes), settings_.volume);
    samples_ += bytes / kSampleSize;
    whole_ = file_.WriteBuffer(block_.data(), bytes);
    if (!whole_ || blocksLeft_ == 0) end();
}

// What the input has by now, at most a block; the bytes of whole samples.
size_t SoundRecorder::readInput() {
    size_t filled = half_.size();
    std::copy(half_.begin(), half_.end(), block_.begin());
    ssize_t got = 0;
    while (filled < block_.size() &&
           (got = read(input_.get(), block_.data() + filled, block_.size() - filled)) > 0) {
        filled += static_cast<size_t>(got);
    }
    const bool later = got < 0 && (errno == EAGAIN || errno == EINTR);
    if (got <= 0 && filled < block_.size() && !later) blocksLeft_ = 0;
    // A pipe may end in the middle of a sample.
    const size_t whole = filled / kSampleSize * kSampleSize;
    half_.assign(block_.data() + whole, block_.data() + filled);
    return whole;
}

size_t SoundRecorder::makeTone() {
    for (size_t i = 0; i < kBlockSamples; ++i) {
        const double turns = static_cast<double>(samples_ + i) * kToneHz / kSampleRate;
        const auto sample = static_cast<int16_t>(std::lround(kTonePeak * std::sin(turns * kTwoPi)));
        const auto bits = static_cast<uint16_t>(sample);
        block_[kSampleSize * i] = static_cast<unsigned char>(bits & 0xFF);
        block_[kSampleSize * i + 1] = static_cast<unsigned char>(bits >> 8);
    }
    return block_.size();
}

void SoundRecorder::end() {
    std::string result = "recording failed";
    if (complete()) {
        const auto samples = static_cast<unsigned long long>(samples_);
        result = kest::utils::format("recorded %llu samples", samples);
    }
    stop();
    std::exchange(onEnd_, nullptr)(result);
}

// A reader of the file never sees half of it.
bool SoundRecorder::complete() {
    const std::string part = settings_.file + ".part";
    if (whole_ && samples_ > 0 && finalizeWavHeader(file_) && file_.Flush() &&
        rename(part.c_str(), settings_.file.c_str()) == 0) {
        return true;
    }
    unlink(part.c_str());
    return false;
}

void SoundRecorder::stop() {
    if (timer_ != 0) scheduler_.RemoveTimerTask(std::exchange(timer_, 0));
    file_.Close();
    input_ = Descriptor();
}
