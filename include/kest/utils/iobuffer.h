/// @file
/// A byte queue between descriptors and parsers: data is appended at the published end and taken
/// from the consumed end. One buffer is used by one thread at a time; different buffers are
/// independent of each other. Nothing here may be called from a signal handler.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>
#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// Growable queue of bytes in one anonymous memory mapping.
///
/// @code
///     kest::utils::IOBuffer input("control connection");
///     int got = 0;
///     if (!input.ReadFromTCPFd(fd, 4096, got)) return closeConnection();
///     if (got == 0) return errno == 0 ? closeConnection() : waitForMore();
///     while (unsigned int used = parseFrame(input.Begin(), input.Available())) input.Ignore(used);
/// @endcode
///
/// **Positions.** consumed <= published <= size always holds. The valid data are the bytes from
/// consumed to published, the free bytes those from published to size. Pointers into the buffer
/// (Begin()) hold until the next operation that appends, moves or consumes.
///
/// **Size.** A new buffer has no mapping. It grows in whole pages to what is needed, without
/// copying while nothing is consumed. When it runs empty it rewinds to offset 0 and, if it is
/// larger than the free space limit, shrinks to that limit.
///
/// **No memory** (also: a total that does not fit into 32 bits) is logged as "Unable to allocate
/// memory: ..." and ends the process through `forceCrash()`. Should that return, the operation
/// gives false where it has a result, and the buffer with its data is as before.
class KEST_API IOBuffer {
  public:
    /// @param name  label for the log line of a shrinking buffer.
    explicit IOBuffer(std::string const& name);

    virtual ~IOBuffer();

    IOBuffer(const IOBuffer&) = delete;
    IOBuffer& operator=(const IOBuffer&) = delete;

    /// First valid byte; null before the first growth.
    unsigned char* Begin() { return data_ + consumed_; }
    unsigned char const* Begin() const { return data_ + consumed_; }

    /// Number of valid bytes.
    unsigned int Available() const { return published_ - consumed_; }

    /// Size of the storage in bytes, 0 before the first growth.
    unsigned int Capacity() const { return size_; }

    /// Offset in the storage of the end of the valid data.
    unsigned int Published() const { return published_; }

    /// Offset in the storage of the first valid byte.
    unsigned int Consumed() const { return consumed_; }

    /// Sets the size in bytes to which an empty buffer is shrunk (8 MiB at first); 0 never shrinks.
    /// Takes effect at the next Recycle().
    void SetFreeSpaceLimit(unsigned int bytes) { freeSpaceLimit_ = bytes; }

    /// Provides at least `n` free bytes.
    /// @return true; false only as described at "No memory".
    bool EnsureSize(unsigned int n) { return n <= size_ - published_ || grow(n); }

    /// Moves the valid data to offset 0, unless they would overlap their new place.
    /// @return true.
    bool MoveData();

    /// Appends `n` bytes. The source may be part of this buffer's own data.
    /// @return as EnsureSize().
    bool ReadFromBuffer(unsigned char const* src, unsigned int n) {
        if (n == 0 || n > size_ - published_) return growAndAppend(src, n);
        // Without memory there is no room. NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker)
        memcpy(data_ + published_, src, n);
        published_ += n;
        return true;
    }

    /// Appends the concatenation of `count` vectors without its first `skip` bytes. The vectors may
    /// be parts of this buffer's own data.
    /// @return true, also for a `count` below 1; false as EnsureSize(): what was appended until
    ///         then stays.
    bool ReadFromBuffer(iovec const* vec, int count, unsigned int skip);

    /// Appends `n` copies of `value`.
    void ReadFromRepeat(unsigned char value, unsigned int n);

    /// One `read` of up to `n` bytes into the buffer. Made for blocking descriptors and files: a
    /// non-blocking descriptor with nothing to read counts as a read error, with `errno` `EAGAIN`.
    /// @param got  what `read` returned: number of bytes, 0 at the end of file, -1 on an error; 0
    ///             when `n` is 0.
    /// @return true, at once when `n` is 0; false, with a log line, on a read error.
    bool ReadFromFd(int fd, unsigned int n, int& got);

    /// One `recv` of up to `n` bytes that never blocks.
    /// @param got  number of bytes; 0 when the peer has closed (`errno` is 0) or nothing is there
    ///             (`errno` is not 0); -1 on an error.
    /// @return true; false when `n` is 0, and, with a log line, on an error.
    bool ReadFromTCPFd(int fd, unsigned int n, int& got);

    /// One datagram of up to 65536 bytes, so that none is cut. Blocks as the socket does; an empty
    /// non-blocking socket counts as an error, with `errno` `EAGAIN`.
    /// @param got   length of the datagram, -1 on an error.
    /// @param from  its sender, on success.
    /// @return true; false, with a log line, on an error.
    bool ReadFromUDPFd(int fd, int& got, sockaddr_in& from);

    /// One `write` of up to `n` valid bytes, which are consumed as far as they were written. A peer
    /// that has gone raises `SIGPIPE` unless the daemon ignores it.
    /// @param written  number of bytes; 0 when the descriptor takes none now (`errno` is `EAGAIN`).
    /// @return true; false, with a log line, on any other error.
    bool WriteToFd(int fd, unsigned int n, int& written);

    /// Consumes `n` bytes, at most Available(), then Recycle().
    /// @return true.
    bool Ignore(unsigned int n) {
        consumed_ += n < Available() ? n : Available();
        Recycle();
        return true;
    }

    /// Consumes everything, then Recycle().
    /// @return true.
    bool IgnoreAll() { return Ignore(Available()); }

    /// Rewinds an empty buffer to offset 0, and shrinks it with a warning when it is larger than
    /// the free space limit. Leaves a buffer with data alone.
    void Recycle() {
        if (consumed_ != published_) return;
        consumed_ = published_ = 0;
        if (freeSpaceLimit_ != 0 && freeSpaceLimit_ < size_) shrink();
    }

    /// Exchanges storage and data. Each buffer keeps its name and its free space limit.
    void Swap(IOBuffer& other);

    /// True when the valid data have the same length and the same bytes.
    bool operator==(IOBuffer const& other) const;
    bool operator!=(IOBuffer const& other) const { return !(*this == other); }

    /// Dump of the valid data for people: one header line, then rows of 16 bytes.
    ///
    ///     Size: 4096, Published: 20, Consumed: 0, Address: 0x7f52c0a1d000, Limited to 20 bytes
    ///     00000000  47 45 54 20 2f 20 48 54  54 50 2f 31 2e 31 0d 0a  GET / HTTP/1.1..
    ///     00000016  48 6f 73 74                                       Host
    ///
    /// Row offsets are decimal and count from the first valid byte. A byte outside the printable
    /// ASCII characters shows as '.'. Offsets of more than 8 digits widen their column in every
    /// row. A byte takes five characters: give a limit where the buffer may be large.
    /// @param start  number of valid bytes to leave out at the front.
    /// @param limit  show at most so many bytes; 0 shows all, and leaves "Limited to" out.
    std::string ToString(unsigned int start = 0, unsigned int limit = 0) const;

    /// ToString() of everything.
    operator std::string() const { return ToString(); }

    /// ToString() of a copy of `n` bytes.
    static std::string DumpBuffer(unsigned char const* data, unsigned int n);

    /// Installs a handler for `signo` that does nothing, so that the signal no longer ends the
    /// process. Failure is logged and ends the process through `forceCrash()`.
    static void InstallAllocStatsPrintSigHdlr(int signo);

  private:
    bool grow(unsigned int n);
    bool growAndAppend(unsigned char const* src, unsigned int n);
    void shrink();
    KEST_LOCAL void moveToStart();
    KEST_LOCAL bool resize(unsigned int newSize, const char* operation);
    KEST_LOCAL bool appendOwn(unsigned char const* src, unsigned int n);
    KEST_LOCAL bool owns(void const* from, size_t n) const;

    std::string name_;
    unsigned int freeSpaceLimit_ = 0x800000;
    unsigned char* data_ = nullptr;
    unsigned int size_ = 0;
    unsigned int published_ = 0;
    unsigned int consumed_ = 0;
    socklen_t peerAddressLength_ = sizeof(sockaddr_in);
    unsigned int pageSize_;
};

}  // namespace kest::utils
