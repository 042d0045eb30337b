#include <kest/utils/string_utils.h>

#include <arpa/inet.h>
#include <iconv.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "log.h"

namespace kest::utils {
namespace {

constexpr char kWhiteSpace[] = " \t\n\r";

}  // namespace

std::string format(const char* fmt, ...) {
    char* text = nullptr;
    int length = -1;
    va_list args;
    va_start(args, fmt);
    if (fmt != nullptr) length = vasprintf(&text, fmt, args);
    va_end(args);
    if (length < 0) {
        // What `text` holds now is undefined and must not be freed.
        KEST_LOG(KEST_ERROR, 0, "Invalid state");
        forceCrash();
        return "";
    }
    if (text == nullptr) return "";
    const std::unique_ptr<char, void (*)(void*)> owner(text, free);
    return std::string(text, static_cast<size_t>(length));
}

std::string& lTrim(std::string& s) {
    return s.erase(0, std::min(s.find_first_not_of(kWhiteSpace), s.size()));
}

std::string& rTrim(std::string& s) {
    // npos + 1 is 0: a string of white space only becomes empty.
    s.erase(s.find_last_not_of(kWhiteSpace) + 1);
    return s;
}

std::string& trim(std::string& s) {
    return rTrim(lTrim(s));
}

std::string changeCase(std::string s, bool lower) {
    for (char& c : s) {
        const int byte = static_cast<unsigned char>(c);
        c = static_cast<char>(lower ? tolower(byte) : toupper(byte));
    }
    return s;
}

std::string upperCase(std::string s) {
    return changeCase(std::move(s), false);
}

std::string lowerCase(std::string s) {
    return changeCase(std::move(s), true);
}

void join(std::string& out, const std::string& sep, const std::vector<std::string>& parts) {
    std::string joined;
    for (const std::string& part : parts) {
        if (&part != &parts.front()) joined += sep;
        joined += part;
    }
    out.swap(joined);
}

void join(std::string& out, const std::string& sep, int count, ...) {
    std::vector<std::string> parts;
    va_list args;
    va_start(args, count);
    for (int i = 0; i < count; ++i) {
        const char* part = va_arg(args, const char*);
        if (part == nullptr) break;
        parts.emplace_back(part);
    }
    va_end(args);
    join(out, sep, parts);
}

std::string getHostByName(const std::string& host) {
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), "80", &hints, &found) != 0 || found == nullptr) return "";
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    if (found->ai_addr == nullptr) return "";

    sockaddr_in address = {};
    memcpy(&address, found->ai_addr, sizeof(address));
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return text;
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void replaceAll(std::string& s, const std::string& from, const std::string& to) {
    if (from.empty()) return;
    std::string replaced;
    replaced.reserve(s.size());
    size_t start = 0;
    for (size_t at = 0; (at = s.find(from, start)) != std::string::npos; start = at + from.size()) {
        replaced.append(s, start, at - start);
        replaced += to;
    }
    replaced.append(s, start, std::string::npos);
    s.swap(replaced);
}

std::string escapeShellArg(const char* arg) {
    std::string quoted = "'";
    for (; arg != nullptr && *arg != '\0'; ++arg) {
        if (*arg == '\'') {
            quoted += "'\\''";
        } else {
            quoted += *arg;
        }
    }
    quoted += '\'';
    return quoted;
}

std::string escapeShellArg(const std::string& arg) {
    return escapeShellArg(arg.c_str());
}

bool utf8_to_utf32(const std::string& in, std::vector<uint32_t>& out) {
    // One unit more than bytes: room for a byte-order mark.
    out.assign(in.size() + 1, 0);
    iconv_t converter = iconv_open("UTF-32", "UTF-8");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        KEST_LOG(KEST_ERROR, errno, "Failed to initialize iconv");
        return false;
    }
    // iconv's interface lacks a const; it does not write to its input.
    char* source = const_cast<char*>(in.data());
    size_t sourceLeft = in.size();
    char* target = reinterpret_cast<char*>(out.data());
    size_t targetLeft = out.size() * sizeof(uint32_t);
    const size_t result = iconv(converter, &source, &sourceLeft, &target, &targetLeft);
    const int error = errno;
    iconv_close(converter);
    if (result != 0) {
        KEST_LOG(KEST_ERROR, error, "Failed to convert UTF-8 to UTF-32, input:%s", in.c_str());
        return false;
    }
    out.resize(out.size() - targetLeft / sizeof(uint32_t));
    return true;
}

void tokenize(const std::string& s, std::vector<std::string>& out, const std::string& delimiters,
              bool skipEmpty) {
    // Collected aside: `s` may stand in `out`, which moves its strings when it grows.
    std::vector<std::string> tokens;
    size_t start = 0;
    size_t end = 0;
    do {
        end = std::min(s.find_first_of(delimiters, start), s.size());
        if (end > start || !skipEmpty) tokens.push_back(s.substr(start, end - start));
        start = end + 1;
    } while (end < s.size());
    std::move(tokens.begin(), tokens.end(), std::back_inserter(out));
}

void split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out) {
    std::vector<std::string> fields;
    size_t start = 0;
    // An empty delimiter would be found at the same place for ever.
    while (!delimiter.empty()) {
        const size_t end = s.find(delimiter, start);
        if (end == std::string::npos) break;
        fields.push_back(s.substr(start, end - start));
        start = end + delimiter.size();
    }
    fields.push_back(s.substr(start));
    out.swap(fields);
}

timeval* now(timeval* tv) {
    if (tv != nullptr) gettimeofday(tv, nullptr);
    return tv;
}

}  // namespace kest::utils
