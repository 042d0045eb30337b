// Records sound into a WAV file, a block at a time from a timer: the event loop goes on meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <kest/utils/file.h>
#include <kest/utils/scheduler.h>

#include "descriptor.h"

class SoundRecorder {
  public:
    // Told what became of it: "recorded 16000 samples".
    using OnEnd = std::function<void(const std::string& text)>;

    struct Settings {
        std::string file;   // WAV, 16 kHz, one channel; there is the old or the complete new one
        std::string input;  // file or FIFO with such samples, without a header; empty: a tone
        unsigned lengthMs = 1000;
        int volume = 50;  // percent
    };

    SoundRecorder(kest::utils::Scheduler& scheduler, Settings settings);
    ~SoundRecorder();
    SoundRecorder(const SoundRecorder&) = delete;
    SoundRecorder& operator=(const SoundRecorder&) = delete;

    // Begins; `onEnd` may come at once.
    void record(OnEnd onEnd);

  private:
    bool begin();
    void recordBlock();
    size_t readInput();
    size_t makeTone();
    void end();
    bool complete();
    void stop();

    kest::utils::Scheduler& scheduler_;
    const Settings settings_;
    OnEnd onEnd_;
    kest::utils::File file_;
    Descriptor input_;
    std::vector<unsigned char> block_;  // samples as the file has them
    std::vector<unsigned char> half_;   // the first byte of a sample whose second has not come
    uint64_t samples_ = 0;
    unsigned blocksLeft_ = 0;
    bool whole_ = false;  // nothing of it failed to be written
    unsigned long long timer_ = 0;
};
