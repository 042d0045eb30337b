#include "stack_walk.h"

#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>

namespace kest::utils::detail {
namespace {

constexpr unsigned kMaxFrames = 200;
// How far the search for a lost chain goes, and how big a frame it believes in.
constexpr unsigned kSearchedWords = 1024;
constexpr uintptr_t kLargestFrame = uintptr_t{1} << 20;
constexpr unsigned kConvincingLength = 8;

struct FrameRecord {
    uintptr_t savedFrame;
    uintptr_t returnAddress;
};

// Where the two words of a function's frame record stand, seen from its frame pointer: the saved
// frame pointer below the return address everywhere, but GCC for 32-bit ARM (-marm) points at the
// upper one of them.
#if defined(__x86_64__) || defined(__aarch64__) || (defined(__arm__) && defined(__clang__))
constexpr uintptr_t kRecordBelowFrame = 0;
#elif defined(__arm__)
constexpr uintptr_t kRecordBelowFrame = sizeof(uintptr_t);
#else
#error "say where the frame records of this platform stand"
#endif

// The registers that a signal frame keeps: program counter, frame pointer, stack pointer, and the
// one that holds the return address of a function without a frame record (none on x86-64).
#if defined(__x86_64__)
#define KEST_SAVED_PC gregs[REG_RIP]
#define KEST_SAVED_FRAME gregs[REG_RBP]
#define KEST_SAVED_STACK gregs[REG_RSP]
#elif defined(__aarch64__)
#define KEST_SAVED_PC pc
#define KEST_SAVED_FRAME regs[29]
#define KEST_SAVED_STACK sp
#define KEST_SAVED_LINK regs[30]
#else
#define KEST_SAVED_PC arm_pc
#define KEST_SAVED_FRAME arm_fp
#define KEST_SAVED_STACK arm_sp
#define KEST_SAVED_LINK arm_lr
#endif

// Has the kernel copy a word, which fails where a load would fault. Without the kernel's option for
// that, the error is another one than EFAULT.
bool copyWord(uintptr_t address, uintptr_t& word) {
    const iovec to = {&word, sizeof(word)};
    const iovec from = {reinterpret_cast<void*>(address), sizeof(word)};
    return syscall(SYS_process_vm_readv, syscall(SYS_getpid), &to, 1L, &from, 1L, 0L) ==
           static_cast<long>(sizeof(word));
}

// Works on every kernel: it fetches the 8 bytes before it finds that -1 is no way to change a
// signal mask.
bool readable(uintptr_t block) {
    return syscall(SYS_rt_sigprocmask, -1L, block, 0L, 8L) == -1 && errno == EINVAL;
}

// Words of other functions' frames, red zones of sanitizers included.
__attribute__((no_sanitize_address, no_sanitize_thread)) bool readWord(uintptr_t address,
                                                                       uintptr_t& word) {
    if (address % sizeof(word) != 0) return false;
    if (copyWord(address, word)) return true;
    if (errno == EFAULT || !readable(address & ~uintptr_t{7})) return false;
    word = *reinterpret_cast<const volatile uintptr_t*>(address);
    return true;
}

bool readRecord(uintptr_t frame, FrameRecord& record) {
    const uintptr_t at = frame - kRecordBelowFrame;
    return readWord(at, record.savedFrame) && readWord(at + sizeof(at), record.returnAddress);
}

// 64-bit ARM may sign return addresses in their upper bits; older processors take this for a nop.
uintptr_t withoutSignature(uintptr_t address) {
#if defined(__aarch64__)
    register uintptr_t x30 __asm__("x30") = address;
    __asm__("hint 7" : "+r"(x30));
    return x30;
#else
    return address;
#endif
}

bool isCode(const MemoryMap& map, uintptr_t address) {
    const MemoryMapEntry* const entry = map.Find(address);
    return entry != nullptr && entry->permissions[2] == 'x';
}

template <typename Register>
bool readRegister(const Register& stored, uintptr_t& value) {
    static_assert(sizeof(Register) == sizeof(value), "a register has the size of an address");
    return readWord(reinterpret_cast<uintptr_t>(&stored), value);
}

}  // namespace

StackWalk::StackWalk(const MemoryMap& map, const void* frame, const void* context)
    : map_(map), frame_(reinterpret_cast<uintptr_t>(frame)) {
    if (context == nullptr) return;
    const mcontext_t& saved = static_cast<const ucontext_t*>(context)->uc_mcontext;
    if (!readRegister(saved.KEST_SAVED_PC, interrupted_.pc) ||
        !readRegister(saved.KEST_SAVED_FRAME, interrupted_.frame) ||
        !readRegister(saved.KEST_SAVED_STACK, interrupted_.stack)) {
        return;
    }
#ifdef KEST_SAVED_LINK
    if (!readRegister(saved.KEST_SAVED_LINK, interrupted_.link)) return;
#endif
    stage_ = kBeforeInterrupted;
}

// Number of records from here on that return to code, as far as that is of interest.
unsigned StackWalk::chainLength(uintptr_t frame) const {
    unsigned length = 0;
    uintptr_t last = 0;
    FrameRecord record = {};
    while (length < kConvincingLength && frame > last && readRecord(frame, record) &&
           isCode(map_, withoutSignature(record.returnAddress))) {
        last = frame;
        frame = record.savedFrame;
        ++length;
    }
    return length;
}

// A C library without frame pointers, in whose abort() a process often ends, uses their register
// for something else, but keeps the old value on the stack while it does so: the word from which
// the longest chain goes on. 0 when there is none.
uintptr_t StackWalk::savedFrame() const {
    uintptr_t best = 0;
    unsigned bestLength = 0;
    uintptr_t at = interrupted_.stack;
    uintptr_t word = 0;
    for (unsigned i = 0; i < kSearchedWords && readWord(at, word); ++i, at += sizeof(at)) {
        if (word <= at || word - at >= kLargestFrame) continue;
        const unsigned length = chainLength(word);
        if (length <= bestLength) continue;
        best = word;
        bestLength = length;
        if (length == kConvincingLength) break;
    }
    return best;
}

void StackWalk::enterInterruptedCode() {
    // The stacks of the handler and of what it interrupted lie in no order.
    lastFrame_ = 0;
    frame_ = interrupted_.frame;
    stage_ = kPlain;
    if (chainLength(frame_) > 0) return;
#if defined(__arm__) && !defined(__clang__)
    // A function that calls none saves the frame pointer alone, and points at that; its return
    // address is still in the register.
    uintptr_t saved = 0;
    if (readWord(frame_, saved) && saved > frame_ && chainLength(saved) > 0) {
        frame_ = saved;
        stage_ = kAtLink;
        return;
    }
#endif
    const uintptr_t found = savedFrame();
    if (found != 0) frame_ = found;
}

bool StackWalk::next(uintptr_t& address) {
    if (count_ == kMaxFrames) return false;
    ++count_;
    if (stage_ == kAtInterrupted) {
        enterInterruptedCode();
        address = interrupted_.pc;
        return true;
    }
    if (stage_ == kAtLink) {
        stage_ = kPlain;
        address = withoutSignature(interrupted_.link);
        return true;
    }
    return nextRecord(address);
}

bool StackWalk::nextRecord(uintptr_t& address) {
    FrameRecord record = {};
    if (frame_ == 0 || frame_ <= lastFrame_ || !readRecord(frame_, record)) return false;
    lastFrame_ = frame_;
    frame_ = record.savedFrame;
    address = withoutSignature(record.returnAddress);
    if (stage_ != kBeforeInterrupted || record.savedFrame != interrupted_.frame) return true;
    stage_ = kAtInterrupted;
    // The kernel of 64-bit ARM puts a record in between, of frame pointer and link register. The
    // interrupted instruction comes before what that returns to.
    if (record.returnAddress == interrupted_.link) {
        enterInterruptedCode();
        stage_ = kAtLink;
        address = interrupted_.pc;
    }
    return true;
}

}  // namespace kest::utils::detail
