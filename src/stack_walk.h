// Return addresses of a thread, read from the chain of frame records on its stack. Everything here
// may run in a signal handler, and faults on nothing that it is pointed at: the stack may be
// smashed, exhausted or gone.
#pragma once

#include <cstdint>

#include <kest/utils/memorymap.h>

namespace kest::utils::detail {

class StackWalk {
  public:
    // Starts at a function's own frame, as __builtin_frame_address(0) gives it there. A signal
    // handler adds its third argument, so that the walk also shows the interrupted instruction.
    StackWalk(const MemoryMap& map, const void* frame, const void* context);

    // The next address; false at the end of the chain.
    bool next(uintptr_t& address);

  private:
    bool nextRecord(uintptr_t& address);
    void enterInterruptedCode();
    unsigned chainLength(uintptr_t frame) const;
    uintptr_t savedFrame() const;

    const MemoryMap& map_;
    uintptr_t frame_;
    uintptr_t lastFrame_ = 0;
    // Registers of the interrupted code; all 0 without a context.
    struct {
        uintptr_t pc, frame, stack, link;
    } interrupted_ = {};
    enum { kPlain, kBeforeInterrupted, kAtInterrupted, kAtLink } stage_ = kPlain;
    unsigned count_ = 0;
};

}  // namespace kest::utils::detail
