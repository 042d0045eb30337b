/// @file
/// The memory map of a process, which tells what mapped file holds an address, and a backtrace of
/// the calling thread for a daemon's own output.
///
/// A `MemoryMap` may be read from several threads at once while no GetMemoryMap() runs on it.
/// PrintBacktrace() may be called from any thread and from a signal handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include <kest/utils/api.h>

namespace kest::utils {

/// One line of a maps file (proc_pid_maps(5)).
struct MemoryMapEntry {
    size_t start;         ///< First address.
    size_t end;           ///< First address past the range.
    char permissions[8];  ///< Such as "r-xp".
    size_t offset;        ///< Of the range in its file, in bytes.
    size_t deviceMajor;   ///< Of the file's device.
    size_t deviceMinor;   ///< Of the file's device.
    size_t inode;         ///< Of the file; 0 without one.
    char path[4096];      ///< First word of the path column, cut to fit; empty when there is none.
    uint32_t pathLength;  ///< `strlen` of `path`.
};

/// Snapshot of a process's memory map: the text as it was read, and one entry per line of it.
///
/// An entry takes 4 KiB of memory, whatever the length of its path: some hundred KiB for a usual
/// daemon, 42 MB for a process with 10,000 mappings.
class KEST_API MemoryMap {
  public:
    constexpr MemoryMap() = default;
    virtual ~MemoryMap();
    MemoryMap(const MemoryMap&) = delete;
    MemoryMap& operator=(const MemoryMap&) = delete;

    /// Reads the map of process `pid`, or of the calling process when it is 0, and replaces text
    /// and entries as a whole.
    ///
    /// A line that cannot be parsed is logged and leaves a zeroed entry; so does, without a log
    /// line, the empty piece behind the last line break. A process that has ended and is not reaped
    /// yet has an empty map.
    /// @return false, with what was held before, when the file cannot be read (ReadProcFile() logs)
    ///         or memory has run out.
    bool GetMemoryMap(int pid);

    /// The first entry, in the order of the lines, that holds the address; null when none does. The
    /// end of a range counts as inside. May be called from a signal handler.
    const MemoryMapEntry* Find(uintptr_t address) const;

    /// The maps file as it was read, with a NUL behind it; null before the first success.
    const char* text() const { return text_.get(); }
    /// Bytes of text().
    uint32_t textLength() const { return textLength_; }
    /// Null before the first success.
    const MemoryMapEntry* entries() const { return entries_.get(); }
    /// Number of entries(), those that could not be parsed included.
    uint32_t entryCount() const { return entryCount_; }

  private:
    struct Free {
        void operator()(void* memory) const;
    };

    std::unique_ptr<char[], Free> text_;
    uint32_t textLength_ = 0;
    std::unique_ptr<MemoryMapEntry[], Free> entries_;
    uint32_t entryCount_ = 0;
};

/// @name Backtrace
/// Writes the call chain of the calling thread, from the return address into the caller on, and
/// then the memory map as it was when the crash handler was installed (nothing, and no file names,
/// before that).
///
///     --- STACK TRACE ---
///     0x5567A2C1: /usr/bin/streamer
///     0x5567A3F0: /usr/bin/streamer
///     --- MEMORY MAP ---
///     (the maps file)
///
/// An address shows its low 32 bits, on 64-bit systems too. The chain ends after 200 lines, and
/// where a function keeps no frame pointer; it never faults, whatever the stack looks like.
///
/// Nothing is allocated or logged, failures to write are ignored, `errno` is kept.
/// @{

/// To standard error.
KEST_API void PrintBacktrace();

/// To the descriptor of `stream`, past its buffer: flush it first to keep the order. Does nothing
/// for null.
KEST_API void PrintBacktrace(FILE* stream);

/// To a descriptor.
KEST_API void PrintBacktrace(int fd);
/// @}

}  // namespace kest::utils
