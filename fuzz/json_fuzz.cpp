// JSON from other daemons and from servers: what is read is written so that it reads the same
// again.
#include <kest/ipc/messages.h>
#include <kest/variant/variant.h>

#include <string>

#include "support/fuzz.h"

using kest::variant::JsonStyle, kest::variant::Variant;

void kest::fuzz::fuzz(std::string_view input) {
    Variant value("unchanged");
    if (!Variant::FromJson(input, value)) return CHECK(value == Variant("unchanged"));
    // The texts are compared: a NaN equals nothing.
    const std::string exact = value.ToJson();
    Variant again;
    CHECK(Variant::FromJson(exact, again) && again.ToJson() == exact);
    CHECK(Variant::FromJson(value.ToJson(JsonStyle::Plain), again));

    kest::ipc::messages::ValidateAuthToken message(value);
    message.NormalizeFields();
    const std::string once = message.ToJson();
    message.NormalizeFields();
    CHECK(message.ToJson() == once);
}
