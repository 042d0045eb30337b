// What the fuzz targets share. A target defines fuzz(), which is called for every input; crashes,
// what the sanitizers find, and failed checks end the program. Log lines are put together, as a
// wrong argument shows then, and dropped.
#pragma once

#include <string_view>

namespace kest::fuzz {

// The target.
void fuzz(std::string_view input);

// Ends the program when a result is not as it must be for every input.
void check(bool holds, const char* what);
#define CHECK(condition) ::kest::fuzz::check(condition, #condition)

// What the library finds in every file under /proc from now on. Kept by reference.
void setProcFiles(std::string_view content);

// The input up to the first `separator`, which are both taken off; all of it when there is none.
std::string_view takePart(std::string_view& input, std::string_view separator);

}  // namespace kest::fuzz
