/// @file
/// Typed binary input and output: the interfaces IReader, IWriter and IReaderWriter, and
/// FdReaderWriter, which implements them on a descriptor.
///
/// An object belongs to one thread at a time; different objects are independent.
#pragma once

#include <functional>
#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// Names for the byte-order flag of the typed operations.
struct ByteOrder {
    static constexpr bool Big = true;      ///< network order
    static constexpr bool Little = false;  ///< order of the camera's processor, on any host
};

/// Reads integers and blocks of bytes.
///
/// Every operation returns true when all its bytes arrived, else false after a log line. On failure
/// the bytes that did arrive stand at the start of the target, in the order of their arrival.
/// Targets must not be null. Each unsigned operation calls its signed counterpart, so that
/// overriding the signed one changes both.
class KEST_API IReader {
  public:
    virtual ~IReader();

    /// What is being read, for log lines.
    virtual std::string info() const = 0;

    /// One to eight bytes as an integer.
    virtual bool ReadI8(signed char* value) = 0;
    virtual bool ReadI16(short* value, bool bigEndian) = 0;
    /// Three bytes. Sign-extended from bit 23 when little-endian, **not** when big-endian: FF FF FF
    /// gives -1 in one order and 16777215 in the other. On failure the fourth byte is 0.
    virtual bool ReadI24(int* value, bool bigEndian) = 0;
    virtual bool ReadI32(int* value, bool bigEndian) = 0;
    virtual bool ReadI64(long long* value, bool bigEndian) = 0;
    virtual bool ReadUI8(unsigned char* value) = 0;
    virtual bool ReadUI16(unsigned short* value, bool bigEndian) = 0;
    /// As ReadI24(), its sign extension included.
    virtual bool ReadUI24(unsigned int* value, bool bigEndian) = 0;
    virtual bool ReadUI32(unsigned int* value, bool bigEndian) = 0;
    virtual bool ReadUI64(unsigned long long* value, bool bigEndian) = 0;

    /// Reads exactly `length` bytes, fewer than 2^32.
    virtual bool ReadBuffer(unsigned char* buffer, unsigned long long length) = 0;
};

/// Writes integers and blocks of bytes.
///
/// Every operation returns true when all its bytes were taken, else false after a log line; how
/// many were taken before a failure is unknown. Each unsigned operation calls its signed
/// counterpart, so that overriding the signed one changes both.
class KEST_API IWriter {
  public:
    virtual ~IWriter();

    /// What is being written to, for log lines.
    virtual std::string info() const = 0;

    /// An integer as one to eight bytes.
    virtual bool WriteI8(signed char value) = 0;
    virtual bool WriteI16(short value, bool bigEndian) = 0;
    /// The low 24 bits, in three bytes.
    virtual bool WriteI24(int value, bool bigEndian) = 0;
    virtual bool WriteI32(int value, bool bigEndian) = 0;
    /// The mixed layout of media time stamps: the low 24 bits big-endian, then the top byte.
    virtual bool WriteSI32(int value) = 0;
    virtual bool WriteI64(long long value, bool bigEndian) = 0;
    virtual bool WriteUI8(unsigned char value) = 0;
    virtual bool WriteUI16(unsigned short value, bool bigEndian) = 0;
    virtual bool WriteUI24(unsigned int value, bool bigEndian) = 0;
    virtual bool WriteUI32(unsigned int value, bool bigEndian) = 0;
    virtual bool WriteUI64(unsigned long long value, bool bigEndian) = 0;

    /// The characters alone: no length before them, no terminator after them.
    virtual bool WriteString(std::string const& text) = 0;

    /// Writes exactly `length` bytes, fewer than 2^32.
    virtual bool WriteBuffer(unsigned char const* buffer, unsigned long long length) = 0;

    /// Has everything written so far carried to its destination.
    virtual bool Flush() = 0;
};

/// Both directions.
class KEST_API IReaderWriter : public virtual IReader, public virtual IWriter {
  public:
    ~IReaderWriter() override;
    std::string info() const override = 0;
};

/// IReaderWriter on a descriptor that stays the caller's, through three hooks that stand for the
/// system calls.
///
/// Meant for **blocking** descriptors: `EINTR` and `EAGAIN` are retried at once, without waiting
/// and without limit, so that a non-blocking descriptor with nothing to read keeps the processor
/// busy until something arrives. Use IOBuffer and the Scheduler there.
///
/// Nothing is buffered here: each operation is at least one call of a hook.
class KEST_API FdReaderWriter : public virtual IReaderWriter {
  public:
    /// Hooks in place of `read`, `write` and `fsync`; see setReadFunc().
    using ReadFunc = std::function<int(int fd, void* buffer, unsigned int length)>;
    using WriteFunc = std::function<int(int fd, void const* buffer, unsigned int length)>;
    using SyncFunc = std::function<int(int fd)>;

    /// Without descriptor: everything fails with "Invalid descriptor" until SetFD().
    FdReaderWriter();
    explicit FdReaderWriter(int fd);
    ~FdReaderWriter() override;

    FdReaderWriter(const FdReaderWriter&) = delete;
    FdReaderWriter& operator=(const FdReaderWriter&) = delete;

    /// "file descriptor: " and the number.
    std::string info() const override;

    bool ReadI8(signed char* value) override;
    bool ReadI16(short* value, bool bigEndian) override;
    bool ReadI24(int* value, bool bigEndian) override;
    bool ReadI32(int* value, bool bigEndian) override;
    bool ReadI64(long long* value, bool bigEndian) override;
    bool ReadUI8(unsigned char* value) override;
    bool ReadUI16(unsigned short* value, bool bigEndian) override;
    bool ReadUI24(unsigned int* value, bool bigEndian) override;
    bool ReadUI32(unsigned int* value, bool bigEndian) override;
    bool ReadUI64(unsigned long long* value, bool bigEndian) override;

    /// Calls the read hook until `length` bytes arrived. Fails at the end of the input, also when
    /// part of the data came before it.
    bool ReadBuffer(unsigned char* buffer, unsigned long long length) override;

    /// Changes the descriptor; -1 is none. Neither the old nor the new one is ever closed here.
    virtual void SetFD(int fd);
    virtual int GetFD() const;

    bool WriteI8(signed char value) override;
    bool WriteI16(short value, bool bigEndian) override;
    bool WriteI24(int value, bool bigEndian) override;
    bool WriteI32(int value, bool bigEndian) override;
    bool WriteSI32(int value) override;
    bool WriteI64(long long value, bool bigEndian) override;
    bool WriteUI8(unsigned char value) override;
    bool WriteUI16(unsigned short value, bool bigEndian) override;
    bool WriteUI24(unsigned int value, bool bigEndian) override;
    bool WriteUI32(unsigned int value, bool bigEndian) override;
    bool WriteUI64(unsigned long long value, bool bigEndian) override;
    bool WriteString(std::string const& text) override;

    /// Calls the write hook until `length` bytes were taken. Gives up, with `EIO` as lastError(),
    /// when the hook takes nothing 65,536 times in a row.
    bool WriteBuffer(unsigned char const* buffer, unsigned long long length) override;

    /// Calls the sync hook, by default `fsync`. Does not log when the hook fails: see lastError().
    bool Flush() override;

    /// Replace a hook, for example by one that calls `recv` or `send`. A hook answers as its system
    /// call does: bytes moved, at most as many as asked for; 0 at the end of the input; -1 with
    /// `errno`. Any other answer counts as -1 with `EIO`, and an empty hook as one that always
    /// fails with `ENOSYS`. A hook is asked for less than 2 GiB at a time, and must not replace
    /// itself while it runs.
    void setReadFunc(ReadFunc hook);
    void setWriteFunc(WriteFunc hook);
    void setSyncFunc(SyncFunc hook);

    /// `errno` of the last hook call that failed, the retried `EINTR` and `EAGAIN` included; -1
    /// before the first.
    int lastError() const;

  private:
    int fd_ = -1;
    int lastError_ = -1;
    ReadFunc readHook_;
    WriteFunc writeHook_;
    SyncFunc syncHook_;
};

}  // namespace kest::utils
