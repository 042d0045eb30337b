// Addresses from the configuration.
#include <kest/variant/uri.h>

#include <string>

#include "support/fuzz.h"

using kest::variant::URI;

void kest::fuzz::fuzz(std::string_view input) {
    URI uri;
    if (!URI::FromString(input, uri)) return;
    const std::string& host = uri["host"];
    const std::string& path = uri["fullDocumentPath"];
    const int port = uri["port"];
    CHECK(!host.empty() && input.find(host) != input.npos);
    CHECK(!path.empty() && path[0] == '/' && path.find('#') == path.npos);
    CHECK(port >= 0 && port <= 65535);
    for (const char c : input.substr(0, input.find('#')))
        CHECK(c > ' ' && c < '\x7f');
}
