// What the daemon remembers from one run to the next: how often it was started.
#pragma once

#include <string>

// Number of earlier starts; 0 without a file, or when the file does not make sense.
unsigned readStarts(const std::string& path);

// Replaces the file's content. A failure is logged by the library.
bool writeStarts(const std::string& path, unsigned starts);
