#include <kest/utils/file.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "c_path.h"
#include "log.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

constexpr int kModeFlags[] = {
    O_RDONLY,
    O_RDWR,
    O_RDWR | O_CREAT | O_TRUNC,
    O_RDWR | O_CREAT | O_APPEND,
};
constexpr mode_t kPermissions = 0666;
constexpr unsigned long long kReadAllLimit = 0xffffffff;
// Large enough that one step reads nearly every file there is.
constexpr unsigned long long kReadStep = 4 << 20;

// Makes room for `size` bytes. What is too small goes first: both together could be more memory
// than there is, and a text that has grown before may ask for twice of what it had.
bool makeRoom(std::string& text, unsigned long long size) {
    if (text.capacity() >= size) return true;
    std::string().swap(text);
    try {
        text.reserve(static_cast<size_t>(size));
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

}  // namespace

File::File() = default;

File::~File() {
    Close();
}

bool File::Initialize(std::string const& path, int mode, int extraFlags) {
    Close();
    path_ = path;
    if (mode < Read || mode > Append) {
        KEST_LOG(KEST_ERROR, 0, "Invalid open mode");
        return false;
    }
    const int flags = kModeFlags[mode] | extraFlags;
    const int fd = ::open(detail::cPath(path_), flags | O_CLOEXEC, kPermissions);
    if (fd == -1) {
        KEST_LOG(KEST_ERROR, errno, "Unable to open file %s with mode `%x`", path_.c_str(),
                 static_cast<unsigned int>(flags));
        return false;
    }
    FdReaderWriter::SetFD(fd);
    appendMode_ = mode == Append;
    if (Fstat()) {
        cachedSize_ = static_cast<unsigned long long>(stats_.st_size);
    } else {
        KEST_LOG(KEST_ERROR, errno, "fstat() failed");
    }
    return true;
}

void File::Close() {
    const detail::UniqueFd closing(FdReaderWriter::GetFD());
    FdReaderWriter::SetFD(-1);
    cachedSize_ = 0;
    path_.clear();
    appendMode_ = false;
}

bool File::IsOpen() const {
    return FdReaderWriter::GetFD() != -1;
}

std::string File::GetPath() const {
    return path_;
}

unsigned long long File::Size() {
    if (!checkOpen(KEST_WARNING, __func__)) return 0;
    if (appendMode_) return cachedSize_;
    struct stat now = {};
    if (::fstat(FdReaderWriter::GetFD(), &now) != 0 || now.st_size < 0) {
        KEST_LOG(KEST_WARNING, errno, "File stats read failure");
        return 0;
    }
    cachedSize_ = static_cast<unsigned long long>(now.st_size);
    return cachedSize_;
}

unsigned long long File::Cursor() const {
    if (!checkOpen(KEST_WARNING, __func__)) return 0;
    const off_t position = ::lseek(FdReaderWriter::GetFD(), 0, SEEK_CUR);
    if (position == -1) {
        KEST_LOG(KEST_ERROR, errno, "Unable to get the current location");
        return 0;
    }
    return static_cast<unsigned long long>(position);
}

bool File::SeekBegin() {
    if (!checkOpen(KEST_ERROR, __func__)) return false;
    if (seek(0, SEEK_SET)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to seek to the beginning of file");
    return false;
}

bool File::SeekEnd() {
    if (!checkOpen(KEST_ERROR, __func__)) return false;
    if (seek(0, SEEK_END)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to seek to the end of file");
    return false;
}

bool File::SeekAhead(long long count) {
    if (!checkMove(count, __func__)) return false;
    if (Cursor() + static_cast<unsigned long long>(count) > cachedSize_) {
        KEST_LOG(KEST_ERROR, 0, "End of file will be reached");
        return false;
    }
    if (seek(count, SEEK_CUR)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to seek ahead %lld bytes", count);
    return false;
}

bool File::SeekBehind(long long count) {
    if (!checkMove(count, __func__)) return false;
    if (static_cast<unsigned long long>(count) > Cursor()) {
        KEST_LOG(KEST_ERROR, 0, "End of file will be reached");
        return false;
    }
    if (seek(-count, SEEK_CUR)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to seek behind %lld bytes", count);
    return false;
}

bool File::SeekTo(unsigned long long position) {
    if (position > cachedSize_) {
        KEST_LOG(KEST_ERROR, 0, "End of file will be reached");
        return false;
    }
    if (seek(static_cast<long long>(position), SEEK_SET)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to seek to position %llu", position);
    return false;
}

bool File::IsEOF() {
    if (!checkOpen(KEST_WARNING, __func__)) return true;
    const off_t cursor = ::lseek(FdReaderWriter::GetFD(), 0, SEEK_CUR);
    const off_t end = cursor == -1 ? -1 : ::lseek(FdReaderWriter::GetFD(), 0, SEEK_END);
    if (end == -1) {
        KEST_LOG(KEST_ERROR, errno, "Unable to seek to the end of file");
        return true;
    }
    if (!seek(cursor, SEEK_SET)) {
        KEST_LOG(KEST_ERROR, errno, "Unable to seek to position %lld",
                 static_cast<long long>(cursor));
        return true;
    }
    return cursor == end;
}

bool File::PeekI8(signed char* value) {
    return stepBack(ReadI8(value), 1);
}

bool File::PeekI16(short* value, bool bigEndian) {
    return stepBack(ReadI16(value, bigEndian), 2);
}

bool File::PeekI24(int* value, bool bigEndian) {
    return stepBack(ReadI24(value, bigEndian), 3);
}

bool File::PeekI32(int* value, bool bigEndian) {
    return stepBack(ReadI32(value, bigEndian), 4);
}

bool File::PeekI64(long long* value, bool bigEndian) {
    return stepBack(ReadI64(value, bigEndian), 8);
}

bool File::PeekUI8(unsigned char* value) {
    return PeekI8(reinterpret_cast<signed char*>(value));
}

bool File::PeekUI16(unsigned short* value, bool bigEndian) {
    return PeekI16(reinterpret_cast<short*>(value), bigEndian);
}

bool File::PeekUI24(unsigned int* value, bool bigEndian) {
    return PeekI24(reinterpret_cast<int*>(value), bigEndian);
}

bool File::PeekUI32(unsigned int* value, bool bigEndian) {
    return PeekI32(reinterpret_cast<int*>(value), bigEndian);
}

bool File::PeekUI64(unsigned long long* value, bool bigEndian) {
    return PeekI64(reinterpret_cast<long long*>(value), bigEndian);
}

bool File::PeekBuffer(unsigned char* buffer, unsigned long long length) {
    return stepBack(ReadBuffer(buffer, length), length);
}

bool File::ReadStringAll(std::string& out) {
    const unsigned long long size = Size();
    if (size != 0 && size < kReadAllLimit && !SeekBegin()) {
        KEST_LOG(KEST_ERROR, errno, "Unable to seek to begin");
    }
    return readAll(out, size);
}

bool File::ReadStringAll(std::string const& path, std::string& out) {
    File file;
    // Just opened: the size is fresh and the cursor at the start, which saves two system calls.
    return file.Initialize(path, Read) && file.readAll(out, file.cachedSize_);
}

bool File::WriteBuffer(unsigned char const* buffer, unsigned long long length) {
    if (!FdReaderWriter::WriteBuffer(buffer, length)) return false;
    cachedSize_ += length;
    return true;
}

bool File::Fstat() {
    struct stat now = {};
    if (::fstat(FdReaderWriter::GetFD(), &now) == 0) {
        stats_ = now;
        return true;
    }
    KEST_LOG(KEST_WARNING, errno, "fstat error (%s)", strerror(errno));
    return false;
}

struct stat const& File::Stats() const {
    return stats_;
}

unsigned long long File::CreationMs() {
    return stampMs(stats_.st_ctim, __func__);
}

unsigned long long File::ModificationMs() {
    return stampMs(stats_.st_mtim, __func__);
}

unsigned long long File::AccessMs() {
    return stampMs(stats_.st_atim, __func__);
}

std::string File::info() const {
    return "file: " + path_ + ", " + FdReaderWriter::info();
}

bool File::checkOpen(int logLevel, char const* caller) const {
    if (IsOpen()) return true;
    KEST_LOG_AS(caller, logLevel, 0, "File not opened");
    return false;
}

bool File::checkMove(long long count, char const* caller) const {
    if (!checkOpen(KEST_ERROR, caller)) return false;
    if (count >= 0) return true;
    KEST_LOG_AS(caller, KEST_ERROR, 0, "Invalid count");
    return false;
}

bool File::seek(long long offset, int origin) const {
    return ::lseek(FdReaderWriter::GetFD(), offset, origin) != -1;
}

// `stamp` is a field of stats_, looked at once they are fresh.
unsigned long long File::stampMs(timespec const& stamp, char const* caller) {
    if (!Fstat()) {
        KEST_LOG_AS(caller, KEST_ERROR, errno, "fstat() failed");
        return 0;
    }
    return static_cast<unsigned long long>(stamp.tv_sec) * 1000 +
           static_cast<unsigned long long>(stamp.tv_nsec) / 1000000;
}

bool File::stepBack(bool read, unsigned long long width) {
    if (read) SeekBehind(static_cast<long long>(width));
    return read;
}

bool File::readAll(std::string& out, unsigned long long size) {
    if (size == 0 || size >= kReadAllLimit) out.clear();
    if (size >= kReadAllLimit) {
        KEST_LOG_AS("ReadStringAll", KEST_ERROR, 0,
                    "ReadAll can only be done on files smaller than 2^32 bytes (4GB)");
        return false;
    }
    if (makeRoom(out, size) && readInSteps(out, size)) return true;
    KEST_LOG_AS("ReadStringAll", KEST_ERROR, 0, "Unable to read data");
    std::string().swap(out);
    return false;
}

// The text has the capacity already, so that growing it cannot fail; it grows by what is read next,
// so that a size that the file does not live up to takes no memory. What the text held before is
// overwritten: who reads a file again and again into one text pays for no clearing.
bool File::readInSteps(std::string& out, unsigned long long size) {
    for (unsigned long long done = 0; done < size;) {
        const unsigned long long step = std::min(size - done, kReadStep);
        if (out.size() < done + step) out.resize(static_cast<size_t>(done + step));
        if (!ReadBuffer(reinterpret_cast<unsigned char*>(&out[static_cast<size_t>(done)]), step)) {
            return false;
        }
        done += step;
    }
    out.resize(static_cast<size_t>(size));
    return true;
}

}  // namespace kest::utils
