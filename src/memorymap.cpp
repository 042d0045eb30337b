#include <kest/utils/memorymap.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <kest/utils/procfs.h>
#include <kest/utils/string_utils.h>

#include "log.h"

namespace kest::utils {
namespace {

constexpr unsigned kNoLimit = ~0U;
constexpr int kFieldsWithoutPath = 7;

bool parse(const std::string& line, MemoryMapEntry& entry) {
    static_assert(sizeof(entry.permissions) > 4 && sizeof(entry.path) == 4096, "widths below");
    const int fields = sscanf(line.c_str(), "%zx-%zx %4s %zx %zx:%zx %zu %4095s\n", &entry.start,
                              &entry.end, entry.permissions, &entry.offset, &entry.deviceMajor,
                              &entry.deviceMinor, &entry.inode, entry.path);
    if (fields < kFieldsWithoutPath) return false;
    entry.pathLength = static_cast<uint32_t>(strlen(entry.path));
    return true;
}

}  // namespace

void MemoryMap::Free::operator()(void* memory) const {
    free(memory);
}

MemoryMap::~MemoryMap() {
    entryCount_ = 0;
    entries_.reset();
    textLength_ = 0;
    text_.reset();
    // The crash handler may still look at the global map after its end: the stores above count.
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

bool MemoryMap::GetMemoryMap(int pid) {
    const std::string path = pid == 0
                                 ? "/proc/self/maps"
                                 : format("/proc/%llu/maps", static_cast<unsigned long long>(pid));
    std::string content;
    if (!ReadProcFile(path.c_str(), content, kNoLimit)) return false;
    std::vector<std::string> lines;
    split(content, "\n", lines);

    // calloc in place of new[]: tens of megabytes may be asked for, and are not touched twice.
    std::unique_ptr<char[], Free> text(static_cast<char*>(calloc(content.size() + 1, 1)));
    std::unique_ptr<MemoryMapEntry[], Free> entries(
        static_cast<MemoryMapEntry*>(calloc(lines.size(), sizeof(MemoryMapEntry))));
    if (!text || !entries) return false;
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): calloc has
    memcpy(text.get(), content.data(), content.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = trim(lines[i]);
        if (line.empty() || parse(line, entries[i])) continue;
        KEST_LOG(KEST_WARNING, 0, "The following memory map line could not be parsed `%s`",
                 line.c_str());
        entries[i] = {};
    }
    text_ = std::move(text);
    textLength_ = static_cast<uint32_t>(content.size());
    entries_ = std::move(entries);
    entryCount_ = static_cast<uint32_t>(lines.size());
    return true;
}

const MemoryMapEntry* MemoryMap::Find(uintptr_t address) const {
    for (uint32_t i = 0; i < entryCount_; ++i) {
        const MemoryMapEntry& entry = entries_[i];
        if (entry.start <= address && address <= entry.end) return &entry;
    }
    return nullptr;
}

}  // namespace kest::utils
