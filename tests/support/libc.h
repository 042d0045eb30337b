// For test programs that put a function of their own in the place of one of libc's.
#pragma once

#include <dlfcn.h>

// The libc function that was replaced.
#define LIBC(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))
