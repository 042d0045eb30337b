#include <sys/sem.h>
#include <sys/shm.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include <kest/utils/logread.h>
#include <kest/utils/string_utils.h>

#include "support/clean_test.h"
#include "support/isolated.h"

namespace {

using kest::test::Isolated;
using LogreadTest = kest::test::CleanTest;

// Collects the messages, each with a '|' behind it, without what the daemon puts before the '#'.
struct Reader : kest::utils::Logread {
    std::string texts;
    std::function<void()> then = [] {};

    static void take(const char* data, unsigned int length, void* ctx) {
        const std::string text(data, length);
        static_cast<Reader*>(ctx)->texts += text.substr(text.find('#') + 1) + '|';
        static_cast<Reader*>(ctx)->then();
    }
    std::string read() {
        texts.clear();
        ForEach(take, this);
        return texts;
    }
};

// A ring of the test's own: one page, so that the byte behind it is out of reach.
struct Segment {
    int semaphores = semget(0x414E4547, 2, IPC_CREAT | 0600);
    char* bytes = static_cast<char*>(shmat(shmget(0x414E4547, 4096, IPC_CREAT | 0600), nullptr, 0));
    int readers() const { return semctl(semaphores, 0, GETVAL); }

    // A '.' stands for NUL; bytes of no meaning follow.
    void set(uint32_t size, uint32_t tail, std::string data) const {
        std::replace(data.begin(), data.end(), '.', '\0');
        data.resize(4088, 'x');
        const uint32_t header[] = {size, tail};
        memcpy(bytes, header, sizeof(header));
        memcpy(bytes + sizeof(header), data.data(), data.size());
    }
};

TEST_F(LogreadTest, ReadsWhatBusyBoxWritesLapAfterLap) {
    Isolated().empty("/dev").run([] {
        if (fork() == 0) _exit(execlp("busybox", "busybox", "syslogd", "-n", "-C16", nullptr));
        Reader reader, late;
        while (!late.Initialize() || !reader.Initialize() || !reader.SeekToTail()) {
        }
        for (int batch = 0, number = 0; batch <= 100; ++batch) {
            const bool overtaken = batch == 100;
            std::string sent = "|", got;
            for (const int end = number + (overtaken ? 1000 : 50); number < end; ++number) {
                const auto text = kest::utils::format("%0*d", number * 7 % 150, number);
                syslog(LOG_USER | LOG_INFO, "#%s", text.c_str());
                sent += text + "\n|";
            }
            while (got.find(std::to_string(number - 1)) == got.npos)
                got += reader.read();
            if (overtaken) got = late.read();
            EXPECT_EQ('|' + got, sent.substr(overtaken ? sent.size() - got.size() - 1 : 0));
        }
    });
}

TEST_F(LogreadTest, BelievesNoRingUncheckedAndAlwaysUnlocks) {
    Isolated().run([] {
        const Segment segment;
        Reader reader;
        const std::string four = "a.b.c.d...";
        const struct {
            uint32_t size, tail;
            std::string data, expected;
            std::function<void()> then = [] {};
        } cases[] = {
            {16, 8, "abc.def.........", "abc|def|"},
            {16, 5, "qr.s.xx.hi.mnopq", "hi|mnopqqr|s|"},
            {16, 1, ".zz.hello world!", "hello world!|"},
            {16, 5, "ab.cd", ""},
            {4088, 0, std::string(4088, '.'), "No complete messages"},
            {4088, 7, "", "No complete messages"},
            {4089, 8, four, "Invalid log ring"},
            {10, 10, four, "Invalid log ring"},
            {10, 8, four, "a|b|c|d|", [&] { EXPECT_EQ(1, segment.readers()); }},
            {10, 8, four, "a|", [&] { reader.SeekToTail(); }},
            {10, 8, four, "a|b|c|d|", [&] { reader.ForEach(Reader::take, &reader); }},
            {10, 8, four, "a|", [&] { reader.Initialize(); }},
            {10, 8, four, "a|", [&] { throw 0; }},
        };
        for (const auto& c : cases) {
            kest::test::clearLog();
            segment.set(c.size, c.tail, c.data);
            reader.then = c.then;
            try {
                reader.texts = reader.Initialize() ? reader.read() : kest::test::logTexts().at(0);
            } catch (int) {
            }
            EXPECT_EQ(c.expected, reader.texts);
            EXPECT_EQ(0, segment.readers());
        }
        // A text that reaches the tail without an end must not bring everything again.
        segment.set(16, 12, "a.b.c.d.xxxxx...");
        reader.then = [] {};
        EXPECT_TRUE(reader.Initialize());
        EXPECT_EQ("a|b|c|d|", reader.read());
        EXPECT_EQ("", reader.read());
        reader.Lock();
        reader.Close();
        EXPECT_TRUE(!reader.SeekToTail() && segment.readers() == 0);
        EXPECT_EQ("Failed to acquire semaphore", kest::test::logTexts().at(0));
    });
}

}  // namespace
