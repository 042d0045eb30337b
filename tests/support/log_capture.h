// Takes the place of the platform's logging: a program that links this records every log line.
#pragma once

#include <string>
#include <vector>

namespace kest::test {

struct LogLine {
    std::string module;
    std::string sourceFile;
    std::string function;
    int level = -1;
    int errnoValue = -1;
    std::string text;
};

// Log lines since the last clearLog(), oldest first. Safe while other threads log.
std::vector<LogLine> logLines();

// Their texts only, the handiest form for a comparison.
std::vector<std::string> logTexts();

void clearLog();

}  // namespace kest::test
