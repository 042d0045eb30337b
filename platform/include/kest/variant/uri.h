/// @file
/// Addresses of servers, taken apart. A URI is used by one thread at a time, like any Variant.
#pragma once

#include <string_view>

#include <kest/platform/api.h>
#include <kest/variant/variant.h>

namespace kest::variant {

/// A keyed object with the parts of a URI:
///
/// | key                    | value                                                            |
/// |------------------------|------------------------------------------------------------------|
/// | "scheme"               | string, lower case                                               |
/// | "userName", "password" | strings; present only when the URI has them                      |
/// | "host"                 | string, as written; an IPv6 address without its brackets         |
/// | "port"                 | integer; without one in the URI 80 for ws and http, 443 for wss  |
/// |                        | and https, else 0                                                |
/// | "fullDocumentPath"     | string: path and query, at least "/"                             |
class KEST_PLATFORM_API URI : public BaseVariantContainer {
  public:
    /// A new one is empty; one made of a value takes that over as it is.
    using BaseVariantContainer::BaseVariantContainer;

    /// Takes `scheme://[user[:password]@]host[:port][/path][?query][#fragment]` apart (RFC 3986).
    /// Percent-encoding stays as it is; the fragment is dropped. Does not log.
    /// @return false, with `uri` unchanged, on anything else: no scheme or host, a port outside
    ///         1..65535, a malformed address in brackets, a character that RFC 3986 does not allow
    ///         in its place (blanks, control characters, bytes above 126), a percent sign without
    ///         two hexadecimal digits, more than 8192 bytes.
    static bool FromString(std::string_view text, URI& uri);
};

}  // namespace kest::variant
