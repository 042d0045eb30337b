// Runs one of a few harmless tools for whoever asks.
#pragma once

#include <string>

// Runs "uname -a", say, and returns what it printed, at most a few KiB. Blocks for as long as the
// tool runs, at most a few seconds. An unknown tool, a failure or a time-out is told in the text.
std::string runTool(const std::string& commandLine);
