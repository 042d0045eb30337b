/// @file
/// A file opened by path: the typed reads and writes of FdReaderWriter with size, cursor, peeking,
/// whole-file reading and time stamps.
///
/// An object belongs to one thread at a time; different objects are independent.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include <kest/utils/FdReaderWriter.h>
#include <kest/utils/api.h>

namespace kest::utils {

static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");

/// A file that is closed when its object goes.
///
/// @code
///     kest::utils::File state;
///     if (!state.Initialize("/var/lib/link/state", kest::utils::File::Truncate)) return false;
///     return state.WriteUI32(version, kest::utils::ByteOrder::Little) &&
///            state.WriteString(name) && state.Flush();
/// @endcode
///
/// **Cached size.** The size is taken when the file is opened and by Size(). Every successful write
/// adds its length to it, in every mode and wherever the cursor stands, so that after overwriting
/// it may be larger than the file until Size() is called. SeekTo() and SeekAhead() go no further
/// than the cached size.
///
/// **What is no regular file.** A FIFO, a device and most files under /proc have size 0: they can
/// be read with the typed operations and ReadBuffer(), but ReadStringAll() finds nothing in them. A
/// directory opens in mode Read and fails to read. Opening a FIFO waits for its other end.
///
/// **Descriptor.** One that is set with SetFD() is the file's to close from then on; the one that
/// it replaces is not closed.
///
/// Functions that return bool give false after one log line, where nothing else is said.
class KEST_API File : public FdReaderWriter {
  public:
    /// Modes of Initialize().
    enum Mode : int {
        Read = 0,       ///< read only
        ReadWrite = 1,  ///< read and write an existing file
        Truncate = 2,   ///< read and write, created or emptied
        Append = 3,     ///< read, and write at the end, created when missing
    };

    File();

    /// Closes the file.
    ~File() override;

    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// Opens a file, after closing the one that was open. The descriptor is close-on-exec.
    /// @param path        remembered also when the file cannot be opened. With a NUL byte in it, it
    ///                    names no file.
    /// @param mode        one of Mode; any other number fails. A new file gets permission 0666 less
    ///                    the umask.
    /// @param extraFlags  flags of open(2) to add, such as `O_EXCL`.
    bool Initialize(std::string const& path, int mode, int extraFlags = 0);

    /// Closes the file, if any; path and cached size are forgotten.
    void Close();

    /// Whether there is a descriptor.
    bool IsOpen() const;

    /// The path given to Initialize(); empty after Close().
    std::string GetPath() const;

    /// Bytes in the file now; 0 when it is not open or cannot be asked (logged). In mode Append the
    /// size at opening plus what this object wrote, whatever others do to the file.
    unsigned long long Size();

    /// Distance of the cursor from the start; 0 on failure (logged), for a FIFO also.
    unsigned long long Cursor() const;

    /// Moves the cursor to the start or the end.
    bool SeekBegin();
    bool SeekEnd();

    /// Moves the cursor forward, at most to the cached size.
    bool SeekAhead(long long count);

    /// Moves the cursor back, at most to the start.
    bool SeekBehind(long long count);

    /// Moves the cursor to a distance from the start, at most the cached size.
    bool SeekTo(unsigned long long position);

    /// True when the cursor stands at the end of the file; also when the file is not open or has no
    /// cursor (logged).
    bool IsEOF();

    /// @name Peeking
    /// As the reading operation of that name, with the cursor moved back afterwards. A failed peek
    /// leaves the cursor behind the bytes that did arrive. In a FIFO, which has no cursor, a peek
    /// consumes, and logs that it could not go back.
    /// @{
    bool PeekI8(signed char* value);
    bool PeekI16(short* value, bool bigEndian);
    bool PeekI24(int* value, bool bigEndian);
    bool PeekI32(int* value, bool bigEndian);
    bool PeekI64(long long* value, bool bigEndian);
    bool PeekUI8(unsigned char* value);
    bool PeekUI16(unsigned short* value, bool bigEndian);
    bool PeekUI24(unsigned int* value, bool bigEndian);
    bool PeekUI32(unsigned int* value, bool bigEndian);
    bool PeekUI64(unsigned long long* value, bool bigEndian);
    bool PeekBuffer(unsigned char* buffer, unsigned long long length);
    /// @}

    /// Reads the whole file from its start, zero bytes included; the cursor is then at the end.
    ///
    /// Exactly Size() bytes are taken: bytes added meanwhile are left, and a file that turns out
    /// shorter fails. A size of 0 gives true and an empty text, and so does a file that is not
    /// open. Memory is taken into use as the bytes arrive, whatever size the file claims.
    /// @param out  empty on failure: the file is shorter or unreadable, memory is short, or it
    ///             holds 2^32 - 1 bytes or more.
    bool ReadStringAll(std::string& out);

    /// The same for a file by path. `out` stays as it is when the file cannot be opened.
    static bool ReadStringAll(std::string const& path, std::string& out);

    /// As FdReaderWriter::WriteBuffer(); adds `length` to the cached size.
    bool WriteBuffer(unsigned char const* buffer, unsigned long long length) override;

    /// Asks the kernel about the file, for Stats().
    bool Fstat();

    /// Result of the last successful Fstat(), the one at opening included; all zero before it.
    struct stat const& Stats() const;

    /// Milliseconds since 1970-01-01 00:00:00 UTC, 0 on failure: last change of the file's
    /// **status** (there is no creation time), of its content, and last access.
    unsigned long long CreationMs();
    unsigned long long ModificationMs();
    unsigned long long AccessMs();

    /// "file: " with the path, then ", " and FdReaderWriter's text.
    std::string info() const override;

  private:
    KEST_LOCAL bool checkOpen(int logLevel, char const* caller) const;
    KEST_LOCAL bool checkMove(long long count, char const* caller) const;
    KEST_LOCAL bool seek(long long offset, int origin) const;
    KEST_LOCAL unsigned long long stampMs(timespec const& stamp, char const* caller);
    KEST_LOCAL bool stepBack(bool read, unsigned long long width);
    KEST_LOCAL bool readAll(std::string& out, unsigned long long size);
    KEST_LOCAL bool readInSteps(std::string& out, unsigned long long size);

    unsigned long long cachedSize_ = 0;
    std::string path_;
    bool appendMode_ = false;
    struct stat stats_ = {};
};

}  // namespace kest::utils
