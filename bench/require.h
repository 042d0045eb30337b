// What a benchmark says when it cannot measure: a figure of work that failed would mislead.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void require(bool fine, const char* what) {
    if (fine) return;
    std::perror(what);
    std::exit(1);
}
