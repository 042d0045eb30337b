/// @file
/// Makes the ids of IPC messages. Any thread may call it; it keeps no state.
#pragma once

#include <cstdint>

#include <kest/utils/api.h>

/// Source of message ids, in the global namespace and as `kest::ipc::IdGenerator`.
class KEST_API IdGenerator {
  public:
    /// A new id: who asks and when. Never fails; does not log.
    ///
    /// | bits | content |
    /// |---|---|
    /// | 63..48 | the low 16 bits of the process id |
    /// | 47..32 | copies of bit 31 |
    /// | 31..0 | the nanoseconds of `CLOCK_MONOTONIC`, modulo 2^32 |
    ///
    /// The time wraps every 4.3 seconds, and its sign extension spends 16 bits on nothing: ids have
    /// always looked like that. They tell apart the few requests that a process has under way, no
    /// more: two calls within one tick of the clock give the same id, and so may two processes
    /// whose ids agree in their low 16 bits.
    static uint64_t GenerateId();
};

namespace kest::ipc {
using ::IdGenerator;
}
