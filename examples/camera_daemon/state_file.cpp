#include "state_file.h"

#include <cstdlib>

#include <kest/utils/file.h>
#include <kest/utils/fileutils.h>

using kest::utils::File;

unsigned readStarts(const std::string& path) {
    std::string text;
    if (!kest::utils::isFile(path) || !File::ReadStringAll(path, text)) return 0;
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
}

bool writeStarts(const std::string& path, unsigned starts) {
    File file;
    return file.Initialize(path, File::Truncate) &&
           file.WriteString(std::to_string(starts) + "\n") && file.Flush();
}
