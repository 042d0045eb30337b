// Looks at a firmware image before anybody thinks of installing it.
#pragma once

#include <string>

// Tells in a text whether the image may be installed, and its version. Blocks while the system's
// update tool checks it.
std::string checkFirmware(const std::string& path);
