#include <kest/utils/FdReaderWriter.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "log.h"

namespace kest::utils {
namespace {

constexpr unsigned long long kTransferLimit = 1ULL << 32;
// What Linux moves at most with one call; keeps the answer of a hook within an int.
constexpr unsigned long long kMaxRequest = 0x7ffff000;
// A device that takes nothing for ever must not hold the daemon.
constexpr int kMaxEmptyWrites = 65536;

// Bytes moved, at most `left`; or -1 with errno. What the hook says is not trusted.
template <typename Hook, typename Data>
int callHook(const Hook& hook, int fd, Data* data, unsigned long long left) {
    if (!hook) {
        errno = ENOSYS;
        return -1;
    }
    const auto request = static_cast<int>(std::min(left, kMaxRequest));
    errno = 0;
    const int moved = hook(fd, data, static_cast<unsigned int>(request));
    if (moved >= -1 && moved <= request) return moved;
    errno = EIO;
    return -1;
}

bool worthRetrying(int error) {
    return error == EINTR || error == EAGAIN;
}

// Byte by byte, so that the order of the host does not matter.
template <unsigned int count>
unsigned long long decode(const unsigned char* bytes, bool bigEndian) {
    unsigned long long value = 0;
    for (unsigned int i = 0; i < count; ++i) {
        value = value << 8 | bytes[bigEndian ? i : count - 1 - i];
    }
    return value;
}

template <typename Value>
bool readValue(IReader& reader, Value* value, bool bigEndian) {
    auto* bytes = reinterpret_cast<unsigned char*>(value);
    if (!reader.ReadBuffer(bytes, sizeof(Value))) return false;
    *value = static_cast<Value>(decode<sizeof(Value)>(bytes, bigEndian));
    return true;
}

template <unsigned int count>
bool writeValue(IWriter& writer, unsigned long long value, bool bigEndian) {
    unsigned char bytes[count];
    for (unsigned int i = 0; i < count; ++i) {
        bytes[bigEndian ? count - 1 - i : i] = static_cast<unsigned char>(value >> (8 * i));
    }
    return writer.WriteBuffer(bytes, count);
}

}  // namespace

IReader::~IReader() = default;
IWriter::~IWriter() = default;
IReaderWriter::~IReaderWriter() = default;
FdReaderWriter::~FdReaderWriter() = default;

FdReaderWriter::FdReaderWriter() : FdReaderWriter(-1) {}

FdReaderWriter::FdReaderWriter(int fd)
    : fd_(fd),
      readHook_([](int from, void* buffer, unsigned int length) {
          return static_cast<int>(::read(from, buffer, length));
      }),
      writeHook_([](int to, void const* buffer, unsigned int length) {
          return static_cast<int>(::write(to, buffer, length));
      }),
      syncHook_(::fsync) {}

std::string FdReaderWriter::info() const {
    return "file descriptor: " + std::to_string(fd_);
}

bool FdReaderWriter::ReadI8(signed char* value) {
    return readValue(*this, value, ByteOrder::Little);
}

bool FdReaderWriter::ReadI16(short* value, bool bigEndian) {
    return readValue(*this, value, bigEndian);
}

bool FdReaderWriter::ReadI24(int* value, bool bigEndian) {
    constexpr int kSignBit = 1 << 23;
    *value = 0;
    auto* bytes = reinterpret_cast<unsigned char*>(value);
    if (!ReadBuffer(bytes, 3)) return false;
    const auto bits = static_cast<int>(decode<3>(bytes, bigEndian));
    // Readers of existing big-endian formats expect the plain 24 bits.
    *value = bigEndian ? bits : (bits ^ kSignBit) - kSignBit;
    return true;
}

bool FdReaderWriter::ReadI32(int* value, bool bigEndian) {
    return readValue(*this, value, bigEndian);
}

bool FdReaderWriter::ReadI64(long long* value, bool bigEndian) {
    return readValue(*this, value, bigEndian);
}

bool FdReaderWriter::ReadUI8(unsigned char* value) {
    return ReadI8(reinterpret_cast<signed char*>(value));
}

bool FdReaderWriter::ReadUI16(unsigned short* value, bool bigEndian) {
    return ReadI16(reinterpret_cast<short*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI24(unsigned int* value, bool bigEndian) {
    return ReadI24(reinterpret_cast<int*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI32(unsigned int* value, bool bigEndian) {
    return ReadI32(reinterpret_cast<int*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI64(unsigned long long* value, bool bigEndian) {
    return ReadI64(reinterpret_cast<long long*>(value), bigEndian);
}

bool FdReaderWriter::ReadBuffer(unsigned char* buffer, unsigned long long length) {
    if (fd_ == -1) {
        KEST_LOG(KEST_ERROR, 0, "Invalid descriptor");
        return false;
    }
    if (length >= kTransferLimit) {
        KEST_LOG(KEST_ERROR, 0, "Can't read more than 4GB of data at once");
        return false;
    }
    for (unsigned long long done = 0; done < length;) {
        const int moved = callHook(readHook_, fd_, buffer + done, length - done);
        if (moved > 0) {
            done += static_cast<unsigned int>(moved);
            continue;
        }
        if (moved == 0) {
            KEST_LOG(KEST_WARNING, 0, "Unable to read %llu bytes. EOF", length);
            return false;
        }
        lastError_ = errno;
        if (worthRetrying(lastError_)) continue;
        KEST_LOG(KEST_ERROR, 0, "Unable to read %llu bytes. (%d) %s", length, lastError_,
                 strerror(lastError_));
        return false;
    }
    return true;
}

void FdReaderWriter::SetFD(int fd) {
    fd_ = fd;
}

int FdReaderWriter::GetFD() const {
    return fd_;
}

bool FdReaderWriter::WriteI8(signed char value) {
    return writeValue<1>(*this, static_cast<unsigned char>(value), ByteOrder::Little);
}

bool FdReaderWriter::WriteI16(short value, bool bigEndian) {
    return writeValue<2>(*this, static_cast<unsigned short>(value), bigEndian);
}

bool FdReaderWriter::WriteI24(int value, bool bigEndian) {
    return writeValue<3>(*this, static_cast<unsigned int>(value), bigEndian);
}

bool FdReaderWriter::WriteI32(int value, bool bigEndian) {
    return writeValue<4>(*this, static_cast<unsigned int>(value), bigEndian);
}

bool FdReaderWriter::WriteSI32(int value) {
    return WriteI24(value, ByteOrder::Big) && WriteI8(static_cast<signed char>(value >> 24));
}

bool FdReaderWriter::WriteI64(long long value, bool bigEndian) {
    return writeValue<8>(*this, static_cast<unsigned long long>(value), bigEndian);
}

bool FdReaderWriter::WriteUI8(unsigned char value) {
    return WriteI8(static_cast<signed char>(value));
}

bool FdReaderWriter::WriteUI16(unsigned short value, bool bigEndian) {
    return WriteI16(static_cast<short>(value), bigEndian);
}

bool FdReaderWriter::WriteUI24(unsigned int value, bool bigEndian) {
    return WriteI24(static_cast<int>(value), bigEndian);
}

bool FdReaderWriter::WriteUI32(unsigned int value, bool bigEndian) {
    return WriteI32(static_cast<int>(value), bigEndian);
}

bool FdReaderWriter::WriteUI64(unsigned long long value, bool bigEndian) {
    return WriteI64(static_cast<long long>(value), bigEndian);
}

bool FdReaderWriter::WriteString(std::string const& text) {
    return WriteBuffer(reinterpret_cast<unsigned char const*>(text.data()), text.size());
}

bool FdReaderWriter::WriteBuffer(unsigned char const* buffer, unsigned long long length) {
    if (fd_ == -1) {
        KEST_LOG(KEST_ERROR, 0, "Invalid descriptor");
        return false;
    }
    if (length >= kTransferLimit) {
        KEST_LOG(KEST_ERROR, 0, "Can't write more than 4GB of data at once");
        return false;
    }
    int emptyWrites = 0;
    for (unsigned long long done = 0; done < length;) {
        const int moved = callHook(writeHook_, fd_, buffer + done, length - done);
        if (moved > 0) {
            done += static_cast<unsigned int>(moved);
            emptyWrites = 0;
            continue;
        }
        if (moved == 0 && ++emptyWrites < kMaxEmptyWrites) continue;
        lastError_ = moved == 0 ? EIO : errno;
        if (worthRetrying(lastError_)) continue;
        KEST_LOG(KEST_ERROR, 0, "Unable to write %llu bytes to file", length);
        return false;
    }
    return true;
}

bool FdReaderWriter::Flush() {
    if (fd_ == -1) {
        KEST_LOG(KEST_ERROR, 0, "Invalid descriptor");
        return false;
    }
    if (!syncHook_) {
        lastError_ = ENOSYS;
        return false;
    }
    if (syncHook_(fd_) != -1) return true;
    lastError_ = errno;
    return false;
}

void FdReaderWriter::setReadFunc(ReadFunc hook) {
    readHook_ = std::move(hook);
}

void FdReaderWriter::setWriteFunc(WriteFunc hook) {
    writeHook_ = std::move(hook);
}

void FdReaderWriter::setSyncFunc(SyncFunc hook) {
    syncHook_ = std::move(hook);
}

int FdReaderWriter::lastError() const {
    return lastError_;
}

}  // namespace kest::utils
