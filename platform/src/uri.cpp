#include <kest/variant/uri.h>

#include <arpa/inet.h>

#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "digit.h"

namespace kest::variant {
namespace {

using utils::detail::isDigit;

constexpr size_t kMaxLength = 8192;
constexpr char kSubDelimiters[] = "!$&'()*+,;=";

struct DefaultPort {
    std::string_view scheme;
    uint16_t port;
};
constexpr DefaultPort kDefaultPorts[] = {{"ws", 80}, {"http", 80}, {"wss", 443}, {"https", 443}};

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool contains(std::string_view set, char c) {
    return set.find(c) != std::string_view::npos;
}

// Unreserved characters, sub-delimiters, whole percent-encodings and what is named besides.
bool isText(std::string_view text, std::string_view besides) {
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (text.size() - i < 3 || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) {
                return false;
            }
        } else if (!isLetter(c) && !isDigit(c) && !contains("-._~", c) &&
                   !contains(kSubDelimiters, c) && !contains(besides, c)) {
            return false;
        }
    }
    return true;
}

// Cuts off and returns what stands before the first of the delimiters, or all of it.
std::string_view takeUntil(std::string_view& text, std::string_view delimiters) {
    const std::string_view head = text.substr(0, text.find_first_of(delimiters));
    text.remove_prefix(head.size());
    return head;
}

bool parseScheme(std::string_view& text, URI& uri) {
    std::string scheme(takeUntil(text, ":"));
    if (scheme.empty() || !isLetter(scheme[0]) || text.substr(0, 3) != "://") return false;
    text.remove_prefix(3);
    for (char& c : scheme) {
        if (!isLetter(c) && !isDigit(c) && !contains("+-.", c)) return false;
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    uri["scheme"] = std::move(scheme);
    return true;
}

bool parseUser(std::string_view& authority, URI& uri) {
    const size_t at = authority.find('@');
    if (at == std::string_view::npos) return true;
    std::string_view password = authority.substr(0, at);
    authority.remove_prefix(at + 1);
    if (!isText(password, ":")) return false;
    uri["userName"] = std::string(takeUntil(password, ":"));
    if (!password.empty()) uri["password"] = std::string(password.substr(1));
    return true;
}

// Cuts the host off, which leaves nothing or a colon and the port.
bool parseHost(std::string_view& authority, URI& uri) {
    std::string host;
    if (!authority.empty() && authority[0] == '[') {
        host = takeUntil(authority, "]").substr(1);
        in6_addr address = {};
        // The system's parser would stop at a NUL and let pass what follows.
        if (authority.empty() || !isText(host, ":") ||
            inet_pton(AF_INET6, host.c_str(), &address) != 1) {
            return false;
        }
        authority.remove_prefix(1);
    } else {
        host = takeUntil(authority, ":");
        if (!isText(host, "")) return false;
    }
    if (host.empty()) return false;
    uri["host"] = std::move(host);
    return true;
}

uint16_t defaultPort(const std::string& scheme) {
    for (const DefaultPort& known : kDefaultPorts) {
        if (known.scheme == scheme) return known.port;
    }
    return 0;
}

bool parsePort(std::string_view rest, URI& uri) {
    if (!rest.empty() && rest[0] != ':') return false;
    if (rest.size() <= 1) {
        uri["port"] = defaultPort(uri["scheme"]);
        return true;
    }
    uint16_t port = 0;
    const char* const end = rest.data() + rest.size();
    const auto [stop, error] = std::from_chars(rest.data() + 1, end, port);
    if (error != std::errc() || stop != end || port == 0) return false;
    uri["port"] = port;
    return true;
}

bool parseDocument(std::string_view text, URI& uri) {
    const std::string_view path = takeUntil(text, "?#");
    const std::string_view query = takeUntil(text, "#");
    if (!isText(path, ":@/") || !isText(query, ":@/?")) return false;
    if (!text.empty() && !isText(text.substr(1), ":@/?")) return false;
    uri["fullDocumentPath"] = std::string(path.empty() ? "/" : path).append(query);
    return true;
}

}  // namespace

bool URI::FromString(std::string_view text, URI& uri) {
    URI parsed;
    if (text.size() > kMaxLength || !parseScheme(text, parsed)) return false;
    std::string_view authority = takeUntil(text, "/?#");
    if (!parseUser(authority, parsed) || !parseHost(authority, parsed) ||
        !parsePort(authority, parsed) || !parseDocument(text, parsed)) {
        return false;
    }
    uri = std::move(parsed);
    return true;
}

}  // namespace kest::variant
