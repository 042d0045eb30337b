#include <kest/ipc/IdGenerator.h>

#include <unistd.h>

#include <kest/utils/timer.h>

uint64_t IdGenerator::GenerateId() {
    const timespec at = moment();
    // Unsigned, so that the wrap is defined and the same wherever time_t and long have 64 bits.
    const uint32_t ticks =
        static_cast<uint32_t>(at.tv_sec) * 1000000000U + static_cast<uint32_t>(at.tv_nsec);
    const uint64_t sign = (ticks >> 31) != 0 ? 0xFFFF : 0;
    const uint64_t process = static_cast<uint64_t>(getpid()) & 0xFFFF;
    return process << 48 | sign << 32 | ticks;
}
