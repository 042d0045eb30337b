// /proc/PID/maps, whose paths any program can choose.
#include <kest/utils/memorymap.h>

#include <algorithm>

#include "support/fuzz.h"

void kest::fuzz::fuzz(std::string_view input) {
    setProcFiles(input);
    utils::MemoryMap map;
    CHECK(map.GetMemoryMap(1));
    CHECK(std::string_view(map.text(), map.textLength()) == input);
    CHECK(map.entryCount() == 1 + std::count(input.begin(), input.end(), '\n'));
    for (uint32_t i = 0; i < map.entryCount(); ++i) {
        const utils::MemoryMapEntry& entry = map.entries()[i];
        CHECK(entry.pathLength < sizeof(entry.path) && entry.path[entry.pathLength] == '\0');
        if (entry.start <= entry.end) CHECK(map.Find(entry.start) != nullptr);
    }
}
