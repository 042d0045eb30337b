#include <kest/utils/iobuffer.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "log.h"

namespace kest::utils {
namespace {

constexpr unsigned int kLargestDatagram = 0x10000;
constexpr unsigned int kRowBytes = 16;
constexpr unsigned int kReachAheadFrom = 0x80000;
constexpr size_t kStepWorthPreparing = 0x10000;

// The way out of every failed allocation. forceCrash() may return.
bool outOfMemory(const char* operation, int error) {
    KEST_LOG_AS(operation, KEST_ERROR, error, "Unable to allocate memory: (%d) %s", error,
                strerror(error));
    forceCrash();
    return false;
}

// Length of the mapping that holds a buffer of that size. A large one reaches ahead by up to 1/64,
// so that growing by little does not ask the kernel each time. Where size_t has 32 bits, the last
// steps below 4 GiB give 0, which the kernel refuses.
size_t mappingLength(unsigned int size) {
    if (size < kReachAheadFrom) return size;
    const size_t step = (size_t{1} << (31 - __builtin_clz(size))) / 64;
    return (size + step - 1) / step * step;
}

void* mapNew(size_t length) {
    return mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

// Of a buffer that grows step by step, the pages of a step are about to be used: bringing them in
// together takes less time than a fault for each. Older kernels refuse, which does no harm.
void prepareStep(unsigned char* storage, size_t before, size_t after) {
#ifdef MADV_POPULATE_WRITE
    if (after < before + kStepWorthPreparing || after - before > before / 32) return;
    madvise(storage + before, after - before, MADV_POPULATE_WRITE);
#else
    (void)storage, (void)before, (void)after;
#endif
}

std::string offsetLabel(unsigned int offset) {
    char label[16];
    snprintf(label, sizeof(label), "%08u", offset);
    return label;
}

void appendHex(std::string& text, unsigned char byte) {
    static const char kDigits[] = "0123456789abcdef";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
}

// A short row is padded, so that its text stands below that of the full ones.
void appendRow(std::string& text, unsigned char const* bytes, unsigned int count) {
    for (unsigned int i = 0; i < kRowBytes; ++i) {
        text.append(i % (kRowBytes / 2) == 0 ? 2 : 1, ' ');
        if (i < count) {
            appendHex(text, bytes[i]);
        } else {
            text += "  ";
        }
    }
    text += "  ";
    for (unsigned int i = 0; i < count; ++i) {
        const bool printable = bytes[i] >= ' ' && bytes[i] <= '~';
        text += printable ? static_cast<char>(bytes[i]) : '.';
    }
    text += '\n';
}

void allocStatsPrintSigHdlr(int /*signo*/) {}

}  // namespace

IOBuffer::IOBuffer(std::string const& name)
    : name_(name), pageSize_(static_cast<unsigned int>(getpagesize())) {}

IOBuffer::~IOBuffer() {
    if (data_ != nullptr) munmap(data_, mappingLength(size_));
}

bool IOBuffer::grow(unsigned int n) {
    const unsigned int live = Available();
    if (n <= size_ - live) {
        MoveData();
        if (n <= size_ - published_) return true;
    }
    const uint64_t wanted = (uint64_t{n} + live + pageSize_ - 1) & ~uint64_t{pageSize_ - 1};
    if (wanted > UINT32_MAX) return outOfMemory("EnsureSize", ENOMEM);
    const auto newSize = static_cast<unsigned int>(wanted);
    // The data move inside the storage, although they overlap their new place: a second mapping
    // would hold a backlog twice, and would cost more time in page faults than the copy. A storage
    // that gets shorter must not cut them off before.
    if (newSize <= size_) moveToStart();
    if (!resize(newSize, "EnsureSize")) return false;
    if (consumed_ != 0) moveToStart();
    return true;
}

void IOBuffer::moveToStart() {
    const unsigned int live = Available();
    if (live > 0) memmove(data_, Begin(), live);
    published_ = live;
    consumed_ = 0;
}

bool IOBuffer::resize(unsigned int newSize, const char* operation) {
    const size_t before = mappingLength(size_);
    const size_t after = mappingLength(newSize);
    if (before != after) {
        void* const storage =
            data_ == nullptr ? mapNew(after) : mremap(data_, before, after, MREMAP_MAYMOVE);
        if (storage == MAP_FAILED) return outOfMemory(operation, errno);
        data_ = static_cast<unsigned char*>(storage);
        prepareStep(data_, before, after);
    }
    size_ = newSize;
    return true;
}

void IOBuffer::shrink() {
    KEST_LOG_AS("Recycle", KEST_WARNING, 0,
                "IOB: free space limit exceeded. Shrinking `%s` buffer space: %u -> %u",
                name_.c_str(), size_, freeSpaceLimit_);
    resize(freeSpaceLimit_, "Recycle");
}

bool IOBuffer::MoveData() {
    if (consumed_ >= Available()) moveToStart();
    return true;
}

bool IOBuffer::owns(void const* from, size_t n) const {
    const auto begin = reinterpret_cast<uintptr_t>(from);
    const auto storage = reinterpret_cast<uintptr_t>(data_);
    return begin < storage + size_ && storage < begin + n;
}

bool IOBuffer::growAndAppend(unsigned char const* src, unsigned int n) {
    if (n == 0) return true;
    if (owns(src, n)) return appendOwn(src, n);
    return grow(n) && ReadFromBuffer(src, n);
}

// Making room moves what the buffer holds, so the source is taken out first.
bool IOBuffer::appendOwn(unsigned char const* src, unsigned int n) {
    IOBuffer copy(name_);
    return copy.ReadFromBuffer(src, n) && ReadFromBuffer(copy.Begin(), n);
}

bool IOBuffer::ReadFromBuffer(iovec const* vec, int count, unsigned int skip) {
    iovec const* const end = count > 0 ? vec + count : vec;
    const auto isOwn = [this](iovec const& part) { return owns(part.iov_base, part.iov_len); };
    if (std::any_of(vec, end, isOwn)) {
        IOBuffer copy(name_);
        return copy.ReadFromBuffer(vec, count, skip) &&
               ReadFromBuffer(copy.Begin(), copy.Available());
    }
    for (; vec != end; ++vec) {
        const auto omitted = static_cast<unsigned int>(std::min<size_t>(skip, vec->iov_len));
        skip -= omitted;
        const size_t length = vec->iov_len - omitted;
        if (length > UINT32_MAX) return outOfMemory("ReadFromBuffer", ENOMEM);
        auto const* const src = static_cast<unsigned char const*>(vec->iov_base) + omitted;
        if (!ReadFromBuffer(src, static_cast<unsigned int>(length))) return false;
    }
    return true;
}

void IOBuffer::ReadFromRepeat(unsigned char value, unsigned int n) {
    if (n == 0 || !EnsureSize(n)) return;
    memset(data_ + published_, value, n);
    published_ += n;
}

bool IOBuffer::ReadFromFd(int fd, unsigned int n, int& got) {
    got = 0;
    if (n == 0) return true;
    got = -1;
    if (!EnsureSize(n)) return false;
    // One call moves less than 2 GiB, whatever is asked for: the result always fits.
    got = static_cast<int>(::read(fd, data_ + published_, n));
    if (got < 0) {
        KEST_LOG(KEST_ERROR, errno, "Unable to read %zu bytes from fd", size_t{n});
        return false;
    }
    published_ += static_cast<unsigned int>(got);
    return true;
}

bool IOBuffer::ReadFromTCPFd(int fd, unsigned int n, int& got) {
    got = 0;
    if (n == 0) return false;
    got = -1;
    if (!EnsureSize(n)) return false;
    // Success leaves errno alone: an old EAGAIN would make a closed connection look merely idle.
    errno = 0;
    got = static_cast<int>(::recv(fd, data_ + published_, n, MSG_DONTWAIT));
    if (got >= 0) {
        published_ += static_cast<unsigned int>(got);
        return true;
    }
    if (errno == EAGAIN || errno == EINPROGRESS) {
        got = 0;
        return true;
    }
    KEST_LOG(KEST_ERROR, errno, "recv() failed");
    return false;
}

bool IOBuffer::ReadFromUDPFd(int fd, int& got, sockaddr_in& from) {
    got = -1;
    if (!EnsureSize(kLargestDatagram)) return false;
    // The last sender's length must not limit this one.
    peerAddressLength_ = sizeof(from);
    got = static_cast<int>(::recvfrom(fd, data_ + published_, kLargestDatagram, 0,
                                      reinterpret_cast<sockaddr*>(&from), &peerAddressLength_));
    if (got < 0) {
        KEST_LOG(KEST_ERROR, errno, "Unable to read data from UDP socket");
        return false;
    }
    published_ += static_cast<unsigned int>(got);
    return true;
}

bool IOBuffer::WriteToFd(int fd, unsigned int n, int& written) {
    written = 0;
    if (n == 0) return true;
    const ssize_t done = ::write(fd, Begin(), std::min(n, Available()));
    if (done < 0) {
        if (errno == EAGAIN) return true;
        KEST_LOG(KEST_ERROR, errno,
                 "Unable to send %u bytes of data data. Size advertised by network layer was %zu. "
                 "Permanent error.",
                 Available(), size_t{n});
        return false;
    }
    written = static_cast<int>(done);
    return Ignore(static_cast<unsigned int>(done));
}

void IOBuffer::Swap(IOBuffer& other) {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(published_, other.published_);
    std::swap(consumed_, other.consumed_);
    std::swap(peerAddressLength_, other.peerAddressLength_);
}

bool IOBuffer::operator==(IOBuffer const& other) const {
    const unsigned int live = Available();
    if (live != other.Available()) return false;
    return live == 0 || memcmp(Begin(), other.Begin(), live) == 0;
}

std::string IOBuffer::ToString(unsigned int start, unsigned int limit) const {
    char header[160];
    int length =
        snprintf(header, sizeof(header), "Size: %u, Published: %u, Consumed: %u, Address: %p",
                 size_, published_, consumed_, static_cast<void*>(data_));
    std::string text(header, static_cast<size_t>(length));
    if (limit != 0) text += ", Limited to " + std::to_string(limit) + " bytes";
    text += '\n';

    const unsigned int first = std::min(start, Available());
    const unsigned int left = Available() - first;
    const unsigned int end = first + (limit != 0 ? std::min(limit, left) : left);
    const size_t labelWidth = offsetLabel(end).size();
    for (unsigned int offset = first; offset < end; offset += kRowBytes) {
        const std::string label = offsetLabel(offset);
        text += label;
        text.append(labelWidth - label.size(), ' ');
        appendRow(text, Begin() + offset, std::min(kRowBytes, end - offset));
    }
    return text;
}

std::string IOBuffer::DumpBuffer(unsigned char const* data, unsigned int n) {
    IOBuffer copy("temp for DumpBuffer");
    copy.ReadFromBuffer(data, n);
    return copy.ToString(0, 0);
}

void IOBuffer::InstallAllocStatsPrintSigHdlr(int signo) {
    struct sigaction action = {};
    action.sa_handler = allocStatsPrintSigHdlr;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(signo, &action, nullptr) == 0) return;
    KEST_LOG(KEST_ERROR, errno, "IOB: Unable to install the allocation stats print handler");
    forceCrash();
}

}  // namespace kest::utils
