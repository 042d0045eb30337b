// The log ring in shared memory, to which any program with the right to write can write anything.
// An input is the segment; the last bytes of it become its header for a second pass.
#include <kest/utils/logread.h>

#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "support/fuzz.h"

namespace {

constexpr size_t kHeader = 8;
char* segment = nullptr;
size_t segmentSize = 0;
size_t delivered = 0;

void count(const char* text, unsigned int length, void*) {
    CHECK(memchr(text, '\0', length) == nullptr);
    delivered += length + 1;
}

}  // namespace

extern "C" int shmget(key_t, size_t, int) noexcept {
    return 1;
}
extern "C" void* shmat(int, const void*, int) noexcept {
    return segment;
}
extern "C" int shmdt(const void*) noexcept {
    return 0;
}
extern "C" int shmctl(int, int, shmid_ds* status) noexcept {
    status->shm_segsz = segmentSize;
    return 0;
}
extern "C" int semget(key_t, int, int) noexcept {
    return 1;
}
extern "C" int semop(int, sembuf*, size_t) noexcept {
    return 0;
}

void kest::fuzz::fuzz(std::string_view input) {
    // On the heap and no longer than the input, so that reading past its end is found.
    const std::unique_ptr<char[]> copy(new char[std::max(input.size(), kHeader)]());
    memcpy(copy.get(), input.data(), input.size());
    segment = copy.get();
    segmentSize = input.size();

    utils::Logread reader;
    if (!reader.Initialize()) return;
    for (int pass = 0; pass < 2; ++pass) {
        delivered = 0;
        reader.ForEach(count, nullptr);
        CHECK(delivered <= segmentSize);
        memcpy(segment, input.data() + input.size() - kHeader, kHeader);
    }
    reader.SeekToTail();
}
