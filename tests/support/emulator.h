// Tests of a build for another processor, run by a user-mode emulator, which KEST_EMULATOR names
// then.
//
//     if (emulated()) GTEST_SKIP() << "the emulator answers for /proc/self/cmdline itself";
//     system((command(LOG_DEFAULT_PROGRAM) + " 2>/dev/null").c_str());
#pragma once

#include <cstdlib>
#include <string>

namespace kest::test {

inline bool emulated() {
    return getenv("KEST_EMULATOR") != nullptr;
}

// The shell's command that runs a program of this build: its path, after the emulator if there is
// one.
inline std::string command(const std::string& program) {
    return emulated() ? getenv("KEST_EMULATOR") + (" " + program) : program;
}

}  // namespace kest::test
