#include <kest/utils/sound.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "support/clean_test.h"
#include "support/temp_dir.h"

namespace {

using kest::test::logTexts, kest::test::writeFile;
using kest::utils::File;
using namespace std::string_literals;

const std::string kFailed = "Failed to read WAV header";
const std::string kFields = "\1\0\2\0\x44\xac\0\0\x10\xb1\2\0\4\0\x10\0"s;  // 44100 Hz, stereo
const std::string kHead = "RIFF\x28\0\0\0WAVEfmt \x10\0\0\0"s + kFields;
const std::string kData = "data\4\0\0\0abcd"s;

class SoundTest : public kest::test::CleanTest {
  protected:
    // The samples, or the parser's line, or that of readWav() when the parser is content.
    std::string outcome(const std::string& content) {
        writeFile(path, content);
        if (readWav(path, data, 0, 0, 0)) return {data.begin(), data.end()};
        return *(logTexts().end() - (logTexts().back() == kFailed ? 2 : 1));
    }

    kest::test::TempDir dir;
    const std::string path = dir / "sound.wav";
    std::vector<unsigned char> data = {7};
};

TEST_F(SoundTest, WritesTheCanonicalHeader) {
    File file;
    ASSERT_TRUE(file.Initialize(path, File::Truncate) && writeWavHeader(file, 2, 44100));
    EXPECT_FALSE(finalizeWavHeader(file));
    EXPECT_TRUE(file.WriteString("abcd") && finalizeWavHeader(file));
    EXPECT_EQ(kHead + kData, kest::test::readFile(path));
    ASSERT_TRUE(file.Initialize(path, File::Read) && file.SeekEnd());
    EXPECT_FALSE(finalizeWavHeader(file));
    EXPECT_EQ("EMPTY WAV", logTexts().front());
    EXPECT_EQ("Internal error", logTexts().back());
}

TEST_F(SoundTest, ReadsWhatItUnderstands) {
    const std::string riff = kHead.substr(0, 16), no = ": data section not found";
    const std::pair<std::string, std::string> cases[] = {
        {kHead + kData + "beyond", "abcd"},
        {riff + "\x12\0\0\0"s + kFields + "\0\0"s + kData, "abcd"},
        {riff + "\x28\0\0\0"s + kFields + std::string(24, 'x') + kData, "abcd"},
        {riff + "\x14\0\0\0"s + kFields + "xxxx" + kData, kFailed},
        {riff + "\x10\0\0\0\3"s + kFields.substr(1) + kData, kFailed},
        {kHead.substr(0, 34) + "\x18\0"s + kData, kFailed + ": not a 16 bps source"},
        {kHead + "LIST\3\0\0\0xyz"s + kData, "abcd"},
        {kHead + "LIST\xff\xff\xff\xff"s + kData, kFailed + no},
        {kHead + "data\0\0\0\0"s, ""}};
    for (const auto& [content, expected] : cases)
        EXPECT_EQ(expected, outcome(content));
    const std::string whole = kHead + "LIST\2\0\0\0xy"s + kData;
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(length >= 54   ? "Failed to read WAV contents"
                  : length >= 50 ? kFailed
                                 : kFailed + (length >= 36 ? no : ""),
                  outcome(whole.substr(0, length)));
    }
    for (const size_t tag : {0U, 8U, 12U})
        EXPECT_EQ(kFailed, outcome(std::string(whole).erase(tag, 1)));
}

TEST_F(SoundTest, RequirementsAreCheckedInTurn) {
    writeFile(path, kHead + kData);
    EXPECT_FALSE(readWav(path, data, 1, 8000, 1) || readWav(path, data, 2, 8000, 1) ||
                 readWav(path, data, 2, 44100, 3) || readWav(dir / "none", data, 0, 0, 0));
    EXPECT_EQ(7, data.at(0));
    EXPECT_THAT(logTexts(), testing::ElementsAre("Invalid channels", "Invalid sample rate",
                                                 "WAV too large, dataSz=4, expectMax=3", testing::_,
                                                 "Failed to open WAV file"));
    EXPECT_TRUE(readWav(path, data, 2, 44100, 4));
}

TEST_F(SoundTest, LyingFilesTakeNeitherMemoryNorTime) {
    const std::string lie = kHead + "data\xff\xff\xff\xff"s + std::string(980, 'x');
    EXPECT_EQ("Failed to read WAV contents", outcome(lie));
    rusage usage = {};
    EXPECT_TRUE(getrusage(RUSAGE_SELF, &usage) == 0 && usage.ru_maxrss < 1 << 20);
    writeFile(path, kHead);
    ASSERT_EQ(0, truncate(path.c_str(), 1LL << 40));  // empty chunks without end
    EXPECT_FALSE(readWav(path, data, 0, 0, 0));
}

// At an odd address, with an odd byte behind.
TEST_F(SoundTest, EverySampleAtEveryVolume) {
    std::vector<short> samples(65536 + 3);  // no whole number of blocks
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<short>(i);
    auto expected = samples, result = samples;
    const int bytes = static_cast<int>(samples.size() * 2);
    for (int volume : {INT_MIN, -151, -100, -99, -50, -1, 0, 1, 33, 50, 66, 98, 99, 100, 101}) {
        for (size_t i = 0; i < samples.size() && volume <= 100; ++i)
            expected[i] =
                static_cast<short>(std::clamp(1LL * samples[i] * volume / 100, -32768LL, 32767LL));
        data.assign(samples.size() * 2 + 2, 0x55);
        std::memcpy(&data[1], samples.data(), samples.size() * 2);
        setWavVolume(&data[1], bytes + 1, volume);
        std::memcpy(result.data(), &data[1], samples.size() * 2);
        ASSERT_TRUE((volume > 100 ? samples : expected) == result && data.back() == 0x55) << volume;
    }
    setWavVolume(nullptr, -1, 50);
    EXPECT_EQ("Invalid volume chosen for the track: 101", logTexts().at(0));
}

}  // namespace
