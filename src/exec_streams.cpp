// The pipes of a SysExec and the passes over them.

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <kest/utils/timer.h>

#include "exec_state.h"
#include "sigpipe_guard.h"

namespace kest::utils::detail {
namespace {

constexpr int kRetryMs = 1;

bool tryLater(int error) {
    return error == EINTR || error == EAGAIN;
}

// Milliseconds from now to just behind the deadline, for poll().
int remainingMs(int64_t deadline) {
    return static_cast<int>(std::max<int64_t>(0, deadline - nowMs() + 1));
}

bool liftAboveStandard(UniqueFd& fd) {
    if (fd.get() >= kFirstOrdinaryFd) return true;
    fd.reset(fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstOrdinaryFd));
    return fd.valid();
}

// Bytes that the threshold still allows, one chunk at the most. The total never passes a threshold,
// so the difference cannot wrap; without one the total may.
uint32_t allowance(const ExecOutput& stream) {
    if (stream.threshold == 0) return kExecChunk;
    return std::min(stream.threshold - stream.total, kExecChunk);
}

// Notes what waits in the pipe and makes room for it at once. Forwarding it may take for ever, so
// then it does not count.
void noteOwed(ExecOutput& stream, const Pipe& pipe) {
    int bytes = 0;
    if (!stream.use || stream.forwards()) return;
    if (ioctl(pipe.readEnd.get(), FIONREAD, &bytes) != 0 || bytes <= 0) return;
    stream.owed = static_cast<size_t>(bytes);
    if (stream.text != nullptr) stream.text->reserve(stream.text->size() + stream.owed);
    if (stream.target != nullptr) stream.target->reserve(stream.target->size() + stream.owed);
}

// Takes bytes off the front of what is pending.
void countDelivered(ExecOutput& stream, size_t bytes) {
    memmove(stream.buf.data(), stream.buf.data() + bytes, stream.pending - bytes);
    stream.pending -= static_cast<uint32_t>(bytes);
    stream.total += static_cast<uint32_t>(bytes);
}

}  // namespace

bool Pipe::open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) return false;
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return liftAboveStandard(readEnd) && liftAboveStandard(writeEnd);
}

void Pipe::close() {
    readEnd.reset();
    writeEnd.reset();
}

bool ExecState::fail(int step) {
    status = SysExec::Finished | SysExec::Failed;
    code = step;
    return false;
}

bool ExecState::uses(ExecStream stream) const {
    if (stream == kStdin) return in.use;
    return stream == kStdout ? out.use : err.use;
}

bool ExecState::writeIn() {
    if (!in.use) return true;
    const size_t size = std::min<size_t>(in.text.size() - in.offset, kExecChunk);
    if (size != 0) {
        SigpipeGuard guard;
        const int fd = pipes[kStdin].writeEnd.get();
        const ssize_t written = guard.write(fd, in.text.data() + in.offset, size);
        if (written < 0 && !tryLater(errno)) return fail(SysExec::InputFailed);
        if (written > 0) in.offset += static_cast<size_t>(written);
    }
    // The pipe stays open: the program sees end-of-file only after stop().
    if (in.offset == in.text.size()) in.use = false;
    return true;
}

bool ExecState::readOut() {
    return xread(out, pipes[kStdout].readEnd.get(), SysExec::OutOverflow);
}

bool ExecState::readErr() {
    return xread(err, pipes[kStderr].readEnd.get(), SysExec::ErrOverflow);
}

bool ExecState::xread(ExecOutput& stream, int pipeFd, int overflowBit) {
    if (stream.pending != 0) return deliver(stream);
    if (!stream.use) return true;

    const uint32_t size = allowance(stream);
    if (size == 0) {
        stream.use = false;
        if (!stream.overflowStop) return true;
        code = SysExec::Overflowed;
        status = overflowBit | SysExec::Finished;
        return false;
    }
    const ssize_t got = ::read(pipeFd, stream.buf.data(), size);
    stream.owed -= std::min(stream.owed, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && tryLater(errno)) {
        stream.owed = 0;
        return true;
    }
    if (got <= 0) {
        stream.use = false;
        return got == 0 || fail(SysExec::ReadFailed);
    }
    stream.pending = static_cast<uint32_t>(got);
    return deliver(stream);
}

bool ExecState::deliver(ExecOutput& stream) {
    if (stream.forwards()) return forward(stream) || fail(SysExec::ForwardFailed);
    const auto begin = stream.buf.begin();
    if (stream.text != nullptr) {
        stream.text->append(stream.buf.data(), stream.pending);
    } else if (stream.target != nullptr) {
        stream.target->insert(stream.target->end(), begin, begin + stream.pending);
    }
    countDelivered(stream, stream.pending);
    return true;
}

bool ExecState::forward(ExecOutput& stream) {
    SigpipeGuard guard;
    size_t done = 0;
    while (done < stream.pending) {
        const ssize_t written = guard.write(stream.fd, &stream.buf[done], stream.pending - done);
        const bool stalled = written == 0 || (written < 0 && tryLater(errno));
        if (stalled && drainUntil == 0) continue;
        if (written <= 0) break;
        done += static_cast<size_t>(written);
    }
    countDelivered(stream, done);
    return stream.pending == 0;
}

bool ExecState::drain(unsigned ms) {
    drainUntil = nowMs() + ms;
    noteOwed(out, pipes[kStdout]);
    noteOwed(err, pipes[kStderr]);
    while (out.use || err.use) {
        const bool owed = (out.use && out.owed != 0) || (err.use && err.owed != 0);
        if (!owed && nowMs() > drainUntil) return false;
        readOut();
        readErr();
        awaitOutput();
    }
    return true;
}

// Sleeps until there is something to read, at most until the drain's end: another process that
// inherited a pipe can keep it open and silent.
void ExecState::awaitOutput() const {
    pollfd ends[2] = {};
    const ExecOutput* const streams[] = {&out, &err};
    int limit = remainingMs(drainUntil);
    bool ended = true;
    for (int i = 0; i < 2; ++i) {
        const bool readable = streams[i]->use && streams[i]->pending == 0;
        ends[i].fd = readable ? pipes[kStdout + i].readEnd.get() : -1;
        ends[i].events = POLLIN;
        ended = ended && !streams[i]->use;
        // What could not be forwarded is offered again after a while.
        if (streams[i]->pending != 0) limit = std::min(limit, kRetryMs);
    }
    if (!ended) poll(ends, 2, limit);
}

}  // namespace kest::utils::detail
