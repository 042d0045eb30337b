// Text functions on any bytes: an input is a text and, behind a line break, what to look for in it.
#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>

#include <string>
#include <vector>

#include "support/fuzz.h"

namespace kest::fuzz {
namespace {

using namespace utils;

void cutAndJoin(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    std::string joined;
    split(text, separator, parts);
    join(joined, separator, parts);
    CHECK(joined == text);
    parts.clear();
    tokenize(text, parts, separator, true);
    for (const std::string& part : parts)
        CHECK(!part.empty() && part.find_first_of(separator) == part.npos);
}

void replaceAndTrim(std::string text, const std::string& word) {
    std::string once = text;
    replaceAll(once, word, "");
    CHECK(once.size() <= text.size());
    replaceAll(text, word, word);
    trim(text);
    CHECK(trim(once = text) == text);
    CHECK(lowerCase(upperCase(text)).size() == text.size());
}

void pathsStayPaths(const std::string& text) {
    std::string path;
    if (normalizePath(text, path)) CHECK(path.size() <= text.size());
    CHECK(basename_safe(text).size() <= text.size());
    CHECK(!dirname_safe(text).empty());
}

}  // namespace

void fuzz(std::string_view input) {
    const std::string text(takePart(input, "\n"));
    const std::string word(input);
    cutAndJoin(text, word);
    replaceAndTrim(text, word);
    pathsStayPaths(text);

    std::vector<uint32_t> characters;
    if (utf8_to_utf32(text, characters)) CHECK(characters.size() <= text.size() + 1);
    std::string quoted = escapeShellArg(text);
    replaceAll(quoted, "'\\''", "'");
    CHECK(quoted == std::string("'") + text.c_str() + "'");

    timeval moment = {};
    timeval again = {};
    if (!stringToTimeval(text.data(), static_cast<unsigned>(text.size()), &moment)) return;
    const std::string written = timevalToString(&moment);
    if (written.empty()) return;
    CHECK(stringToTimeval(written.data(), static_cast<unsigned>(written.size()), &again));
    CHECK(again.tv_sec == moment.tv_sec && again.tv_usec == moment.tv_usec);
}

}  // namespace kest::fuzz
